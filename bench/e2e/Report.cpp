// Turns the JSON lines of one run-e2e.sh run into Markdown: the library against its floor, scenario
// by scenario, then the fresh flows' outliers and whatever crossed the thresholds we hold the library
// to. Runs of the same scenario in several processes are pooled: their flows' wall times together,
// CPU per flow over all their flows, the highest peak RSS.
//
//   orv_e2e_report RESULTS.jsonl
#include <boost/json.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "E2ECommon.h"

namespace {

namespace json = boost::json;

// Above these the library's own work shows through the network's: warm wall time, CPU time, and a
// fresh flow against the median fresh flow.
constexpr double kWarmWallLimit = 1.10;
constexpr double kCpuLimit = 1.15;
constexpr double kStallLimit = 3.0;
// Fresh flows are judged in runs of this many, as a host that starts this often would meet them.
constexpr std::size_t kRunLength = 50;

const char* const kScenarios[] = {"discovery-cold", "discovery-warm", "settings-first", "settings-warm"};
const int kStoreCounts[] = {1, 10, 100, 1000};

double number(const json::object& o, std::string_view key) {
  const auto* found = o.if_contains(key);
  return found ? found->to_number<double>() : 0.0;
}

struct Pooled {
  std::vector<double> samples;
  // One entry per process, in the order they ran: floor and library take turns, so the i-th of each
  // side met the same spell of the machine.
  std::vector<double> processMedians, processCpu;
  // Where each process's flows end in `samples`, so that runs of flows never span two processes.
  std::vector<std::size_t> processEnds;
  double flows = 0, cpuMilliseconds = 0, peakRssKiB = 0, connections = 0, curlConnections = 0, requests = 0;
  double failed = 0, otherProtocol = 0;
  int processes = 0;

  void add(const json::object& o) {
    for (const auto& sample : o.at("samples_ms").as_array()) samples.push_back(sample.to_number<double>());
    processEnds.push_back(samples.size());
    processMedians.push_back(number(o.at("wall_ms").as_object(), "median"));
    processCpu.push_back(number(o, "cpu_ms_per_flow"));
    const double n = number(o, "flows");
    flows += n;
    cpuMilliseconds += number(o, "cpu_ms_per_flow") * n;
    peakRssKiB = std::max(peakRssKiB, number(o, "peak_rss_kib"));
    connections += number(o, "connections_opened");
    curlConnections += number(o, "curl_connections_opened");
    requests += number(o, "requests_per_flow") * n;
    failed += number(o, "failed_requests");
    otherProtocol += number(o, "other_protocol_requests");
    ++processes;
  }
  double median() const { return orv::e2e::quantile(samples, 0.5); }
  double min() const { return *std::min_element(samples.begin(), samples.end()); }
  double max() const { return *std::max_element(samples.begin(), samples.end()); }
  double cpu() const { return cpuMilliseconds / flows; }
  double overThreeMedians() const {
    const double m = median();
    return double(std::count_if(samples.begin(), samples.end(), [&](double ms) { return ms > 3 * m; }));
  }
  // Each process's flows cut into runs of `length` in the order they ran, a shorter last one
  // included: how many runs there were, and how many of them held a flow over 3 times the pooled median.
  std::pair<int, int> runsWithAFlowOverThreeMedians(std::size_t length) const {
    const double m = median();
    int runs = 0, withOne = 0;
    std::size_t begin = 0;
    for (const std::size_t end : processEnds) {
      for (std::size_t first = begin; first < end; first += length) {
        ++runs;
        const auto from = samples.begin() + std::ptrdiff_t(first);
        const auto to = samples.begin() + std::ptrdiff_t(std::min(first + length, end));
        if (std::any_of(from, to, [&](double ms) { return ms > 3 * m; })) ++withOne;
      }
      begin = end;
    }
    return {withOne, runs};
  }
};

std::string format(const char* pattern, double a) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, a);
  return text;
}
std::string ms(double value) { return format(value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value); }
std::string ratio(double a, double b) { return b > 0 ? format("%.2f", a / b) : "–"; }
std::string mib(double kib) { return format("%.1f", kib / 1024); }
std::string http(const std::string& protocol) { return protocol == "h2" ? "2" : "1.1"; }

