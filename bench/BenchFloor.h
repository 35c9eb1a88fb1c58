#pragma once
// Floors are measured in the same run as the benchmarks, so each benchmark can report how many
// floors it costs: a ratio that survives a noisy or slower machine.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace orv::bench {

// Median seconds of one call, over `rounds` rounds of `perRound` calls.
inline double measureFloor(const std::function<void()>& call, int rounds = 15, int perRound = 20) {
  std::vector<double> samples;
  for (int r = 0; r < rounds; ++r) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < perRound; ++i) call();
    samples.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / perRound);
  }
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  return samples[samples.size() / 2];
}

// User and system time of every thread of the process, joined ones included. Work the library hands
// to its I/O thread and worker pool is invisible to a clock of the benchmark's own thread.
inline double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct FloorCost {
  double wallSeconds = 0;
  double cpuSeconds = 0;
};

// Median wall and process CPU seconds of one call, each over `rounds` rounds of `perRound` calls.
inline FloorCost measureFloorCost(const std::function<void()>& call, int rounds = 15, int perRound = 20) {
  std::vector<double> wall, cpu;
  for (int r = 0; r < rounds; ++r) {
    const double cpuStart = processCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < perRound; ++i) call();
    wall.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / perRound);
    cpu.push_back((processCpuSeconds() - cpuStart) / perRound);
  }
  const auto median = [](std::vector<double>& v) {
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
  };
  return {median(wall), median(cpu)};
}

// Times the benchmark loop itself and reports seconds per iteration divided by the floor; given the
// floor's CPU time too, also the process CPU time per iteration divided by it.
class FloorRatio {
 public:
  FloorRatio(benchmark::State& state, double floorSeconds) : state_(state), floor_{floorSeconds, 0} {}
  FloorRatio(benchmark::State& state, FloorCost floor) : state_(state), floor_(floor) {}
  ~FloorRatio() {
    const double iterations = std::max<double>(1, state_.iterations());
    const double perIteration = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count() / iterations;
    state_.counters["floor_us"] = floor_.wallSeconds * 1e6;
    state_.counters["x_floor"] = perIteration / floor_.wallSeconds;
    if (floor_.cpuSeconds > 0) {
      const double cpuPerIteration = (processCpuSeconds() - cpuStart_) / iterations;
      state_.counters["cpu_us"] = cpuPerIteration * 1e6;
      state_.counters["cpu_floor_us"] = floor_.cpuSeconds * 1e6;
      state_.counters["cpu_x_floor"] = cpuPerIteration / floor_.cpuSeconds;
    }
  }

 private:
  benchmark::State& state_;
  FloorCost floor_;
  double cpuStart_ = processCpuSeconds();
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace orv::bench
