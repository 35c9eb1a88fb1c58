// Material generation, the demo catalog and the small helpers of the public emulator header that
// need neither the server nor the catalog.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "OrvCertificate.h"
#include "OrvDiscoveryEmulator.h"
#include "OrvEmulatorCrypto.h"

namespace orv::emulator {

namespace {

constexpr const char* kDemoCatalog = R"json({
  "domains": {
    "example.com": {
      "domain": {"name": "example.com"},
      "kaleth": {
        "serviceUrls": [
          {"url": "https://store.example.com/Store"},
          {"url": "https://apps.example.com/Store"}
        ],
        "allowedWebStoreURLs": [
          {"url": "https://webstore.example.com/"}
        ]
      }
    },
    "example.net": {
      "domain": {"name": "example.net"},
      "kaleth": {
        "serviceUrls": [],
        "allowedWebStoreURLs": [{"url": "https://webstore.example.net/"}]
      }
    }
  },
  "stores": {
    "https://store.example.com:443/Store": {
      "ios": {
        "kaleth": {
          "name": "Example Store",
          "description": "Settings of the example store",
          "useForAppConfig": true,
          "appSettings": {
            "ios": [{
              "category": "General",
              "userOverride": false,
              "assignedTo": ["everyone"],
              "assignmentPriority": 1,
              "settings": [
                {"name": "ServerName", "value": "store.example.com"},
                {"name": "AutoUpdate", "value": true}
              ]
            }]
          }
        },
        "url": {
          "name": "https://store.example.com:443/Store",
          "migrationUrl": [{"url": "https://store-old.example.com/Store", "dovrinValidUntil": 4102444800000}]
        }
      },
      "macos": {
        "kaleth": {
          "name": "Example Store",
          "description": "Settings of the example store",
          "useForAppConfig": true,
          "appSettings": {
            "macos": [{
              "category": "General",
              "userOverride": true,
              "assignedTo": ["everyone"],
              "assignmentPriority": 2,
              "settings": [
                {"name": "ServerName", "value": "store.example.com"},
                {"name": "RefreshMinutes", "value": 30}
              ]
            }]
          }
        },
        "url": {"name": "https://store.example.com:443/Store", "migrationUrl": []}
      },
      "channels": {
        "beta": {
          "ios": {
            "kaleth": {
              "name": "Example Store (beta)",
              "useForAppConfig": true,
              "appSettings": {
                "ios": [{"category": "Beta", "settings": [{"name": "ServerName", "value": "beta.store.example.com"}]}]
              }
            },
            "url": {"name": "https://store.example.com:443/Store"},
            "settingsChannel": {"channelName": "beta"}
          },
          "macos": {
            "kaleth": {
              "name": "Example Store (beta)",
              "useForAppConfig": true,
              "appSettings": {
                "macos": [{"category": "Beta", "settings": [{"name": "ServerName", "value": "beta.store.example.com"}]}]
              }
            },
            "url": {"name": "https://store.example.com:443/Store"},
            "settingsChannel": {"channelName": "beta"}
          }
        }
      }
    },
    "https://apps.example.com:443/Store": {
      "ios": {
        "kaleth": {
          "name": "Example Apps",
          "useForAppConfig": true,
          "appSettings": {"ios": [{"category": "General", "settings": [{"name": "ServerName", "value": "apps.example.com"}]}]}
        },
        "url": {"name": "https://apps.example.com:443/Store"}
      },
      "macos": {
        "kaleth": {
          "name": "Example Apps",
          "useForAppConfig": false,
          "appSettings": {"macos": [{"category": "General", "settings": [{"name": "ServerName", "value": "apps.example.com"}]}]}
        },
        "url": {"name": "https://apps.example.com:443/Store"}
      }
    }
  }
}
)json";

bool writeFile(const std::filesystem::path& path, std::string_view content, bool secret, std::string* error) {
  std::error_code ec;
  std::filesystem::remove(path, ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (secret) {
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
                                 std::filesystem::perm_options::replace, ec);
  }
  out.write(content.data(), std::streamsize(content.size()));
  out.close();
  if (!out) {
    if (error) *error = "cannot write " + path.string();
    return false;
  }
  return true;
}

struct Issued {
  PrivateKey key;
  std::string pem;
};

// issuer == nullptr makes the certificate self-signed.
std::optional<std::string> issueFor(const PrivateKey& key, const CertificateProfile& profile, const Issued* issuer,
                                    std::string* error) {
  OrvCertificateRef issuerCertificate;
  if (issuer) {
    issuerCertificate = OrvCertificate::certificateWithContent(issuer->pem);
    if (!issuerCertificate) {
      if (error) *error = "cannot read back the issuing certificate";
      return std::nullopt;
    }
  }
  auto pem = issueCertificate(profile, key, issuerCertificate.get(), issuer ? issuer->key : key);
  if (!pem && error) *error = fmt::format("cannot issue the certificate \"{}\"", profile.commonName.value_or(""));
  return pem;
}

