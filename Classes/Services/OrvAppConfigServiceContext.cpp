#include "OrvAppConfigServiceContext.h"

#include "OrvString.h"

OrvAppConfigServicePayloadValidationContext::OrvAppConfigServicePayloadValidationContext(
    std::optional<OrvData> responseData, std::optional<std::string> varnelSignatureHeader,
    std::optional<OrvDate> notValidBeforeDate, std::optional<OrvDate> notValidAfterDate)
    : responseData_(std::move(responseData)),
      varnelSignatureHeader_(std::move(varnelSignatureHeader)),
      notValidBeforeDate_(notValidBeforeDate),
      notValidAfterDate_(notValidAfterDate) {
  if (!varnelSignatureHeader_) return;
  // Exactly two pieces: the conventional "header..signature" detached form splits into three and is
  // left for validation to refuse.
  auto pieces = orv::detail::componentsSeparatedByString(*varnelSignatureHeader_, ".");
  if (pieces.size() == 2) {
    varnelJWTHeader_ = std::move(pieces[0]);
    varnelJWTSignature_ = std::move(pieces[1]);
  }
}

void OrvAppConfigServiceContext::addPayloadValidationContext(
    std::shared_ptr<OrvAppConfigServicePayloadValidationContext> context) {
  validationContexts_.push_back(std::move(context));
}

OrvAppConfigServiceSettingsRetrievalContext::OrvAppConfigServiceSettingsRetrievalContext(
    OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
    const std::optional<std::string>& channelName, OrvAppConfigSettingsRetrievalCompletionBlock completionBlock)
    : OrvAppConfigServiceContext(hostType),
      storeUrls_(std::move(storeUrls)),
      platform_(platform),
      completionBlock_(std::move(completionBlock)) {
  if (auto trimmed = orv::detail::trimWhitespaceAndNewlines(channelName); trimmed && !trimmed->empty()) {
    channelName_ = std::move(trimmed);
  }
}
