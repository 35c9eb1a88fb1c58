// An HTTP answer as the session hands it to a query operation: header lines as the transport
// delivers them (collected, bounded, refused when they could be read two ways), a status code and a
// body, judged by each of the three query operations. How a kept signature splits into its pieces is
// url_and_input's. Input: one byte picking the status, then header lines up to an empty line, then
// the body.
#include <algorithm>

#include "FuzzSupport.h"
#include "OrvAppConfigAutoDiscoverOperation.h"
#include "OrvAppConfigGetSigningCertificateOperation.h"
#include "OrvAppConfigRetrieveStoreSettingsOperation.h"
#include "OrvHTTPHeaderCollector.h"

using orv::detail::fuzzRequire;

constexpr std::size_t kMaxFields = 32;

static void judge(const std::shared_ptr<OrvAppConfigQueryOperation>& operation, const OrvData& body,
                  const std::shared_ptr<const OrvHTTPURLResponse>& response) {
  operation->didCompleteUrlTaskWithData(body, response, std::nullopt);
  fuzzRequire(operation->isFinished(), "an answer always finishes the operation");
  const auto status = operation->completionStatus();
  fuzzRequire(status == 0 || status == 2 || status == 3, "an answer is good, bad or unparsable");
  fuzzRequire(status == 0 || !operation->responseData(), "only a good answer is kept");
  if (status != 0 || !operation->willRequireVarnelSignatureValidation()) return;
  fuzzRequire(response->statusCode() == 200, "only a 200 is good");
  fuzzRequire(operation->responseData() == body, "the kept body is the body received");
  fuzzRequire(operation->varnelSignatureHeader() == response->valueForHTTPHeaderField("Varnel-Signature"),
              "the kept signature is the combined field");
}

ORV_FUZZ_TARGET(bytes) {
  if (bytes.empty()) return;
  constexpr std::int64_t kStatuses[] = {200, 204, 301, 404, 500, 0, 199, 999};
  const auto pick = static_cast<unsigned char>(bytes[0]);
  const std::int64_t status = pick < 128 ? 200 : kStatuses[pick % std::size(kStatuses)];
  std::string_view rest = std::string_view(bytes).substr(1);

  orv::detail::HTTPHeaderCollector collector(kMaxFields, 2048);
  bool accepted = collector.addLine("HTTP/1.1 200 OK\r\n");
  while (accepted && !rest.empty()) {
    const std::string_view line = rest.substr(0, std::min(rest.find('\n'), rest.size() - 1) + 1);
    rest.remove_prefix(line.size());
    accepted = collector.addLine(line);
    if (line == "\r\n" || line == "\n") break;
  }
  fuzzRequire(accepted == !collector.refusal(), "a line is refused exactly when the collector says why");
  if (!accepted) {
    fuzzRequire(!collector.refusal()->reason.empty() ||
                    collector.refusal()->kind == orv::detail::HTTPHeaderCollector::Refusal::outOfMemory,
                "a refusal names its rule");
    return;
  }
  auto fields = collector.takeFields();
  fuzzRequire(fields.size() <= kMaxFields, "the field count stays within its bound");
  for (const auto& [name, value] : fields) {
    fuzzRequire(!name.empty() && name.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos,
                "a field name is a single clean line");
    fuzzRequire(value.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos, "a field value is a single clean line");
  }

  const auto response =
      std::make_shared<const OrvHTTPURLResponse>(OrvURL::URLWithString("https://127.0.0.1/x"), status, std::move(fields));
  const OrvData body(rest);
  static const auto security = OrvSecurityUtilsService::create();
  judge(OrvAppConfigAutoDiscoverOperation::initWithUserInput("user@example.com", 0, 0, nullptr, nullptr), body, response);
  judge(OrvAppConfigGetSigningCertificateOperation::initWithSecurityService(security, nullptr, 0, nullptr), body, response);
  judge(OrvAppConfigRetrieveStoreSettingsOperation::initWithStoreURL(OrvURL::URLWithString("https://store.example.com/Store"), 0,
                                                                     0, std::nullopt, nullptr, nullptr),
        body, response);
}
