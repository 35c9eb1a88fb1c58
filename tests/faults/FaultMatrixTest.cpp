// The real service, session and security stack against a server that fails in each way a server or
// a network can: every row says what the host is told, and that it is told exactly once.
#include <curl/curl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "EmulatorHarness.h"
#include "OrvAppConfigDiscoveryHosts.h"
#include "OrvJSONSerialization.h"

using namespace orv::test;
namespace emulator = orv::emulator;
using namespace std::chrono_literals;

namespace {

const std::string kQuery = "/ads/root/domain/example.com/";
const std::string kPublicKey = "/ads/root/publickey";
constexpr std::size_t kBodyLimit = 8u * 1024u * 1024u;
const std::string kRecord =
    R"({"domain":{"name":"example.com"},"kaleth":{"serviceUrls":[{"url":"https://store.example.com/Store"}]}})";

// The domain and code of the error the host is told, and words of its description.
using ExpectedError = std::tuple<std::string, std::int64_t, std::string>;

enum class Extra { none, refusedPort, healthyNeighbour };

struct FaultSetup {
  emulator::TLSFault tls = emulator::TLSFault::none;
  std::map<std::string, emulator::FaultSpec> faults;
};

// Every row ends in AutodiscoveryFailed; what differs is the error that says why.
struct Row {
  std::string name;
  FaultSetup server;
  std::optional<ExpectedError> error;
  std::vector<std::string> targets = {kQuery};  // what the server read, in order
  Extra extra = Extra::none;
};

ExpectedError curlError(CURLcode code, std::string fragment) { return {OrvURLErrorDomain, code, std::move(fragment)}; }

emulator::FaultSpec raw(std::string bytes, emulator::FaultEnding ending = emulator::FaultEnding::keepOpen) {
  return {.raw = std::move(bytes), .ending = ending};
}

FaultSetup onQuery(emulator::FaultSpec fault) { return {emulator::TLSFault::none, {{kQuery, std::move(fault)}}}; }

std::string withLength(std::string_view statusLine, const std::string& body, std::string_view fields = "") {
  return std::string(statusLine) + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + std::string(fields) + "\r\n" +
         body;
}

std::string redirectTo(std::string_view location) {
  return "HTTP/1.1 302 Found\r\nLocation: " + std::string(location) + "\r\nContent-Length: 0\r\n\r\n";
}

// A good record, then spaces: still one valid document, of exactly this many bytes.
std::string paddedRecord(std::size_t size) { return kRecord + std::string(size - kRecord.size(), ' '); }

// The chunks of a chunked body, 1 MiB each, and the last one.
std::string chunked(const std::string& body) {
  std::string wire;
  for (std::size_t at = 0; at < body.size(); at += 1u << 20) {
    const std::string chunk = body.substr(at, 1u << 20);
    wire += fmt::format("{:x}\r\n{}\r\n", chunk.size(), chunk);
  }
  return wire + "0\r\n\r\n";
}

std::string flood(std::size_t lines) {
  std::string wire = "HTTP/1.1 200 OK\r\n";
  for (std::size_t i = 0; i < lines; ++i) wire += "X-Flood-" + std::to_string(i) + ": x\r\n";
  return wire;
}

// kQuery redirects to /hop1, /hop1 to /hop2, and so on: `count` redirects in all.
FaultSetup hops(int count) {
  FaultSetup setup;
  for (int hop = 0; hop < count; ++hop) {
    setup.faults[hop == 0 ? kQuery : "/hop" + std::to_string(hop)] =
        raw(redirectTo("https://127.0.0.1:{port}/hop" + std::to_string(hop + 1)));
  }
  return setup;
}

std::vector<Row> rows() {
  const std::string ok = "HTTP/1.1 200 OK";
  const std::string stalledHead = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n";
  const std::string chunkedHead = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::vector<std::string> none, hopped{kQuery, "/hop1", "/hop2", "/hop3"};
  const auto silent = curlError(CURLE_OPERATION_TIMEDOUT, "no byte received for 1000 ms");
  const auto tooBig = curlError(CURLE_FILESIZE_EXCEEDED, "response body exceeds 8388608 bytes");
  const auto badChunk = curlError(CURLE_RECV_ERROR, "chunk");
  const auto reset = curlError(CURLE_RECV_ERROR, "Connection reset by peer");
  const auto tooManyHops = curlError(CURLE_TOO_MANY_REDIRECTS, "Maximum (3) redirects followed");
  const auto signature = [&](int fields) {
    std::string lines;
    for (int i = 0; i < fields; ++i) lines += "Varnel-Signature: e30.c2ln\r\n";
    return raw(withLength(ok, kRecord, lines));
  };
  using emulator::FaultEnding;
  using emulator::TLSFault;
  return {
      {"connection refused", FaultSetup{}, curlError(CURLE_COULDNT_CONNECT, "Failed to connect"), none, Extra::refusedPort},
      {"TCP accepted, no TLS handshake", FaultSetup{TLSFault::noHandshake},
       curlError(CURLE_OPERATION_TIMEDOUT, "SSL connection timeout"), none},
      // Nothing came on a connection that was new: not a case for a retry.
      {"reset before answering", onQuery({.ending = FaultEnding::reset}), reset},
      {"reset in the headers", onQuery(raw("HTTP/1.1 200 OK\r\nContent-Le", FaultEnding::reset)), reset},
      {"reset in the body", onQuery(raw(stalledHead + "{\"domain\":", FaultEnding::reset)), reset},
      {"no answer at all", onQuery({.ending = FaultEnding::silence}), silent},
      // Every byte comes within the inactivity time-out: only the total time-out ends it.
      {"body drips a byte every 400 ms", onQuery({.raw = stalledHead + std::string(20, ' '), .drip = 400ms}),
       curlError(CURLE_OPERATION_TIMEDOUT, "Operation timed out after")},
      {"redirect to http", onQuery(raw(redirectTo("http://127.0.0.1:{port}/plain"))),
       curlError(CURLE_UNSUPPORTED_PROTOCOL, "Protocol \"http\" not supported")},
      {"redirect to another https host", onQuery(raw(redirectTo("https://localhost:{port}/moved"))), std::nullopt,
       std::vector<std::string>{kQuery, "/moved"}},
      {"four hops", hops(4), tooManyHops, hopped},
      {"three hops, then 404", hops(3), std::nullopt, hopped},
      // The records carry no signature: these rows also show an unsigned answer refused, with no
      // error, before any certificate is fetched.
      {"8 MiB by Content-Length", onQuery(raw(withLength(ok, paddedRecord(kBodyLimit)))), std::nullopt},
      // Refused on the announced length, before any body byte.
      {"8 MiB + 1 by Content-Length", onQuery(raw(withLength(ok, paddedRecord(kBodyLimit + 1)))), tooBig},
      {"8 MiB chunked", onQuery(raw(chunkedHead + chunked(paddedRecord(kBodyLimit)))), std::nullopt},
      {"8 MiB + 1 chunked", onQuery(raw(chunkedHead + chunked(paddedRecord(kBodyLimit + 1)))), tooBig},
      {"204", onQuery(raw("HTTP/1.1 204 No Content\r\n\r\n")), std::nullopt},
      {"500 with a body", onQuery(raw(withLength("HTTP/1.1 500 Internal Server Error", kRecord))), std::nullopt},
      {"empty 200", onQuery(raw(withLength(ok, ""))),
       ExpectedError{OrvJSONSerializationErrorDomain, OrvJSONSerializationErrorInvalidJSON, "incomplete JSON"}},
      {"chunk size zz", onQuery(raw(chunkedHead + "zz\r\nabc\r\n0\r\n\r\n")), badChunk},
      {"chunk size overflows", onQuery(raw(chunkedHead + "ffffffffffffffffff\r\nabc\r\n0\r\n\r\n")), badChunk},
      {"NUL in a header", onQuery(raw(withLength(ok, kRecord, std::string("X-Odd: a\0b\r\n", 12)))),
       curlError(CURLE_WEIRD_SERVER_REPLY, "Nul byte in header")},
      {"bare CR in a header", onQuery(raw(withLength(ok, kRecord, "X-Odd: a\rb\r\n"))),
       curlError(CURLE_WEIRD_SERVER_REPLY, "bare CR")},
      {"two signature fields", onQuery(signature(2)), std::nullopt},
      // Silence after the flood: a client that read it all would end on its time-out (28), not here.
      {"header flood", onQuery(raw(flood(10'000), FaultEnding::silence)),
       curlError(CURLE_FILESIZE_EXCEEDED, "more than 100 header fields")},
      {"certificate for another name", FaultSetup{TLSFault::otherName},
       curlError(CURLE_PEER_FAILED_VERIFICATION, "no alternative certificate subject name matches"), none},
      {"expired certificate", FaultSetup{TLSFault::expired}, curlError(CURLE_PEER_FAILED_VERIFICATION, "certificate has expired"),
       none},
      {"certificate from an untrusted authority", FaultSetup{TLSFault::untrustedAuthority},
       curlError(CURLE_PEER_FAILED_VERIFICATION, "unable to get local issuer certificate"), none},
      {"server speaks TLS 1.0 only", FaultSetup{TLSFault::tls10Only}, curlError(CURLE_SSL_CONNECT_ERROR, "protocol version"),
       none},
      // The signing certificate is asked for on the connection the record came over; the server drops
      // that request unanswered, and only the fresh connection's 404 reaches the service.
      {"reused connection closed unanswered",
       FaultSetup{TLSFault::none, {{kQuery, signature(1)}, {kPublicKey, {.status = 404, .hangUpIfReused = true}}}}, std::nullopt,
       std::vector<std::string>{kQuery, kPublicKey, kPublicKey}},
      {"headers, then silence, beside a healthy request", onQuery(raw(stalledHead, FaultEnding::silence)), silent,
       std::vector<std::string>{kQuery, "/ads/root/domain/healthy.example/"}, Extra::healthyNeighbour},
  };
}

}  // namespace

TEST(FaultMatrixTest, EachFaultEndsInOneCompletionThatSaysWhatFailed) {
  const TemporaryDirectory material;
  std::string error;
  ASSERT_TRUE(emulator::generateMaterial(material.path().string(), &error)) << error;
  // At most 100 header fields, the default, and at most 16 KiB of them.
  const OrvCurlURLSessionConfiguration configuration{.caFile = material.file(emulator::kTLSCAFile),
                                                     .inactivityTimeout = 1s,
                                                     .connectTimeout = 1s,
                                                     .totalTimeout = 2s,
                                                     .maxHeaderBytes = 16u * 1024u};
  const DiscoveryHostsOverride restoreHosts("127.0.0.1");

  for (const auto& row : rows()) {
    SCOPED_TRACE(row.name);
    // A server and a session per row: no connection or TLS session crosses from one row into the next.
    const auto server = emulator::DiscoveryEmulator::start(
        {.materialDir = material.path().string(), .catalogJSON = R"({"domains":{},"stores":{}})", .tlsFault = row.server.tls},
        &error);
    ASSERT_NE(server, nullptr) << error;
    for (const auto& [path, fault] : row.server.faults) ASSERT_TRUE(server->setFault(path, fault));
    const auto port = row.extra == Extra::refusedPort ? emulator::freeLoopbackPort() : server->port();
    OrvAppConfigDiscoveryHosts::setProductionHost("127.0.0.1:" + std::to_string(port));
    const auto session = OrvCurlURLSession::create(configuration);
    ASSERT_NE(session, nullptr);
    const auto newService = [&] {
      return OrvAppConfigService::initWithURLSession(session, std::make_shared<OrvHttpHeaderProviderService>(),
                                                     OrvSecurityUtilsService::create(), nullptr);
    };
    const auto service = newService();
    AutoDiscoveryCapture capture;
    service->asyncStartAutodiscoveryForUserInput("user@example.com", 0, capture.block());

    if (row.extra == Extra::healthyNeighbour) {
      // A second service, as one service runs its workflows one at a time: only the session is shared.
      ASSERT_TRUE(pollUntil([&] { return !requestPaths(*server).empty(); }, 5s));
      const auto healthy = discover(*newService(), "user@healthy.example");
      EXPECT_EQ(capture.calls, 0) << "the healthy request was held up by the stalled one";
      EXPECT_TRUE(healthy.status == OrvAppConfigServiceCompletionStatusAutodiscoveryFailed && !healthy.error);
    }

    ASSERT_TRUE(capture.wait(10s));
    // Whatever would deliver a second completion has had its chance once this has drained.
    runMainQueueUntil([] { return false; }, 100ms);
    EXPECT_EQ(capture.calls, 1);
    EXPECT_TRUE(capture.onMainQueue);
    const auto& [status, record, error] = capture.values;
    EXPECT_EQ(status, OrvAppConfigServiceCompletionStatusAutodiscoveryFailed);
    EXPECT_EQ(record, nullptr);
    const auto& [domain, code, fragment] = row.error.value_or(ExpectedError{"none", 0, ""});
    const auto told = error.value_or(OrvError("none", 0));
    EXPECT_EQ(told.domain(), domain) << told.description();
    EXPECT_EQ(told.code(), code) << told.description();
    EXPECT_THAT(told.description(), ::testing::HasSubstr(fragment));
    EXPECT_EQ(requestPaths(*server), row.targets);
  }
}
