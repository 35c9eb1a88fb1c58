#include "OrvEmulatorResponder.h"

#include <fmt/format.h>
#include <boost/json.hpp>
#include <boost/url/pct_string_view.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "OrvCertificate.h"
#include "OrvEmulatorCatalog.h"
#include "OrvSDKStringUtils.h"
#include "OrvString.h"

namespace orv::emulator::detail {

namespace json = boost::json;

namespace {

constexpr std::string_view kPublicKeyPath = "/ads/root/publickey";
constexpr std::chrono::hours kDefaultLifetime{24};

std::string asciiLower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : char(c); });
  return out;
}

std::string errorBody(std::string_view message) {
  json::object body;
  body["error"] = message;
  return json::serialize(body);
}

// Answers without their own validity get one around the moment they are served, so that a catalog
// written once keeps working; explicit values go out untouched (tests rely on stale ones).
std::string stampedBody(json::object answer, OrvDate now) {
  stampValidity(answer, now, kDefaultLifetime);
  return json::serialize(answer);
}

std::optional<std::string> percentDecoded(std::string_view segment) {
  auto view = boost::urls::make_pct_string_view(segment);
  if (!view) return std::nullopt;
  return view->decode();
}

enum class RouteKind { publicKey, domain, settings, unknown, malformed };

struct Route {
  RouteKind kind = RouteKind::unknown;
  std::string domain;
  std::string storeURL;
  std::string platform;
  std::optional<std::string> channel;
};

Route classify(std::string_view path) {
  Route route;
  if (path == kPublicKeyPath) {
    route.kind = RouteKind::publicKey;
    return route;
  }
  if (path.empty() || path.front() != '/') return route;
  const auto segments = orv::detail::componentsSeparatedByString(path.substr(1), "/");
  if (segments.size() < 4 || segments[0] != "ads" || segments[1] != "root") return route;

  if (segments[2] == "domain" && segments.size() == 5 && segments[4].empty() && !segments[3].empty()) {
    auto domain = percentDecoded(segments[3]);
    if (!domain) {
      route.kind = RouteKind::malformed;
      return route;
    }
    route.kind = RouteKind::domain;
    route.domain = std::move(*domain);
    return route;
  }

  if (segments[2] == "url" && (segments.size() == 8 || segments.size() == 10) && segments[4] == "product" &&
      segments[5] == "kaleth" && segments[6] == "os" && (segments[7] == "ios" || segments[7] == "macos")) {
    if (segments.size() == 10 && (segments[8] != "channel" || segments[9].empty())) return route;
    auto encoded = percentDecoded(segments[3]);
    std::optional<std::string> channel;
    if (segments.size() == 10) {
      channel = percentDecoded(segments[9]);
      if (!channel) encoded.reset();
    }
    // Padding is optional on the wire: the client's encoder leaves it out, others may not.
    std::string_view unpadded = encoded ? std::string_view(*encoded) : std::string_view();
    for (int i = 0; i < 2 && !unpadded.empty() && unpadded.back() == '='; ++i) unpadded.remove_suffix(1);
    auto storeURL = encoded ? OrvBase64URLDecode(unpadded) : std::nullopt;
    if (!storeURL || storeURL->empty()) {
      route.kind = RouteKind::malformed;
      return route;
    }
    route.kind = RouteKind::settings;
    route.storeURL = std::move(*storeURL);
    route.platform = segments[7];
    route.channel = std::move(channel);
    return route;
  }
  return route;
}

}  // namespace

std::optional<EmulatorMaterial> loadMaterial(const std::string& dir, const std::string& algorithm, TLSFault tlsFault,
                                             std::string* error) {
  const auto read = [&](const char* name) -> std::optional<std::string> {
    std::ifstream in(dir + "/" + name, std::ios::binary);
    std::ostringstream out;
    if (in) out << in.rdbuf();
    if (!in || out.str().empty()) {
      if (error) *error = fmt::format("cannot read {}/{}", dir, name);
      return std::nullopt;
    }
    return out.str();
  };

  const bool ec = algorithm == "ES256";
  if (!ec && algorithm != "RS256") {
    if (error) *error = "unsupported algorithm \"" + algorithm + "\" (RS256 or ES256)";
    return std::nullopt;
  }
  auto signingPEM = read(ec ? kSigningECFile : kSigningRSAFile);
  if (!signingPEM) return std::nullopt;
  auto signingKeyPEM = read(ec ? kSigningECKeyFile : kSigningRSAKeyFile);
  if (!signingKeyPEM) return std::nullopt;
  auto tlsPEM = read(kTLSServerFile);
  if (!tlsPEM) return std::nullopt;
  auto tlsKeyPEM = read(kTLSServerKeyFile);
  if (!tlsKeyPEM) return std::nullopt;
  if (tlsFault == TLSFault::otherName || tlsFault == TLSFault::expired || tlsFault == TLSFault::untrustedAuthority) {
    const auto caPEM = read(kTLSCAFile), caKeyPEM = read(kTLSCAKeyFile);
    if (!caPEM || !caKeyPEM) return std::nullopt;
    tlsPEM = faultyTLSCertificate(tlsFault, *tlsKeyPEM, *caPEM, *caKeyPEM, error);
    if (!tlsPEM) return std::nullopt;
  }

  auto key = PrivateKey::fromPEM(*signingKeyPEM);
  if (!key) {
    if (error) *error = "the signing key is not a private key in PEM";
    return std::nullopt;
  }
  if (!OrvCertificate::certificateWithContent(*signingPEM)) {
    if (error) *error = "the signing certificate is not a certificate in PEM";
    return std::nullopt;
  }
  return EmulatorMaterial{algorithm,          std::move(*key),       std::move(*signingPEM),
                          std::move(*tlsPEM), std::move(*tlsKeyPEM), dir + "/" + kTLSCAFile};
}

