#pragma once
// Supplies the header fields of every request the library makes.
#include <memory>
#include <utility>

#include "OrvURLSession.h"

class OrvHttpHeaderProviderServiceProtocol {
 public:
  virtual ~OrvHttpHeaderProviderServiceProtocol() = default;
  virtual OrvHTTPHeaderDictionary httpMonitoringHeaders() = 0;
  virtual OrvHTTPHeaderDictionary uniqueTransactionIdHeader() = 0;
};

// A provider with fixed monitoring headers and a fresh random transaction id per request under
// the given field name (none when the name is empty).
class OrvHttpHeaderProviderService : public OrvHttpHeaderProviderServiceProtocol {
 public:
  explicit OrvHttpHeaderProviderService(OrvHTTPHeaderDictionary monitoringHeaders = {},
                                        std::string transactionIdHeaderName = "X-Transaction-Id")
      : monitoringHeaders_(std::move(monitoringHeaders)), transactionIdHeaderName_(std::move(transactionIdHeaderName)) {}
  OrvHTTPHeaderDictionary httpMonitoringHeaders() override { return monitoringHeaders_; }
  OrvHTTPHeaderDictionary uniqueTransactionIdHeader() override;

 private:
  OrvHTTPHeaderDictionary monitoringHeaders_;
  std::string transactionIdHeaderName_;
};