std::optional<Issued> issue(KeyKind kind, const CertificateProfile& profile, const Issued* issuer, std::string* error) {
  auto key = PrivateKey::generate(kind);
  if (!key) {
    if (error) *error = "cannot generate a key";
    return std::nullopt;
  }
  auto pem = issueFor(*key, profile, issuer, error);
  if (!pem) return std::nullopt;
  return Issued{std::move(*key), std::move(*pem)};
}

}  // namespace

std::string demoCatalogJSON() { return kDemoCatalog; }

bool generateMaterial(const std::string& dir, std::string* error) {
  try {
    std::error_code ec;
    const std::filesystem::path root(dir);
    std::filesystem::create_directories(root, ec);
    if (ec) {
      if (error) *error = fmt::format("cannot create {}: {}", dir, ec.message());
      return false;
    }

    const auto now = std::chrono::system_clock::now();
    const auto profile = [&](std::optional<std::string> organization, std::string commonName, bool isCA) {
      CertificateProfile p;
      p.organization = std::move(organization);
      p.commonName = std::move(commonName);
      p.notBefore = now - std::chrono::hours(1);
      p.notAfter = now + std::chrono::hours(24 * 365 * 2);
      p.isCA = isCA;
      return p;
    };

    const auto signingCA = issue(KeyKind::rsa2048, profile(kSigningIssuerName, kSigningIssuerName, true), nullptr, error);
    if (!signingCA) return false;
    const auto signingRSA =
        issue(KeyKind::rsa2048, profile(kSigningIssuerName, "Varnel AppConfig Signing", false), &*signingCA, error);
    if (!signingRSA) return false;
    const auto signingEC =
        issue(KeyKind::ecP256, profile(kSigningIssuerName, "Varnel AppConfig Signing EC", false), &*signingCA, error);
    if (!signingEC) return false;

    const auto tlsCA =
        issue(KeyKind::ecP256, profile("Orv Discovery Emulator", "Orv Discovery Emulator TLS CA", true), nullptr, error);
    if (!tlsCA) return false;
    auto serverProfile = profile("Orv Discovery Emulator", "localhost", false);
    serverProfile.dnsNames = {"localhost"};
    serverProfile.ipAddresses = {"127.0.0.1"};
    const auto tlsServer = issue(KeyKind::ecP256, serverProfile, &*tlsCA, error);
    if (!tlsServer) return false;

    return writeFile(root / kSigningCAFile, signingCA->pem, false, error) &&
           writeFile(root / kSigningCAKeyFile, signingCA->key.privateKeyPEM(), true, error) &&
           writeFile(root / kSigningRSAFile, signingRSA->pem, false, error) &&
           writeFile(root / kSigningRSAKeyFile, signingRSA->key.privateKeyPEM(), true, error) &&
           writeFile(root / kSigningECFile, signingEC->pem, false, error) &&
           writeFile(root / kSigningECKeyFile, signingEC->key.privateKeyPEM(), true, error) &&
           writeFile(root / kTLSCAFile, tlsCA->pem, false, error) &&
           writeFile(root / kTLSCAKeyFile, tlsCA->key.privateKeyPEM(), true, error) &&
           writeFile(root / kTLSServerFile, tlsServer->pem, false, error) &&
           writeFile(root / kTLSServerKeyFile, tlsServer->key.privateKeyPEM(), true, error) &&
           writeFile(root / kCatalogFile, kDemoCatalog, false, error);
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return false;
  }
}

std::optional<TLSFault> tlsFaultNamed(std::string_view name) {
  static constexpr std::pair<std::string_view, TLSFault> names[] = {{"other-name", TLSFault::otherName},
                                                                    {"expired", TLSFault::expired},
                                                                    {"untrusted", TLSFault::untrustedAuthority},
                                                                    {"tls1.0", TLSFault::tls10Only},
                                                                    {"no-handshake", TLSFault::noHandshake}};
  for (const auto& [known, fault] : names) {
    if (name == known) return fault;
  }
  return std::nullopt;
}

