// The HTTPS server of the emulator. All of Asio and Beast lives in this one file: they are slow to
// compile, and nothing outside needs them.
#include "OrvDiscoveryEmulator.h"

#include <fmt/format.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <atomic>
#include <sstream>
#include <thread>

#include "OrvEmulatorCatalog.h"
#include "OrvEmulatorResponder.h"

namespace orv::emulator {

namespace detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using TLSStream = beast::ssl_stream<beast::tcp_stream>;

namespace {

constexpr std::size_t kMaxRequestBodyBytes = 64 * 1024;
constexpr auto kShutdownTimeout = std::chrono::seconds(2);
// Pause after a failed accept (out of descriptors, say) so the loop does not spin.
constexpr auto kAcceptRetryDelay = std::chrono::milliseconds(50);

bool isMalformedRequest(const beast::error_code& ec) {
  if (ec.category() != http::make_error_code(http::error::bad_target).category()) return false;
  return ec != http::error::end_of_stream && ec != http::error::partial_message && ec != http::error::header_limit &&
         ec != http::error::body_limit && ec != http::error::buffer_overflow;
}

}  // namespace

class EmulatorServer {
 public:
  EmulatorServer(std::unique_ptr<Responder> responder, const EmulatorOptions& options)
      : responder_(std::move(responder)),
        idleTimeout_(options.idleTimeout),
        maxHeaderBytes_(options.maxHeaderBytes),
        tlsFault_(options.tlsFault),
        tls_(ssl::context::tls_server) {}

  ~EmulatorServer() { stop(); }

  bool listen(const EmulatorOptions& options, std::string* error) {
    try {
      if (tlsFault_ == TLSFault::tls10Only) {
        // OpenSSL 3 offers TLS 1.0 only at security level 0; above it the client would meet no server.
        SSL_CTX_set_security_level(tls_.native_handle(), 0);
        SSL_CTX_set_min_proto_version(tls_.native_handle(), TLS1_VERSION);
        SSL_CTX_set_max_proto_version(tls_.native_handle(), TLS1_VERSION);
      } else {
        tls_.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                         ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
      }
      const auto& material = responder_->material();
      tls_.use_certificate_chain(asio::buffer(material.tlsCertificatePEM));
      tls_.use_private_key(asio::buffer(material.tlsPrivateKeyPEM), ssl::context::pem);

      boost::system::error_code ec;
      const auto address = asio::ip::make_address(options.listenAddress, ec);
      if (ec) {
        if (error) *error = fmt::format("\"{}\" is not an IP address", options.listenAddress);
        return false;
      }
      const tcp::endpoint endpoint(address, options.port);
      acceptor_.open(endpoint.protocol());
      acceptor_.set_option(asio::socket_base::reuse_address(true));
      acceptor_.bind(endpoint);
      acceptor_.listen(asio::socket_base::max_listen_connections);
      bound_ = acceptor_.local_endpoint();
    } catch (const std::exception& e) {
      if (error) *error = fmt::format("cannot listen on {}:{}: {}", options.listenAddress, options.port, e.what());
      return false;
    }
    asio::co_spawn(io_, acceptLoop(), asio::detached);
    thread_ = std::thread([this] { io_.run(); });
    return true;
  }

  void stop() {
    if (stopped_.exchange(true)) return;
    // Connections still open are torn down with the io_context: their coroutines are destroyed
    // together with their sockets when it goes.
    asio::post(io_, [this] {
      boost::system::error_code ignored;
      acceptor_.close(ignored);
      io_.stop();
    });
    if (thread_.joinable()) thread_.join();
  }

  const tcp::endpoint& endpoint() const noexcept { return bound_; }
  Responder& responder() noexcept { return *responder_; }

