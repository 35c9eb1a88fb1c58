#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "OrvHttpHeaderProviderServiceProtocol.h"

OrvHTTPHeaderDictionary OrvHttpHeaderProviderService::uniqueTransactionIdHeader() {
  if (transactionIdHeaderName_.empty()) return {};
  try {
    // One generator per thread (none is thread-safe), seeded once from the system's random source: a
    // transaction id must be unique, not secret, and a read of the random source per request was a
    // system call for every store of every request.
    thread_local boost::uuids::random_generator_mt19937 generator;
    return {{transactionIdHeaderName_, boost::uuids::to_string(generator())}};
  } catch (const std::exception&) {
    // Without entropy there is no id to send; the request goes out without one.
    return {};
  }
}
