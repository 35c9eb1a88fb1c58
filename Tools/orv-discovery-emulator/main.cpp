// orv-discovery-emulator: generate signing and TLS material, serve a catalog over HTTPS until SIGINT
// or SIGTERM, or export it as static files and an nginx configuration.
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <pthread.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>

#include "OrvDiscoveryEmulator.h"

namespace {

bool splitListen(const std::string& text, std::string& address, std::uint16_t& port) {
  // ADDR:PORT, with an IPv6 address in brackets.
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) return false;
  address = text.substr(0, colon);
  if (address.size() >= 2 && address.front() == '[' && address.back() == ']') address = address.substr(1, address.size() - 2);
  unsigned long value = 0;
  try {
    std::size_t used = 0;
    value = std::stoul(text.substr(colon + 1), &used);
    if (used != text.size() - colon - 1 || value > 65535) return false;
  } catch (const std::exception&) {
    return false;
  }
  port = static_cast<std::uint16_t>(value);
  return !address.empty();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Local discovery service emulator: answers the auto-discover, settings and public-key endpoints "
      "over HTTPS from a JSON catalog and signs its answers."};
  std::string generateDir;
  std::string materialDir;
  std::string catalogFile;
  std::string listen = "127.0.0.1:0";
  std::string algorithm = "RS256";
  std::string exportDir;
  unsigned validForDays = 30;
  std::vector<std::string> faultArguments;

  auto* generate =
      app.add_option("--generate", generateDir, "Write fresh keys, certificates and a demo catalog to DIR")->type_name("DIR");
  auto* material = app.add_option("--material", materialDir, "Serve or export with the material in DIR")->type_name("DIR");
  generate->excludes(material);
  app.add_option("--catalog", catalogFile, "Catalog JSON file (default: DIR/catalog.json)")->type_name("FILE")->needs(material);
  auto* listenOption = app.add_option("--listen", listen,
                                      "ADDR:PORT to listen on; port 0 picks a free one (not with --export, "
                                      "where it defaults to 127.0.0.1:8443)")
                           ->type_name("ADDR:PORT")
                           ->needs(material);
  app.add_option("--algorithm", algorithm, "Signature algorithm")->check(CLI::IsMember({"RS256", "ES256"}))->needs(material);
  auto* faultOption =
      app.add_option("--fault", faultArguments,
                     "PATH:KNOB, repeatable; knobs: status=CODE, delay=MS, drop, nosig, badsig, body=TEXT, body=@FILE, "
                     "raw=TEXT, raw=@FILE, drip=MS, close, reset, silence, hangup-reused")
          ->type_name("PATH:KNOB")
          ->needs(material);
  std::string tlsFault;
  auto* tlsFaultOption = app.add_option("--tls-fault", tlsFault, "Meet every handshake in a way a client must refuse")
                             ->check(CLI::IsMember({"other-name", "expired", "untrusted", "tls1.0", "no-handshake"}))
                             ->needs(material);
  auto* exportOption =
      app.add_option("--export", exportDir, "Write the catalog's signed answers and an nginx configuration serving them to OUT")
          ->type_name("OUT")
          ->needs(material);
  exportOption->excludes(faultOption);
  exportOption->excludes(tlsFaultOption);
  app.add_option("--valid-for", validForDays, "Days exported answers without their own \"exp\" stay valid (default 30)")
      ->type_name("DAYS")
      ->check(CLI::Range(1u, 3650u))
      ->needs(exportOption);
  CLI11_PARSE(app, argc, argv);

  if (!generateDir.empty()) {
    std::string error;
    if (!orv::emulator::generateMaterial(generateDir, &error)) {
      fmt::print(stderr, "orv-discovery-emulator: {}\n", error);
      return 1;
    }
    fmt::print("material written to {}\n", generateDir);
    return 0;
  }
  if (materialDir.empty()) {
    fmt::print(stderr, "orv-discovery-emulator: give --generate DIR or --material DIR\n{}", app.help());
    return 2;
  }

  if (!exportDir.empty()) {
    orv::emulator::ExportOptions options;
    options.materialDir = materialDir;
    if (!catalogFile.empty()) options.catalogFile = catalogFile;
    options.algorithm = algorithm;
    options.validFor = std::chrono::days(validForDays);
    if (listenOption->count() == 0) listen = "127.0.0.1:8443";
    if (!splitListen(listen, options.listenAddress, options.port) || options.port == 0) {
      fmt::print(stderr, "orv-discovery-emulator: --listen with --export wants ADDR:PORT with a port other than 0, not \"{}\"\n",
                 listen);
      return 2;
    }
    std::string error;
    if (!orv::emulator::exportCatalog(options, exportDir, &error)) {
      fmt::print(stderr, "orv-discovery-emulator: {}\n", error);
      return 1;
    }
    auto out = std::filesystem::absolute(exportDir).lexically_normal().string();
    if (out.size() > 1 && out.back() == '/') out.pop_back();
    fmt::print("exported to {0}; serve with: nginx -p {0} -c nginx.conf -e {0}/error.log\n", out);
    return 0;
  }

  orv::emulator::DiscoveryEmulator::Options options;
  options.materialDir = materialDir;
  if (!catalogFile.empty()) options.catalogFile = catalogFile;
  options.algorithm = algorithm;
  if (!tlsFault.empty()) options.tlsFault = *orv::emulator::tlsFaultNamed(tlsFault);
  if (!splitListen(listen, options.listenAddress, options.port)) {
    fmt::print(stderr, "orv-discovery-emulator: --listen wants ADDR:PORT, not \"{}\"\n", listen);
    return 2;
  }
  std::map<std::string, orv::emulator::FaultSpec> faults;
  for (const auto& argument : faultArguments) {
    std::string error;
    if (!orv::emulator::addFaultArgument(faults, argument, &error)) {
      fmt::print(stderr, "orv-discovery-emulator: {}\n", error);
      return 2;
    }
  }

  // Blocked before the server thread starts, so that only sigwait below ever sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  auto emulator = orv::emulator::DiscoveryEmulator::start(options, &error);
  if (!emulator) {
    fmt::print(stderr, "orv-discovery-emulator: {}\n", error);
    return 1;
  }
  for (auto& [path, fault] : faults) emulator->setFault(path, fault);

  fmt::print("listening on {}\n", emulator->baseURL());
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  emulator.reset();
  return 0;
}