 private:
  asio::awaitable<void> acceptLoop() {
    for (;;) {
      beast::error_code ec;
      tcp::socket socket = co_await acceptor_.async_accept(asio::redirect_error(asio::use_awaitable, ec));
      if (ec) {
        if (!acceptor_.is_open() || ec == asio::error::operation_aborted) co_return;
        asio::steady_timer pause(io_, kAcceptRetryDelay);
        co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, ec));
        continue;
      }
      asio::co_spawn(io_, serve(TLSStream(std::move(socket), tls_)), asio::detached);
    }
  }

  asio::awaitable<void> writeStatus(TLSStream& stream, http::status status, unsigned version) {
    http::response<http::string_body> response{status, version};
    response.set(http::field::content_type, "application/json");
    response.body() = fmt::format(R"({{"error":"{}"}})", std::string_view(http::obsolete_reason(status)));
    response.keep_alive(false);
    response.prepare_payload();
    beast::error_code ec;
    stream.next_layer().expires_after(idleTimeout_);
    co_await http::async_write(stream, response, asio::redirect_error(asio::use_awaitable, ec));
  }

  asio::awaitable<void> serve(TLSStream stream) {
    try {
      co_await serveRequests(stream);
    } catch (...) {
      // One broken connection must not take the server down.
    }
  }

  // Reads and drops whatever comes until the client goes or the server stops.
  template <typename Stream>
  asio::awaitable<void> drain(Stream& stream) {
    beast::get_lowest_layer(stream).expires_never();
    char chunk[4096];
    beast::error_code ec;
    while (!ec) co_await stream.async_read_some(asio::buffer(chunk), asio::redirect_error(asio::use_awaitable, ec));
  }

  // Raw bytes as the fault gives them, the part after the head a byte at a time when it drips.
  asio::awaitable<bool> writeRaw(TLSStream& stream, std::string bytes, std::chrono::milliseconds drip) {
    const std::string port = std::to_string(bound_.port());
    for (auto at = bytes.find("{port}"); at != std::string::npos; at = bytes.find("{port}", at + port.size())) {
      bytes.replace(at, 6, port);
    }
    std::size_t head = drip.count() > 0 ? bytes.find("\r\n\r\n") : std::string::npos;
    head = head == std::string::npos ? bytes.size() : head + 4;
    beast::error_code ec;
    co_await asio::async_write(stream, asio::buffer(bytes.data(), head), asio::redirect_error(asio::use_awaitable, ec));
    for (std::size_t at = head; at < bytes.size() && !ec; ++at) {
      asio::steady_timer timer(io_, drip);
      co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
      co_await asio::async_write(stream, asio::buffer(&bytes[at], 1), asio::redirect_error(asio::use_awaitable, ec));
    }
    co_return !ec;
  }

  asio::awaitable<void> serveRequests(TLSStream& stream) {
    beast::error_code ec;
    if (tlsFault_ == TLSFault::noHandshake) {
      co_await drain(stream.next_layer());
      co_return;
    }
    stream.next_layer().expires_after(idleTimeout_);
    co_await stream.async_handshake(ssl::stream_base::server, asio::redirect_error(asio::use_awaitable, ec));
    if (ec) co_return;

    beast::flat_buffer buffer;
    bool closeCleanly = true;
    for (std::size_t served = 0;; ++served) {
      http::request_parser<http::string_body> parser;
      parser.header_limit(std::uint32_t(std::min<std::size_t>(maxHeaderBytes_, UINT32_MAX)));
      parser.body_limit(kMaxRequestBodyBytes);
      stream.next_layer().expires_after(idleTimeout_);
      co_await http::async_read(stream, buffer, parser, asio::redirect_error(asio::use_awaitable, ec));
      if (ec == http::error::header_limit) {
        co_await writeStatus(stream, http::status::request_header_fields_too_large, 11);
        break;
      }
      if (ec == http::error::body_limit) {
        co_await writeStatus(stream, http::status::payload_too_large, 11);
        break;
      }
      if (isMalformedRequest(ec)) {
        co_await writeStatus(stream, http::status::bad_request, 11);
        break;
      }
      if (ec) {
        // The peer went away, timed out or broke TLS: nothing left to say to it.
        closeCleanly = ec == http::error::end_of_stream;
        break;
      }

      const auto& request = parser.get();
      RecordedRequest recorded;
      recorded.method = std::string(request.method_string());
      recorded.target = std::string(request.target());
      for (const auto& field : request) recorded.headers.emplace_back(field.name_string(), field.value());
      responder_->record(recorded);

      HttpAnswer answer = responder_->answer(recorded.method, recorded.target, std::chrono::system_clock::now());
      FaultSpec& fault = answer.fault;
      if (fault.hangUpIfReused && served > 0) break;
      if (fault.delay.count() > 0) {
        asio::steady_timer timer(io_, fault.delay);
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
      }

      http::response<http::string_body> response;
      response.version(request.version());
      response.result(answer.status);
      for (const auto& [name, value] : answer.headers) response.set(name, value);
      response.body() = std::move(answer.body);
      response.keep_alive(request.keep_alive());
      response.prepare_payload();

      stream.next_layer().expires_after(idleTimeout_);
      if (fault.drip.count() > 0 && !fault.raw) {
        std::ostringstream wire;
        wire << response;
        fault.raw = wire.str();
      }
      if (fault.raw && !co_await writeRaw(stream, *fault.raw, fault.drip)) {
        closeCleanly = false;
        break;
      }
      if (fault.ending == FaultEnding::close) break;
      if (fault.ending == FaultEnding::silence) {
        co_await drain(stream);
        co_return;
      }
      if (fault.ending == FaultEnding::reset) {
        auto& socket = beast::get_lowest_layer(stream).socket();
        socket.set_option(asio::socket_base::linger(true, 0), ec);
        socket.close(ec);
        co_return;
      }
      if (fault.raw) continue;
      if (fault.dropMidBody) {
        // Announce the whole body, send the head and half of it, then cut the connection without
        // a TLS close so that the client sees a truncated answer.
        std::ostringstream wire;
        wire << response;
        const std::string text = wire.str();
        const std::size_t cut = text.size() - (response.body().size() - response.body().size() / 2);
        co_await asio::async_write(stream, asio::buffer(text.data(), cut), asio::redirect_error(asio::use_awaitable, ec));
        beast::get_lowest_layer(stream).socket().shutdown(tcp::socket::shutdown_both, ec);
        beast::get_lowest_layer(stream).close();
        co_return;
      }
      co_await http::async_write(stream, response, asio::redirect_error(asio::use_awaitable, ec));
      if (ec) {
        closeCleanly = false;
        break;
      }
      if (!response.keep_alive()) break;
    }

    if (closeCleanly) {
      stream.next_layer().expires_after(kShutdownTimeout);
      co_await stream.async_shutdown(asio::redirect_error(asio::use_awaitable, ec));
    }
    beast::get_lowest_layer(stream).close();
  }

  std::unique_ptr<Responder> responder_;
  const std::chrono::milliseconds idleTimeout_;
  const std::size_t maxHeaderBytes_;
  const TLSFault tlsFault_;
  // Declared before the io_context so that it outlives the streams the io_context destroys.
  ssl::context tls_;
  asio::io_context io_{1};
  tcp::acceptor acceptor_{io_};
  tcp::endpoint bound_;
  std::thread thread_;
  std::atomic<bool> stopped_{false};
};

}  // namespace detail