Responder::Responder(EmulatorMaterial material, std::shared_ptr<const Catalog> catalog)
    : material_(std::move(material)), catalog_(std::move(catalog)) {
  const auto certificate = OrvCertificate::certificateWithContent(material_.signingCertificatePEM);
  json::object header;
  header["alg"] = material_.algorithm;
  header["typ"] = "JWT";
  header["x5t#S256"] = base64UrlEncode(certificate ? certificate->sha256Thumbprint() : std::string());
  protectedHeader_ = json::serialize(header);
}

Responder::~Responder() = default;

std::unique_ptr<Responder> Responder::create(EmulatorMaterial material, std::string_view catalogJSON, std::string* error) {
  auto catalog = parseCatalog(catalogJSON, error);
  if (!catalog) return nullptr;
  return create(std::move(material), std::move(catalog));
}

std::unique_ptr<Responder> Responder::create(EmulatorMaterial material, std::shared_ptr<const Catalog> catalog) {
  return std::unique_ptr<Responder>(new Responder(std::move(material), std::move(catalog)));
}

bool Responder::setCatalogJSON(std::string_view text, std::string* error) {
  auto catalog = parseCatalog(text, error);
  if (!catalog) return false;
  std::lock_guard lock(mutex_);
  catalog_ = std::move(catalog);
  return true;
}

bool Responder::setFault(const std::string& path, FaultSpec fault) {
  if (fault.status && (*fault.status < 200 || *fault.status > 599)) return false;
  std::lock_guard lock(mutex_);
  faults_[path] = std::move(fault);
  return true;
}

void Responder::clearFaults() {
  std::lock_guard lock(mutex_);
  faults_.clear();
}

void Responder::record(RecordedRequest request) {
  std::lock_guard lock(mutex_);
  requests_.push_back(std::move(request));
}

std::vector<RecordedRequest> Responder::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void Responder::clearRequests() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

std::string Responder::sign(std::string_view body, bool corrupt) const {
  auto jws = signDetachedJws(material_.signingKey, material_.algorithm, protectedHeader_, body);
  if (!jws) return {};
  if (corrupt) {
    // Still two well-formed base64url pieces, so only the signature check can catch it.
    const auto dot = jws->find('.');
    auto signature = dot == std::string::npos ? std::nullopt : OrvBase64URLDecode(std::string_view(*jws).substr(dot + 1));
    if (signature && !signature->empty()) {
      (*signature)[0] = char((*signature)[0] ^ 0x01);
      jws = jws->substr(0, dot + 1) + base64UrlEncode(*signature);
    }
  }
  return *jws;
}

HttpAnswer Responder::answer(std::string_view method, std::string_view target, OrvDate now) const {
  const std::string path(target.substr(0, target.find('?')));
  std::shared_ptr<const Catalog> catalog;
  std::optional<FaultSpec> fault;
  {
    std::lock_guard lock(mutex_);
    catalog = catalog_;
    if (const auto it = faults_.find(path); it != faults_.end()) fault = it->second;
  }

  HttpAnswer answer;
  bool signedAnswer = false;
  const Route route = classify(path);
  const auto notFound = [&](std::string_view what) {
    answer.status = 404;
    answer.body = errorBody(what);
  };

  if (method != "GET") {
    answer.status = 405;
    answer.body = errorBody("method not allowed");
    answer.headers.emplace_back("Allow", "GET");
  } else {
    switch (route.kind) {
      case RouteKind::publicKey: {
        json::object body;
        body["certificate"] = material_.signingCertificatePEM;
        answer.body = json::serialize(body);
        break;
      }
      case RouteKind::domain: {
        const auto it = catalog->domains.find(asciiLower(route.domain));
        if (it == catalog->domains.end()) {
          notFound("unknown domain");
        } else {
          answer.body = stampedBody(it->second, now);
          signedAnswer = true;
        }
        break;
      }
      case RouteKind::settings: {
        const auto store = catalog->stores.find(route.storeURL);
        const std::map<std::string, json::object>* platforms = nullptr;
        if (store != catalog->stores.end()) {
          if (!route.channel) {
            platforms = &store->second.platforms;
          } else if (const auto channel = store->second.channels.find(*route.channel); channel != store->second.channels.end()) {
            platforms = &channel->second;
          }
        }
        const auto settings = platforms ? platforms->find(route.platform) : std::map<std::string, json::object>::const_iterator();
        if (!platforms || settings == platforms->end()) {
          notFound(store == catalog->stores.end() ? "unknown store" : "no settings for this platform or channel");
        } else {
          answer.body = stampedBody(settings->second, now);
          signedAnswer = true;
        }
        break;
      }
      case RouteKind::malformed:
        answer.status = 400;
        answer.body = errorBody("malformed request path");
        break;
      case RouteKind::unknown:
        notFound("not found");
        break;
    }
  }

  if (fault) {
    if (fault->body) {
      answer.body = *fault->body;
      answer.status = 200;
      signedAnswer = path != kPublicKeyPath;
    }
    if (fault->status) answer.status = *fault->status;
    if (fault->omitSignature) signedAnswer = false;
    answer.fault = *fault;
  }
  answer.headers.emplace_back("Content-Type", "application/json");
  if (signedAnswer) {
    answer.headers.emplace_back(kSignatureHeaderName, sign(answer.body, fault && fault->corruptSignature));
  }
  return answer;
}

}  // namespace orv::emulator::detail