// The library's process against the floor's that ran next to it, for each pair: how far a ratio moves
// with the machine alone. The floor against itself shows the same from the other side.
std::string pairRange(const std::vector<double>& library, const std::vector<double>& floor) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(library.size(), floor.size()); ++i)
    if (floor[i] > 0) ratios.push_back(library[i] / floor[i]);
  if (ratios.empty()) return "–";
  const auto [low, high] = std::minmax_element(ratios.begin(), ratios.end());
  return format("%.2f", *low) + "–" + format("%.2f", *high);
}
std::string spread(const std::vector<double>& values) {
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  return values.empty() || *low <= 0 ? "–" : format("%.2f", *high / *low);
}

using Key = std::tuple<std::string, std::string, int>;  // protocol, scenario, stores

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s RESULTS.jsonl\n", argv[0]);
    return 64;
  }
  std::map<Key, Pooled> library, floor, handOff;
  std::ifstream in(argv[1]);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.front() != '{') continue;
    const auto value = json::parse(line);
    const auto& o = value.as_object();
    const Key key{json::value_to<std::string>(o.at("protocol")), json::value_to<std::string>(o.at("scenario")),
                  int(number(o, "stores"))};
    const auto& driver = o.at("driver").as_string();
    (driver == "library" ? library : driver == "floor-hand-off" ? handOff : floor)[key].add(o);
  }

  std::vector<std::string> findings;
  std::printf(
      "| HTTP | scenario | stores | flows | wall ms library: median (min–max) | floor: median (min–max) | × floor: median "
      "(min, max) | × per process pair | floor's own spread | CPU ms/flow library | floor | × | × per process pair | peak "
      "RSS MiB library | floor | × | TLS conns/flow library | floor | requests/flow |\n");
  std::printf("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n");
  for (const std::string protocol : {"h2", "http1.1"}) {
    for (const std::string scenario : kScenarios) {
      for (const int stores : kStoreCounts) {
        const Key key{protocol, scenario, stores};
        if (!library.count(key) || !floor.count(key)) continue;
        const Pooled& l = library[key];
        const Pooled& f = floor[key];
        std::printf(
            "| %s | %s | %d | %.0f | %s (%s–%s) | %s (%s–%s) | **%s** (%s, %s) | %s | %s | %s | %s | **%s** | %s | %s | %s | %s "
            "| %s | %s | %s |\n",
            http(protocol).c_str(), scenario.c_str(), stores, l.flows, ms(l.median()).c_str(), ms(l.min()).c_str(),
            ms(l.max()).c_str(), ms(f.median()).c_str(), ms(f.min()).c_str(), ms(f.max()).c_str(),
            ratio(l.median(), f.median()).c_str(), ratio(l.min(), f.min()).c_str(), ratio(l.max(), f.max()).c_str(),
            pairRange(l.processMedians, f.processMedians).c_str(), spread(f.processMedians).c_str(), ms(l.cpu()).c_str(),
            ms(f.cpu()).c_str(), ratio(l.cpu(), f.cpu()).c_str(), pairRange(l.processCpu, f.processCpu).c_str(),
            mib(l.peakRssKiB).c_str(), mib(f.peakRssKiB).c_str(), ratio(l.peakRssKiB, f.peakRssKiB).c_str(),
            format("%.2f", l.connections / l.flows).c_str(), format("%.2f", f.curlConnections / f.flows).c_str(),
            format("%.1f", l.requests / l.flows).c_str());

        const std::string where =
            scenario + ", " + std::to_string(stores) + (stores == 1 ? " store" : " stores") + ", HTTP/" + http(protocol);
        const double wallRatio = l.median() / f.median();
        const double cpuRatio = l.cpu() / f.cpu();
        if (scenario.find("warm") != std::string::npos && wallRatio > kWarmWallLimit)
          findings.push_back(where + ": warm wall time " + format("%.2f", wallRatio) + "× the floor");
        if (cpuRatio > kCpuLimit) findings.push_back(where + ": CPU time " + format("%.2f", cpuRatio) + "× the floor");
        // nginx closes a connection after so many requests, and whether a process's flows reach that
        // request depends on how many flows it ran: each process may meet one close more than the
        // floor's rate says without having opened anything of its own accord.
        if (l.connections > f.curlConnections / f.flows * l.flows + l.processes + 1e-9)
          findings.push_back(where + ": the library opened " + format("%.0f", l.connections) + " TLS connections in " +
                             format("%.0f", l.flows) + " flows, the floor " + format("%.0f", f.curlConnections) + " in " +
                             format("%.0f", f.flows));
        if (f.connections != f.curlConnections)
          findings.push_back(where + ": nginx saw " + format("%.0f", f.connections) +
                             " new connections from the floor, curl counted " + format("%.0f", f.curlConnections));
        for (const auto& [driver, pooled] : {std::pair{"library", &l}, std::pair{"floor", &f}}) {
          if (pooled->failed > 0 || pooled->otherProtocol > 0)
            findings.push_back(where + ": the " + driver + " had " + format("%.0f", pooled->failed) +
                               " requests answered other than 200 and " + format("%.0f", pooled->otherProtocol) +
                               " served over another protocol");
        }
      }
    }
  }

  if (!handOff.empty()) {
    std::printf(
        "\n**The hand-off between threads.** The floor again, each flow run on a second thread while the first waits "
        "for it, as a host's main thread waits for the library's I/O thread: what the two wake-ups of a flow cost here, "
        "and the library against that.\n\n");
    std::printf(
        "| HTTP | scenario | stores | wall ms floor with hand-off | × floor | library × floor with hand-off | CPU ms/flow "
        "floor with hand-off | × floor | library × floor with hand-off |\n");
    std::printf("|---|---|--:|--:|--:|--:|--:|--:|--:|\n");
    for (const auto& [key, h] : handOff) {
      if (!library.count(key) || !floor.count(key)) continue;
      const Pooled& l = library[key];
      const Pooled& f = floor[key];
      const auto& [protocol, scenario, stores] = key;
      std::printf("| %s | %s | %d | %s | %s | **%s** | %s | %s | **%s** |\n", http(protocol).c_str(), scenario.c_str(), stores,
                  ms(h.median()).c_str(), ratio(h.median(), f.median()).c_str(), ratio(l.median(), h.median()).c_str(),
                  ms(h.cpu()).c_str(), ratio(h.cpu(), f.cpu()).c_str(), ratio(l.cpu(), h.cpu()).c_str());
    }
  }

  std::printf(
      "\n**Fresh flows, slowest against median.** Every fresh flow is a new session and service (library) or multi handle "
      "(floor), so a new TLS connection.\n\n");
  std::printf(
      "| HTTP | scenario | stores | flows | library median ms | max ms | max / median | flows > 3× median | runs of %zu with "
      "one | floor max / median | floor flows > 3× median | floor runs of %zu with one |\n",
      kRunLength, kRunLength);
  std::printf("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n");
  for (const std::string protocol : {"h2", "http1.1"}) {
    for (const std::string scenario : {"discovery-cold", "settings-first"}) {
      for (const int stores : kStoreCounts) {
        const Key key{protocol, scenario, stores};
        if (!library.count(key) || !floor.count(key)) continue;
        const Pooled& l = library[key];
        const Pooled& f = floor[key];
        const double stall = l.max() / l.median();
        const auto [libraryRunsWithOne, libraryRuns] = l.runsWithAFlowOverThreeMedians(kRunLength);
        const auto [floorRunsWithOne, floorRuns] = f.runsWithAFlowOverThreeMedians(kRunLength);
        std::printf("| %s | %s | %d | %.0f | %s | %s | %s | %.0f | %d of %d | %s | %.0f | %d of %d |\n", http(protocol).c_str(),
                    scenario.c_str(), stores, l.flows, ms(l.median()).c_str(), ms(l.max()).c_str(),
                    format(stall > kStallLimit ? "**%.2f**" : "%.2f", stall).c_str(), l.overThreeMedians(), libraryRunsWithOne,
                    libraryRuns, format("%.2f", f.max() / f.median()).c_str(), f.overThreeMedians(), floorRunsWithOne, floorRuns);
        if (stall > kStallLimit) {
          findings.push_back(scenario + ", " + std::to_string(stores) + (stores == 1 ? " store" : " stores") + ", HTTP/" +
                             http(protocol) + ": " + format("%.0f", l.overThreeMedians()) + " of " + format("%.0f", l.flows) +
                             " fresh flows took over 3× the median; the slowest " + ms(l.max()) + " ms against " +
                             ms(l.median()) + " ms (" + format("%.1f", stall) + "×); the floor's slowest " +
                             format("%.1f", f.max() / f.median()) + "×");
        }
      }
    }
  }

  std::printf(
      "\n**Over the thresholds** (warm wall time > %.2f×, CPU > %.2f×, a fresh flow > %.0f× its median, more connections than "
      "the floor):\n\n",
      kWarmWallLimit, kCpuLimit, kStallLimit);
  if (findings.empty()) std::printf("- nothing\n");
  for (const auto& finding : findings) std::printf("- %s\n", finding.c_str());
  return 0;
}
