#include <openssl/rand.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "OrvHttpHeaderProviderServiceProtocol.h"

namespace {

// OpenSSL's generator as a source of random words. It keeps one generator per thread, seeded once
// per process: a Mersenne Twister of our own had to be seeded on every thread from 624 separate reads
// of the system's random source, and a session's new I/O thread paid for them on its first request.
struct OpenSSLRandomWords {
  using result_type = std::uint32_t;
  static constexpr result_type min() { return 0; }
  static constexpr result_type max() { return std::numeric_limits<result_type>::max(); }
  result_type operator()() {
    result_type word;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&word), sizeof word) != 1) throw std::runtime_error("no entropy");
    return word;
  }
};

}  // namespace

OrvHTTPHeaderDictionary OrvHttpHeaderProviderService::uniqueTransactionIdHeader() {
  if (transactionIdHeaderName_.empty()) return {};
  try {
    // A transaction id must be unique, not secret; Boost sets the version 4 bits.
    OpenSSLRandomWords words;
    boost::uuids::basic_random_generator<OpenSSLRandomWords> generator(words);
    return {{transactionIdHeaderName_, boost::uuids::to_string(generator())}};
  } catch (const std::exception&) {
    // Without entropy there is no id to send; the request goes out without one.
    return {};
  }
}
