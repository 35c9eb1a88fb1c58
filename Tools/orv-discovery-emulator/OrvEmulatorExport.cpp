// The catalog as static files and an nginx configuration that serves them the way the emulator
// would, for a staging host that runs stock nginx and no emulator.
#include <arpa/inet.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/json.hpp>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include "OrvDiscoveryEmulator.h"
#include "OrvEmulatorCatalog.h"
#include "OrvEmulatorResponder.h"

namespace orv::emulator {

namespace {

namespace fs = std::filesystem;

constexpr fs::perms kReadable = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read;
constexpr fs::perms kTraversable = kReadable | fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;

bool isAsciiAlphanumeric(unsigned char c) { return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z'); }

// A path segment as a client sends it, everything but unreserved characters percent-encoded. The
// same text names the answer's directory, so it also keeps "/" and segments of only dots out of the
// file system.
std::string encodedSegment(std::string_view segment) {
  const bool onlyDots = segment.find_first_not_of('.') == std::string_view::npos;
  std::string out;
  for (const unsigned char c : segment) {
    if (isAsciiAlphanumeric(c) || (!onlyDots && (c == '-' || c == '.' || c == '_' || c == '~'))) {
      out += char(c);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  return out;
}

// nginx matches locations against the decoded path, so these are built from the decoded text.
std::string nginxQuoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

// A regular expression for text taken literally, inside an nginx double-quoted string: nginx drops one
// level of backslashes before the expression is compiled, and a backslash before any character that
// is not a letter or digit makes that character literal in the expression.
std::string nginxRegexLiteral(std::string_view text) {
  std::string out;
  for (const unsigned char c : text) {
    if (isAsciiAlphanumeric(c) || c >= 0x80) {
      out += char(c);
    } else if (c == '\\') {
      out += R"(\\\\)";
    } else if (c == '"') {
      out += R"(\")";
    } else {
      out += '\\';
      out += char(c);
    }
  }
  return out;
}

struct StaticRoute {
  // What follows "location" in the configuration.
  std::string match;
  // The request path as the client sends it.
  std::string target;
};

std::vector<StaticRoute> routesOf(const detail::Catalog& catalog) {
  std::vector<StaticRoute> routes;
  routes.push_back({"= /ads/root/publickey", "/ads/root/publickey"});
  for (const auto& [domain, answer] : catalog.domains) {
    // The client sends the domain as the user typed it; the emulator ignores its case, and so does
    // the inline flag here.
    routes.push_back({fmt::format(R"(~ "^/ads/root/domain/(?i){}/$")", nginxRegexLiteral(domain)),
                      "/ads/root/domain/" + encodedSegment(domain) + "/"});
  }
  for (const auto& [url, store] : catalog.stores) {
    const std::string base = "/ads/root/url/" + base64UrlEncode(url) + "/product/kaleth/os/";
    for (const auto& [platform, answer] : store.platforms) routes.push_back({"= " + base + platform, base + platform});
    for (const auto& [channel, platforms] : store.channels) {
      for (const auto& [platform, answer] : platforms) {
        routes.push_back({"= " + nginxQuoted(base + platform + "/channel/" + channel),
                          base + platform + "/channel/" + encodedSegment(channel)});
      }
    }
  }
  return routes;
}

// Answers served from files cannot be stamped per request, so they get their validity now.
std::shared_ptr<const detail::Catalog> withFixedValidity(const detail::Catalog& catalog, OrvDate now,
                                                         std::chrono::seconds lifetime) {
  auto stamped = std::make_shared<detail::Catalog>(catalog);
  for (auto& [domain, answer] : stamped->domains) detail::stampValidity(answer, now, lifetime);
  for (auto& [url, store] : stamped->stores) {
    for (auto& [platform, answer] : store.platforms) detail::stampValidity(answer, now, lifetime);
    for (auto& [channel, platforms] : store.channels) {
      for (auto& [platform, answer] : platforms) detail::stampValidity(answer, now, lifetime);
    }
  }
  return stamped;
}

bool writeFile(const fs::path& path, std::string_view content, fs::perms perms, std::string* error) {
  std::error_code ec;
  fs::remove(path, ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  fs::permissions(path, perms, fs::perm_options::replace, ec);
  out.write(content.data(), std::streamsize(content.size()));
  out.close();
  if (!out || ec) {
    if (error) *error = "cannot write " + path.string();
    return false;
  }
  return true;
}

std::string utcText(OrvDate date) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(std::chrono::system_clock::to_time_t(date)));
}

}  // namespace

bool exportCatalog(const ExportOptions& options, const std::string& outDir, std::string* error) {
  const auto fail = [&](std::string message) {
    if (error) *error = std::move(message);
    return false;
  };
  try {
    if (options.validFor <= std::chrono::seconds(0)) return fail("the answers' validity must be longer than zero");
    if (options.port == 0) return fail("an exported configuration needs a fixed port, not 0");
    auto material = detail::loadMaterial(options.materialDir, options.algorithm, TLSFault::none, error);
    if (!material) return false;
    const auto text = detail::catalogText(options.materialDir, options.catalogFile, options.catalogJSON, error);
    if (!text) return false;
    const auto parsed = detail::parseCatalog(*text, error);
    if (!parsed) return false;

    const OrvDate now = std::chrono::system_clock::now();
    const auto catalog = withFixedValidity(*parsed, now, options.validFor);
    const fs::path out(outDir);
    std::error_code ec;
    fs::create_directories(out / "temp", ec);
    if (ec) return fail(fmt::format("cannot create {}: {}", (out / "temp").string(), ec.message()));
    // When nginx starts as root its workers drop to an unprivileged user, which must still get at
    // the answers whatever the umask was.
    fs::permissions(out, kTraversable, fs::perm_options::add, ec);
    fs::permissions(out / "temp", kTraversable, fs::perm_options::replace, ec);
    if (!writeFile(out / kTLSServerFile, material->tlsCertificatePEM, kReadable, error) ||
        !writeFile(out / kTLSServerKeyFile, material->tlsPrivateKeyPEM, fs::perms::owner_read | fs::perms::owner_write, error)) {
      return false;
    }
    const std::string algorithm = material->algorithm;
    const auto responder = detail::Responder::create(std::move(*material), catalog);

    std::string locations;
    std::set<std::string> usedFiles;
    for (const auto& route : routesOf(*catalog)) {
      // Going through the responder is what keeps the files and signatures those of the emulator.
      const auto answer = responder->answer("GET", route.target, now);
      if (answer.status != 200)
        return fail(fmt::format("the emulator answers {} with {}; cannot export it", route.target, answer.status));
      std::string signature;
      for (const auto& [name, value] : answer.headers) {
        if (name == kSignatureHeaderName) signature = value;
      }

      std::string directory = route.target;
      if (directory.back() == '/') directory.pop_back();
      // Answers whose paths differ only in letter case get files of their own on file systems that
      // ignore case, too.
      std::string file = directory + "/answer.json";
      const auto folded = [](std::string path) {
        for (auto& c : path) c = char((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c);
        return path;
      };
      for (int n = 2; usedFiles.count(folded(file)); ++n) file = fmt::format("{}/answer-{}.json", directory, n);
      usedFiles.insert(folded(file));

      const fs::path documentRoot = out / "root";
      fs::create_directories(documentRoot / directory.substr(1), ec);
      if (ec) return fail(fmt::format("cannot create {}{}: {}", documentRoot.string(), directory, ec.message()));
      for (fs::path at = directory.substr(1); !at.empty(); at = at.parent_path())
        fs::permissions(documentRoot / at, kTraversable, ec);
      fs::permissions(documentRoot, kTraversable, ec);
      if (!writeFile(documentRoot / file.substr(1), answer.body, kReadable, error)) return false;

      // try_files rather than alias: a path ending in "/" would otherwise be taken for a directory.
      locations += fmt::format("\n    location {} {{\n", route.match);
      if (!signature.empty()) locations += fmt::format("      add_header {} \"{}\" always;\n", kSignatureHeaderName, signature);
      locations += fmt::format("      try_files {} =404;\n    }}\n", file);
    }

    const std::string listen = options.listenAddress.find(':') == std::string::npos
                                   ? fmt::format("{}:{}", options.listenAddress, options.port)
                                   : fmt::format("[{}]:{}", options.listenAddress, options.port);
    const std::string configuration = fmt::format(
        R"conf(# Written by orv-discovery-emulator --export at {now}: the catalog's answers as static files,
# signed with {algorithm}. Answers without their own validity expire at {expiry}.
#
#   start: nginx -p THIS_DIRECTORY -c nginx.conf -e THIS_DIRECTORY/error.log
#   stop:  kill -QUIT "$(cat THIS_DIRECTORY/nginx.pid)"
#
# Every path here is relative to the -p prefix, and nothing outside it is used, so that nginx runs
# without privileges. The TLS certificate covers 127.0.0.1 and localhost only.

worker_processes 1;
pid nginx.pid;
error_log error.log notice;

events {{
  worker_connections 256;
}}

http {{
  types {{}}
  default_type application/json;
  server_tokens off;
  log_format discovery '$remote_addr [$time_local] $server_protocol "$request" $status $body_bytes_sent "$http_user_agent" connection=$connection';
  access_log access.log discovery;
  client_body_temp_path temp/client-body;
  proxy_temp_path temp/proxy;
  fastcgi_temp_path temp/fastcgi;
  uwsgi_temp_path temp/uwsgi;
  scgi_temp_path temp/scgi;

  server {{
    listen {listen} ssl http2;
    ssl_certificate {certificate};
    ssl_certificate_key {key};
    ssl_protocols TLSv1.2 TLSv1.3;

    root root;

    # Every answer has a location of its own; anything else is unknown, as to the emulator.
    location / {{
      return 404 '{{"error":"not found"}}';
    }}
{locations}  }}
}}
)conf",
        fmt::arg("now", utcText(now)), fmt::arg("algorithm", algorithm), fmt::arg("expiry", utcText(now + options.validFor)),
        fmt::arg("listen", listen), fmt::arg("certificate", kTLSServerFile), fmt::arg("key", kTLSServerKeyFile),
        fmt::arg("locations", locations));
    return writeFile(out / "nginx.conf", configuration, kReadable, error);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}

std::uint16_t freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  close(fd);
  return bound ? ntohs(address.sin_port) : 0;
}

}  // namespace orv::emulator