namespace detail {

std::optional<std::string> faultyTLSCertificate(TLSFault fault, const std::string& serverKeyPEM, const std::string& caPEM,
                                                const std::string& caKeyPEM, std::string* error) {
  const auto now = std::chrono::system_clock::now();
  CertificateProfile leaf{.organization = "Orv Discovery Emulator",
                          .commonName = "localhost",
                          .notBefore = now - std::chrono::hours(48),
                          .notAfter = now + std::chrono::hours(48),
                          .dnsNames = {"localhost"},
                          .ipAddresses = {"127.0.0.1"}};
  if (fault == TLSFault::otherName) {
    leaf.commonName = "other.invalid";
    leaf.dnsNames = {"other.invalid"};
    leaf.ipAddresses.clear();
  }
  if (fault == TLSFault::expired) leaf.notAfter = now - std::chrono::hours(1);
  auto serverKey = PrivateKey::fromPEM(serverKeyPEM);
  std::optional<Issued> ca;
  if (fault == TLSFault::untrustedAuthority) {
    auto profile = leaf;
    profile.commonName = "Orv Stranger CA";
    profile.isCA = true;
    profile.dnsNames.clear();
    profile.ipAddresses.clear();
    ca = issue(KeyKind::ecP256, profile, nullptr, error);
  } else if (auto key = PrivateKey::fromPEM(caKeyPEM)) {
    ca = Issued{std::move(*key), caPEM};
  }
  auto pem = serverKey && ca ? issueFor(*serverKey, leaf, &*ca, error) : std::nullopt;
  if (!pem && error && error->empty()) *error = "cannot issue the faulty TLS certificate from the material's keys";
  return pem;
}

}  // namespace detail

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  const auto lower = [](unsigned char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : char(c); };
  for (const auto& [field, value] : headers) {
    if (std::equal(field.begin(), field.end(), name.begin(), name.end(), [&](char a, char b) { return lower(a) == lower(b); })) {
      return value;
    }
  }
  return std::nullopt;
}

bool addFaultArgument(std::map<std::string, FaultSpec>& faults, std::string_view argument, std::string* error) {
  const auto fail = [&](std::string message) {
    if (error) *error = std::move(message);
    return false;
  };
  // The knob starts after the first ":" that is followed by a knob name, so paths may hold colons.
  static constexpr std::string_view knobs[] = {
      "status=", "delay=", "drop", "nosig", "badsig", "body=", "raw=", "drip=", "close", "reset", "silence", "hangup-reused"};
  std::size_t split = std::string_view::npos;
  for (std::size_t at = argument.find(':'); at != std::string_view::npos; at = argument.find(':', at + 1)) {
    const auto rest = argument.substr(at + 1);
    if (std::any_of(std::begin(knobs), std::end(knobs),
                    [&](std::string_view knob) { return knob.back() == '=' ? rest.starts_with(knob) : rest == knob; })) {
      split = at;
      break;
    }
  }
  if (split == std::string_view::npos || split == 0 || argument.front() != '/') {
    return fail(
        fmt::format("fault \"{}\" is not PATH:KNOB (status=CODE, delay=MS, drop, nosig, badsig, body=TEXT, "
                    "body=@FILE, raw=TEXT, raw=@FILE, drip=MS, close, reset, silence, hangup-reused)",
                    argument));
  }
  const std::string path(argument.substr(0, split));
  const std::string_view knob = argument.substr(split + 1);
  FaultSpec fault = faults.count(path) ? faults[path] : FaultSpec{};

  const auto number = [&](std::string_view text, unsigned long& value) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
  };
  const auto milliseconds = [&](std::string_view text, std::chrono::milliseconds& value) {
    unsigned long count = 0;
    if (!number(text, count) || count > 3'600'000) return false;
    value = std::chrono::milliseconds(count);
    return true;
  };
  // TEXT as it stands, or @FILE's bytes.
  const auto content = [&](std::string_view text, std::optional<std::string>& value) {
    if (!text.starts_with("@")) {
      value = std::string(text);
      return true;
    }
    std::ifstream in(std::string(text.substr(1)), std::ios::binary);
    if (!in) return false;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    value = bytes.str();
    return true;
  };
  static constexpr std::pair<std::string_view, FaultEnding> endings[] = {
      {"close", FaultEnding::close}, {"reset", FaultEnding::reset}, {"silence", FaultEnding::silence}};
  if (knob.starts_with("status=")) {
    unsigned long status = 0;
    if (!number(knob.substr(7), status) || status < 200 || status > 599) {
      return fail(fmt::format("fault status in \"{}\" is not a code from 200 to 599", argument));
    }
    fault.status = unsigned(status);
  } else if (knob.starts_with("delay=") || knob.starts_with("drip=")) {
    const bool delay = knob.starts_with("delay=");
    if (!milliseconds(knob.substr(knob.find('=') + 1), delay ? fault.delay : fault.drip)) {
      return fail(
          fmt::format("fault {} in \"{}\" is not a number of milliseconds up to one hour", delay ? "delay" : "drip", argument));
    }
  } else if (knob == "drop") {
    fault.dropMidBody = true;
  } else if (knob == "nosig") {
    fault.omitSignature = true;
  } else if (knob == "badsig") {
    fault.corruptSignature = true;
  } else if (knob == "hangup-reused") {
    fault.hangUpIfReused = true;
  } else if (const auto ending = std::find_if(std::begin(endings), std::end(endings), [&](auto& e) { return e.first == knob; });
             ending != std::end(endings)) {
    fault.ending = ending->second;
  } else {
    const bool body = knob.starts_with("body=");
    const auto text = knob.substr(knob.find('=') + 1);
    if (!content(text, body ? fault.body : fault.raw)) {
      return fail(fmt::format("cannot read the fault {} file \"{}\"", body ? "body" : "raw", text.substr(1)));
    }
  }
  faults[path] = std::move(fault);
  return true;
}

}  // namespace orv::emulator
