#pragma once
// Request contexts: one request's inputs, its completion block, what the workflow learns on the way and
// the signed payloads awaiting validation. Not locked: the steps of one request follow one another.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrvAppConfigRequestTrace.h"
#include "OrvAppConfigServiceTypes.h"
#include "OrvTypes.h"

class OrvAppConfigRetrieveStoreSettingsOperation;

// One signed payload: a response body, its signature header and the validity dates parsed from it.
class OrvAppConfigServicePayloadValidationContext {
 public:
  // Splits the signature header at every full stop; only exactly two pieces give header and signature.
  OrvAppConfigServicePayloadValidationContext(std::optional<OrvData> responseData,
                                              std::optional<std::string> varnelSignatureHeader,
                                              std::optional<OrvDate> notValidBeforeDate,
                                              std::optional<OrvDate> notValidAfterDate);
  static std::shared_ptr<OrvAppConfigServicePayloadValidationContext> initWithResponseData(
      std::optional<OrvData> responseData, std::optional<std::string> varnelSignatureHeader,
      std::optional<OrvDate> notValidBeforeDate, std::optional<OrvDate> notValidAfterDate) {
    return std::make_shared<OrvAppConfigServicePayloadValidationContext>(
        std::move(responseData), std::move(varnelSignatureHeader), notValidBeforeDate, notValidAfterDate);
  }

  const std::optional<OrvData>& responseData() const noexcept { return responseData_; }
  const std::optional<std::string>& varnelSignatureHeader() const noexcept { return varnelSignatureHeader_; }
  const std::optional<std::string>& varnelJWTHeader() const noexcept { return varnelJWTHeader_; }
  const std::optional<std::string>& varnelJWTSignature() const noexcept { return varnelJWTSignature_; }
  const std::optional<OrvDate>& notValidBeforeDate() const noexcept { return notValidBeforeDate_; }
  const std::optional<OrvDate>& notValidAfterDate() const noexcept { return notValidAfterDate_; }

  // The URL that answered with this payload, for the request's trace.
  const std::optional<std::string>& sourceURL() const noexcept { return sourceURL_; }
  void setSourceURL(std::optional<std::string> url) { sourceURL_ = std::move(url); }

  OrvPayloadValidationStatus validationStatus() const noexcept { return validationStatus_; }
  void setValidationStatus(OrvPayloadValidationStatus status) { validationStatus_ = status; }
  const std::optional<OrvError>& validationError() const noexcept { return validationError_; }
  void setValidationError(std::optional<OrvError> error) { validationError_ = std::move(error); }

 private:
  std::optional<OrvData> responseData_;
  std::optional<std::string> varnelSignatureHeader_;
  std::optional<std::string> varnelJWTHeader_;
  std::optional<std::string> varnelJWTSignature_;
  std::optional<OrvDate> notValidBeforeDate_;
  std::optional<OrvDate> notValidAfterDate_;
  OrvPayloadValidationStatus validationStatus_ = OrvPayloadValidationStatusSuccess;
  std::optional<OrvError> validationError_;
  std::optional<std::string> sourceURL_;
};

using OrvAppConfigPayloadValidationContextList = std::vector<std::shared_ptr<OrvAppConfigServicePayloadValidationContext>>;

class OrvAppConfigServiceContext {
 public:
  explicit OrvAppConfigServiceContext(std::uint64_t hostType) : hostType_(hostType) {}
  virtual ~OrvAppConfigServiceContext() = default;

  std::uint64_t hostType() const noexcept { return hostType_; }
  // A copy, taken at each read, so a caller may iterate it while the workflow goes on adding.
  OrvAppConfigPayloadValidationContextList payloadValidationContexts() const { return validationContexts_; }
  void addPayloadValidationContext(std::shared_ptr<OrvAppConfigServicePayloadValidationContext> context);

  OrvAppConfigPayloadValidationContextList& validationContexts() noexcept { return validationContexts_; }

  // Present only when the service has a diagnostics delegate.
  const std::shared_ptr<orv::detail::RequestTraceRecorder>& traceRecorder() const noexcept { return traceRecorder_; }
  void setTraceRecorder(std::shared_ptr<orv::detail::RequestTraceRecorder> recorder) { traceRecorder_ = std::move(recorder); }

 private:
  std::uint64_t hostType_;
  std::shared_ptr<orv::detail::RequestTraceRecorder> traceRecorder_;
  OrvAppConfigPayloadValidationContextList validationContexts_;
};

class OrvAppConfigServiceAutoDiscoveryContext : public OrvAppConfigServiceContext {
 public:
  OrvAppConfigServiceAutoDiscoveryContext(std::optional<std::string> userInput, std::uint64_t hostType,
                                          OrvAppConfigAutoDiscoveryCompletionBlock completionBlock)
      : OrvAppConfigServiceContext(hostType), userInput_(std::move(userInput)), completionBlock_(std::move(completionBlock)) {}
  static std::shared_ptr<OrvAppConfigServiceAutoDiscoveryContext> initWithUserInput(
      std::optional<std::string> userInput, std::uint64_t hostType, OrvAppConfigAutoDiscoveryCompletionBlock completionBlock) {
    return std::make_shared<OrvAppConfigServiceAutoDiscoveryContext>(std::move(userInput), hostType, std::move(completionBlock));
  }

