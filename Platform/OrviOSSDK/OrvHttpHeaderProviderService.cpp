#include <array>
#include <boost/random/mersenne_twister.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <random>

#include "OrvHttpHeaderProviderServiceProtocol.h"

namespace {

// One engine per thread (none is thread-safe). A transaction id must be unique, not secret, so the
// system's random source is read once per thread, for the seed, not once per request; and only eight
// words of it, spread over the engine's state: Boost's own seeding reads a word for each of the 624
// in the state, system calls that a session's new I/O thread paid for on its first request.
boost::random::mt19937& threadEngine() {
  thread_local boost::random::mt19937 engine = [] {
    std::random_device source;
    std::array<std::uint32_t, 8> words;
    for (auto& word : words) word = source();
    std::seed_seq sequence(words.begin(), words.end());
    return boost::random::mt19937(sequence);
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
