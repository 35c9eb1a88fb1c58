#pragma once
// What the library driver and the floor share, so that the two are measured by the same rules: the
// command line, the measuring loop, and reading nginx's access log to see which connections the
// measured requests came over. Header-only, and nothing here links the library: the floor must stay
// bare libcurl and OpenSSL.
#include <sys/resource.h>

#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace orv::e2e {

// The store answers exported by orv_e2e_export, and the domain whose answer lists the first N stores.
inline std::string storeURL(int index, bool withPort) {
  return "https://s" + std::to_string(index) + ".example.com" + (withPort ? ":443" : "") + "/Store";
}
inline std::string domainForStores(int stores) { return "n" + std::to_string(stores) + ".example.com"; }

struct Options {
  // discovery-cold, discovery-warm, settings-first or settings-warm.
  std::string scenario;
  int stores = 1;
  // Measured flows: at least this many, more while minSeconds has not passed (up to 20 times as many).
  int rounds = 20;
  double minSeconds = 0;
  // 127.0.0.1:PORT
  std::string host;
  std::string caFile;
  // The signing CA the library is told to trust; the floor takes no anchors.
  std::string anchorsFile;
  std::string accessLog;
  // "h2" or "http1.1": what the server was started to speak; a flow served otherwise fails.
  std::string protocol = "h2";
  // Floor only: run each flow on a second thread while the calling thread waits, as a host's main
  // thread waits for the library's I/O thread. Shows what the two thread hand-offs of a flow cost.
  bool handOff = false;

  bool fresh() const { return scenario == "discovery-cold" || scenario == "settings-first"; }
  bool settings() const { return scenario.rfind("settings-", 0) == 0; }
  std::size_t requestsPerFlow() const { return settings() ? std::size_t(stores) + 1 : 2; }
  std::string logProtocol() const { return protocol == "h2" ? "HTTP/2.0" : "HTTP/1.1"; }

  static std::optional<Options> parse(int argc, char** argv, std::string* error) {
    Options options;
    for (int i = 1; i < argc; ++i) {
      const std::string_view name = argv[i];
      if (i + 1 >= argc) {
        *error = "missing value after " + std::string(name);
        return std::nullopt;
      }
      const std::string value = argv[++i];
      if (name == "--scenario") {
        options.scenario = value;
      } else if (name == "--stores") {
        options.stores = std::atoi(value.c_str());
      } else if (name == "--rounds") {
        options.rounds = std::atoi(value.c_str());
      } else if (name == "--min-seconds") {
        options.minSeconds = std::atof(value.c_str());
      } else if (name == "--host") {
        options.host = value;
      } else if (name == "--ca-file") {
        options.caFile = value;
      } else if (name == "--anchors") {
        options.anchorsFile = value;
      } else if (name == "--access-log") {
        options.accessLog = value;
      } else if (name == "--protocol") {
        options.protocol = value;
      } else if (name == "--hand-off") {
        if (value != "on" && value != "off") {
          *error = "--hand-off takes on or off, not " + value;
          return std::nullopt;
        }
        options.handOff = value == "on";
      } else {
        *error = "unknown option " + std::string(name);
        return std::nullopt;
      }
    }
    const bool known = options.scenario == "discovery-cold" || options.scenario == "discovery-warm" ||
                       options.scenario == "settings-first" || options.scenario == "settings-warm";
    if (!known || options.stores < 1 || options.stores > 1000 || options.rounds < 1 || options.host.empty() ||
        options.caFile.empty() || options.accessLog.empty() || (options.protocol != "h2" && options.protocol != "http1.1")) {
      *error =
          "usage: --scenario discovery-cold|discovery-warm|settings-first|settings-warm --stores N --rounds N "
          "[--min-seconds S] --host HOST:PORT --ca-file PEM [--anchors PEM] --access-log FILE --protocol h2|http1.1 [--hand-off "
          "on|off]";
      return std::nullopt;
    }
    return options;
  }
};

// User and system time of every thread of the process, living or joined.
inline double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline long peakRssKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// One request as nginx logged it. The export's format ends with "connection=$connection", which
// numbers the server's connections, so distinct values are distinct TLS connections.
struct LoggedRequest {
  std::string protocol;
  int status = 0;
  std::string connection;
};

class AccessLog {
 public:
  explicit AccessLog(std::string path) : path_(std::move(path)) {}

  std::uintmax_t size() const {
    std::error_code ignored;
    const auto bytes = std::filesystem::file_size(path_, ignored);
    return ignored ? 0 : bytes;
  }

  // The complete lines written after offset. nginx writes a request's line once it has sent the answer,
  // so the client can be a moment ahead of the log: wait until `expected` lines are there.
  std::vector<LoggedRequest> requestsFrom(std::uintmax_t offset, std::size_t expected) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
      auto requests = read(offset);
      if (requests.size() >= expected || std::chrono::steady_clock::now() > deadline) return requests;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