  const std::optional<std::string>& userInput() const noexcept { return userInput_; }
  void setUserInput(std::optional<std::string> input) { userInput_ = std::move(input); }
  const std::optional<std::string>& requestedDomain() const noexcept { return requestedDomain_; }
  void setRequestedDomain(std::optional<std::string> domain) { requestedDomain_ = std::move(domain); }
  const OrvAppConfigAutoDiscoveryCompletionBlock& completionBlock() const noexcept { return completionBlock_; }
  void setCompletionBlock(OrvAppConfigAutoDiscoveryCompletionBlock block) { completionBlock_ = std::move(block); }
  std::uint64_t autoDiscoverURLGeneratorMode() const noexcept { return autoDiscoverURLGeneratorMode_; }
  void setAutoDiscoverURLGeneratorMode(std::uint64_t mode) { autoDiscoverURLGeneratorMode_ = mode; }
  const std::shared_ptr<OrvAppConfigAutoDiscoverRecord>& autoDiscoverRecord() const noexcept { return autoDiscoverRecord_; }
  void setAutoDiscoverRecord(std::shared_ptr<OrvAppConfigAutoDiscoverRecord> record) { autoDiscoverRecord_ = std::move(record); }

 private:
  std::optional<std::string> userInput_;
  std::optional<std::string> requestedDomain_;
  OrvAppConfigAutoDiscoveryCompletionBlock completionBlock_;
  std::uint64_t autoDiscoverURLGeneratorMode_ = 0;
  std::shared_ptr<OrvAppConfigAutoDiscoverRecord> autoDiscoverRecord_;
};

class OrvAppConfigServiceSettingsRetrievalContext : public OrvAppConfigServiceContext {
 public:
  // The channel name is trimmed; nothing left (or nothing given) is stored as nil, never as "".
  OrvAppConfigServiceSettingsRetrievalContext(OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
                                              const std::optional<std::string>& channelName,
                                              OrvAppConfigSettingsRetrievalCompletionBlock completionBlock);
  static std::shared_ptr<OrvAppConfigServiceSettingsRetrievalContext> initWithStoreUrls(
      OrvAppConfigStoreURLSet storeUrls, std::uint64_t hostType, std::uint64_t platform,
      const std::optional<std::string>& channelName, OrvAppConfigSettingsRetrievalCompletionBlock completionBlock) {
    return std::make_shared<OrvAppConfigServiceSettingsRetrievalContext>(std::move(storeUrls), hostType, platform, channelName,
                                                                         std::move(completionBlock));
  }

  const OrvAppConfigStoreURLSet& storeUrls() const noexcept { return storeUrls_; }
  void setStoreUrls(OrvAppConfigStoreURLSet urls) { storeUrls_ = std::move(urls); }
  std::uint64_t platform() const noexcept { return platform_; }
  void setPlatform(std::uint64_t platform) { platform_ = platform; }
  // Stored as given: only the initialiser trims and turns a blank name into nil.
  const std::optional<std::string>& channelName() const noexcept { return channelName_; }
  void setChannelName(std::optional<std::string> name) { channelName_ = std::move(name); }
  const OrvAppConfigSettingsRetrievalCompletionBlock& completionBlock() const noexcept { return completionBlock_; }
  void setCompletionBlock(OrvAppConfigSettingsRetrievalCompletionBlock block) { completionBlock_ = std::move(block); }
  const std::optional<OrvAppConfigStoreSettingsDictionary>& storeSettings() const noexcept { return storeSettings_; }
  void setStoreSettings(std::optional<OrvAppConfigStoreSettingsDictionary> settings) { storeSettings_ = std::move(settings); }
  const std::optional<std::vector<std::shared_ptr<OrvAppConfigRetrieveStoreSettingsOperation>>>&
  storeSettingsRetrievalOperations() const noexcept {
    return storeSettingsRetrievalOperations_;
  }
  void setStoreSettingsRetrievalOperations(
      std::optional<std::vector<std::shared_ptr<OrvAppConfigRetrieveStoreSettingsOperation>>> operations) {
    storeSettingsRetrievalOperations_ = std::move(operations);
  }

 private:
  OrvAppConfigStoreURLSet storeUrls_;
  std::uint64_t platform_;
  std::optional<std::string> channelName_;
  OrvAppConfigSettingsRetrievalCompletionBlock completionBlock_;
  std::optional<OrvAppConfigStoreSettingsDictionary> storeSettings_;
  std::optional<std::vector<std::shared_ptr<OrvAppConfigRetrieveStoreSettingsOperation>>> storeSettingsRetrievalOperations_;
};
