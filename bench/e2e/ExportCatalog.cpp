// Writes the catalog the end-to-end flows ask about, signed and exported for nginx: stores
// https://s{i}.example.com:443/Store for i below 1000, and one domain per store count,
// n{N}.example.com, whose answer lists the first N of them, signed with fresh material.
//
//   orv_e2e_export MATERIAL_DIR OUT_DIR
//
// Prints the loopback port nginx.conf listens on; the port was free when it was picked.

#include <boost/json.hpp>

#include <cstdint>
#include <cstdio>
#include <string>

#include "OrvDiscoveryEmulator.h"

namespace {

constexpr int kStores = 1000;
constexpr int kDomainSizes[] = {1, 10, 100, 1000};

std::string storeURL(int index, bool withPort) {
  return "https://s" + std::to_string(index) + ".example.com" + (withPort ? ":443" : "") + "/Store";
}

// Answers shaped like the demo catalog's, so that parsing costs what a real store's answer costs.
boost::json::object storeAnswer(int index) {
  const std::string host = "s" + std::to_string(index) + ".example.com";
  boost::json::object settingsGroup{
      {"category", "General"},
      {"userOverride", false},
      {"assignedTo", boost::json::array{"everyone"}},
      {"assignmentPriority", 1},
      {"settings", boost::json::array{boost::json::object{{"name", "ServerName"}, {"value", host}},
                                      boost::json::object{{"name", "AutoUpdate"}, {"value", true}}}}};
  boost::json::object kaleth{{"name", "Store " + std::to_string(index)},
                             {"description", "Settings of store " + std::to_string(index)},
                             {"useForAppConfig", true},
                             {"appSettings", boost::json::object{{"ios", boost::json::array{settingsGroup}}}}};
  return boost::json::object{{"kaleth", std::move(kaleth)}, {"url", boost::json::object{{"name", storeURL(index, true)}}}};
}

std::string catalogJSON() {
  boost::json::object stores;
  for (int i = 0; i < kStores; ++i) stores[storeURL(i, true)] = boost::json::object{{"ios", storeAnswer(i)}};
  boost::json::object domains;
  for (const int size : kDomainSizes) {
    const std::string name = "n" + std::to_string(size) + ".example.com";
    boost::json::array serviceURLs;
    for (int i = 0; i < size; ++i) serviceURLs.push_back(boost::json::object{{"url", storeURL(i, false)}});
    domains[name] = boost::json::object{
        {"domain", boost::json::object{{"name", name}}},
        {"kaleth", boost::json::object{{"serviceUrls", std::move(serviceURLs)},
                                       {"allowedWebStoreURLs",
                                        boost::json::array{boost::json::object{{"url", "https://webstore.example.com/"}}}}}}};
  }
  return boost::json::serialize(boost::json::object{{"domains", std::move(domains)}, {"stores", std::move(stores)}});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s MATERIAL_DIR OUT_DIR\n", argv[0]);
    return 64;
  }
  const std::string material = argv[1];
  const std::string out = argv[2];
  std::string error;
  if (!orv::emulator::generateMaterial(material, &error)) {
    std::fprintf(stderr, "material: %s\n", error.c_str());
    return 1;
  }
  orv::emulator::ExportOptions options;
  options.materialDir = material;
  options.catalogJSON = catalogJSON();
  options.port = orv::emulator::freeLoopbackPort();
  if (options.port == 0) {
    std::fprintf(stderr, "no free loopback port\n");
    return 1;
  }
  if (!orv::emulator::exportCatalog(options, out, &error)) {
    std::fprintf(stderr, "export: %s\n", error.c_str());
    return 1;
  }
  std::printf("%u\n", unsigned(options.port));
  return 0;
}
