#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "OrvHttpHeaderProviderServiceProtocol.h"

OrvHTTPHeaderDictionary OrvHttpHeaderProviderService::uniqueTransactionIdHeader() {
  if (transactionIdHeaderName_.empty()) return {};
  try {
    // A generator per call: it is not thread-safe, and it reads the system's random source itself.
    boost::uuids::random_generator generator;
    return {{transactionIdHeaderName_, boost::uuids::to_string(generator())}};
  } catch (const std::exception&) {
    // Without entropy there is no id to send; the request goes out without one.
    return {};
  }
}
