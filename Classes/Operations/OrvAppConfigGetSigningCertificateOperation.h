#pragma once
// Fetches the discovery service's signing certificate from its public-key endpoint. Its own answer is
// not signed.
#include "OrvAppConfigQueryOperation.h"
#include "OrvSecurityServiceProtocol.h"

class OrvAppConfigGetSigningCertificateOperation : public OrvAppConfigQueryOperation {
 public:
  OrvAppConfigGetSigningCertificateOperation(std::shared_ptr<OrvSecurityServiceProtocol> securityService,
                                             std::shared_ptr<OrvURLSession> urlSession, std::uint64_t hostType,
                                             std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService);
  static std::shared_ptr<OrvAppConfigGetSigningCertificateOperation> initWithSecurityService(
      std::shared_ptr<OrvSecurityServiceProtocol> securityService, std::shared_ptr<OrvURLSession> urlSession,
      std::uint64_t hostType, std::shared_ptr<OrvHttpHeaderProviderServiceProtocol> httpHeaderProviderService) {
    return std::make_shared<OrvAppConfigGetSigningCertificateOperation>(std::move(securityService), std::move(urlSession),
                                                                        hostType, std::move(httpHeaderProviderService));
  }

  const std::shared_ptr<OrvSecurityServiceProtocol>& securityService() const noexcept { return securityService_; }
  void setSecurityService(std::shared_ptr<OrvSecurityServiceProtocol> service) { securityService_ = std::move(service); }
  const OrvCertificateRef& signingCertificate() const noexcept { return signingCertificate_; }

  // Unlike the other endpoints, only host type 1 selects staging.
  std::optional<OrvURL> appConfigRequestURL() override;
  std::string appConfigQueryOperationFriendlyName() const override { return "GetPublicKey"; }
  bool willRequireVarnelSignatureValidation() const override { return false; }
  bool parseHttp200ResponseData(const OrvData& responseData, std::optional<OrvError>* error) override;

  std::optional<std::string> extractCertificateContentFromResponseData(const OrvData& responseData,
                                                                       std::optional<OrvError>* error);

 private:
  std::shared_ptr<OrvSecurityServiceProtocol> securityService_;
  OrvCertificateRef signingCertificate_;
};
