#include <openssl/rand.h>

#include <array>
#include <boost/random/mersenne_twister.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <stdexcept>

#include "OrvHttpHeaderProviderServiceProtocol.h"

namespace {

// One engine per thread (none is thread-safe). A transaction id must be unique, not secret, so the
// system's random source is read once per thread, for the seed, not once per request. The whole seed
// comes from one call of OpenSSL's generator: Boost's own seeding reads the source one word at a time,
// 624 system calls that a session's new I/O thread paid on its first request.
boost::random::mt19937& threadEngine() {
  thread_local boost::random::mt19937 engine = [] {
    std::array<std::uint32_t, boost::random::mt19937::state_size> seed;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(seed.data()), sizeof seed) != 1) throw std::runtime_error("no entropy");
    auto first = seed.begin();
    boost::random::mt19937 seeded;
    seeded.seed(first, seed.end());
    return seeded;
  }();
  return engine;
}

}  // namespace

OrvHTTPHeaderDictionary OrvHttpHeaderProviderService::uniqueTransactionIdHeader() {
  if (transactionIdHeaderName_.empty()) return {};
  try {
    boost::uuids::basic_random_generator<boost::random::mt19937> generator(&threadEngine());
    return {{transactionIdHeaderName_, boost::uuids::to_string(generator())}};
  } catch (const std::exception&) {
    // Without entropy there is no id to send; the request goes out without one.
    return {};
  }
}