 private:
  std::vector<LoggedRequest> read(std::uintmax_t offset) const {
    std::ifstream in(path_, std::ios::binary);
    in.seekg(std::streamoff(offset));
    std::vector<LoggedRequest> requests;
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
      const std::string_view line(text.data() + begin, end - begin);
      // $remote_addr [$time_local] $server_protocol "$request" $status ... connection=$connection
      LoggedRequest request;
      const auto afterTime = line.find("] ");
      const auto requestStart = line.find(" \"", afterTime);
      const auto requestEnd = line.find("\" ", requestStart + 2);
      const auto connection = line.rfind("connection=");
      if (afterTime == std::string_view::npos || requestStart == std::string_view::npos || requestEnd == std::string_view::npos ||
          connection == std::string_view::npos)
        continue;
      request.protocol = std::string(line.substr(afterTime + 2, requestStart - afterTime - 2));
      request.status = std::atoi(std::string(line.substr(requestEnd + 2, 3)).c_str());
      request.connection = std::string(line.substr(connection + 11));
      requests.push_back(std::move(request));
    }
    return requests;
  }

  std::string path_;
};

struct Measurement {
  std::vector<double> wallMilliseconds;
  double cpuMillisecondsPerFlow = 0;
  // The process's high-water mark when the measured flows ended, before the server's log is read back:
  // at 1,000 stores that read alone holds more than the client does.
  long peakRssKiB = 0;
  // Connections the measured flows opened (those already open after the warm-up flow not counted).
  std::size_t connectionsOpened = 0;
  std::size_t requests = 0;
  std::size_t failedRequests = 0;
  // Requests served over another protocol than the one asked for.
  std::size_t otherProtocol = 0;
};

// One untimed warm-up flow (process-wide set-up: curl, OpenSSL, thread pools; for warm scenarios, the
// connection), then the measured flows. `flow` is timed whole; `after` (tearing down what a fresh flow
// made) is not timed but its CPU counts, as a host pays it.
inline std::optional<Measurement> measure(const Options& options, const std::function<bool()>& flow,
                                          const std::function<void()>& after, std::string* error) {
  AccessLog log(options.accessLog);
  const auto warmUpOffset = log.size();
  if (!flow()) {
    *error = "warm-up flow failed";
    return std::nullopt;
  }
  after();
  std::set<std::string> warmUpConnections;
  for (const auto& request : log.requestsFrom(warmUpOffset, options.requestsPerFlow()))
    warmUpConnections.insert(request.connection);

  Measurement result;
  const auto offset = log.size();
  const double cpuBefore = processCpuSeconds();
  const auto started = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(); };
  int flows = 0;
  while (flows < options.rounds || (elapsed() < options.minSeconds && flows < options.rounds * 20)) {
    const auto begin = std::chrono::steady_clock::now();
    const bool ok = flow();
    const auto end = std::chrono::steady_clock::now();
    after();
    if (!ok) {
      *error = "flow " + std::to_string(flows + 1) + " failed";
      return std::nullopt;
    }
    result.wallMilliseconds.push_back(std::chrono::duration<double, std::milli>(end - begin).count());
    ++flows;
  }
  result.cpuMillisecondsPerFlow = (processCpuSeconds() - cpuBefore) * 1e3 / flows;
  result.peakRssKiB = peakRssKiB();

  std::set<std::string> connections;
  const auto requests = log.requestsFrom(offset, std::size_t(flows) * options.requestsPerFlow());
  for (const auto& request : requests) {
    if (!warmUpConnections.count(request.connection)) connections.insert(request.connection);
    if (request.status != 200) ++result.failedRequests;
    if (request.protocol != options.logProtocol()) ++result.otherProtocol;
  }
  result.connectionsOpened = connections.size();
  result.requests = requests.size();
  return result;
}

inline double quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  if (values.empty()) return 0;
  const double position = q * double(values.size() - 1);
  const auto below = std::size_t(position);
  const auto above = std::min(below + 1, values.size() - 1);
  return values[below] + (values[above] - values[below]) * (position - double(below));
}

// One JSON line per scenario, on stdout, for run-e2e.sh to collect; every flow's wall time goes with
// it, so that runs of the same scenario in several processes can be pooled.
inline void printReport(const char* driver, const Options& options, const Measurement& m, boost::json::object extra = {}) {
  const auto& wall = m.wallMilliseconds;
  const double median = quantile(wall, 0.5);
  boost::json::object line{
      {"driver", driver},
      {"scenario", options.scenario},
      {"protocol", options.protocol},
      {"stores", options.stores},
      {"flows", wall.size()},
      {"wall_ms", boost::json::object{{"median", median},
                                      {"min", *std::min_element(wall.begin(), wall.end())},
                                      {"max", *std::max_element(wall.begin(), wall.end())}}},
      {"max_over_median", median > 0 ? *std::max_element(wall.begin(), wall.end()) / median : 0.0},
      {"flows_over_3x_median", std::count_if(wall.begin(), wall.end(), [&](double ms) { return ms > 3 * median; })},
      {"cpu_ms_per_flow", m.cpuMillisecondsPerFlow},
      {"peak_rss_kib", m.peakRssKiB},
      {"connections_per_flow", double(m.connectionsOpened) / double(wall.size())},
      {"connections_opened", m.connectionsOpened},
      {"requests_per_flow", double(m.requests) / double(wall.size())},
      {"failed_requests", m.failedRequests},
      {"other_protocol_requests", m.otherProtocol}};
  boost::json::array samples;
  for (const double ms : wall) samples.push_back(std::round(ms * 1000) / 1000);
  line["samples_ms"] = std::move(samples);
  for (auto& [key, value] : extra) line[key] = value;
  std::printf("%s\n", boost::json::serialize(line).c_str());
  std::fflush(stdout);
}

}  // namespace orv::e2e