std::unique_ptr<DiscoveryEmulator> DiscoveryEmulator::start(const Options& options, std::string* error) {
  try {
    auto material = detail::loadMaterial(options.materialDir, options.algorithm, options.tlsFault, error);
    if (!material) return nullptr;

    const auto catalog = detail::catalogText(options.materialDir, options.catalogFile, options.catalogJSON, error);
    if (!catalog) return nullptr;

    auto responder = detail::Responder::create(std::move(*material), *catalog, error);
    if (!responder) return nullptr;
    auto server = std::make_unique<detail::EmulatorServer>(std::move(responder), options);
    if (!server->listen(options, error)) return nullptr;
    return std::unique_ptr<DiscoveryEmulator>(new DiscoveryEmulator(std::move(server)));
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return nullptr;
  }
}

DiscoveryEmulator::DiscoveryEmulator(std::unique_ptr<detail::EmulatorServer> server) : server_(std::move(server)) {}

DiscoveryEmulator::~DiscoveryEmulator() = default;

std::uint16_t DiscoveryEmulator::port() const { return server_->endpoint().port(); }

std::string DiscoveryEmulator::hostAndPort() const {
  const auto& endpoint = server_->endpoint();
  const auto address = endpoint.address().to_string();
  return endpoint.address().is_v6() ? fmt::format("[{}]:{}", address, endpoint.port())
                                    : fmt::format("{}:{}", address, endpoint.port());
}

std::string DiscoveryEmulator::baseURL() const { return "https://" + hostAndPort(); }

std::string DiscoveryEmulator::tlsCAFile() const { return server_->responder().material().tlsCAFile; }

std::string DiscoveryEmulator::signingCertificatePEM() const { return server_->responder().material().signingCertificatePEM; }

bool DiscoveryEmulator::setFault(const std::string& path, FaultSpec fault) {
  return server_->responder().setFault(path, std::move(fault));
}

void DiscoveryEmulator::clearFaults() { server_->responder().clearFaults(); }

bool DiscoveryEmulator::setCatalogJSON(const std::string& text, std::string* error) {
  return server_->responder().setCatalogJSON(text, error);
}

std::vector<RecordedRequest> DiscoveryEmulator::requests() const { return server_->responder().requests(); }

void DiscoveryEmulator::clearRequests() { server_->responder().clearRequests(); }

}  // namespace orv::emulator
