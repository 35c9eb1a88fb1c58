#pragma once
// Floors are measured in the same run as the benchmarks, so each benchmark can report how many
// floors it costs: a ratio that survives a noisy or slower machine.
#include <benchmark/benchmark.h>

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

// Times the benchmark loop itself and reports seconds per iteration divided by the floor.
class FloorRatio {
 public:
  FloorRatio(benchmark::State& state, double floorSeconds) : state_(state), floor_(floorSeconds) {}
  ~FloorRatio() {
    const double perIteration = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count() /
                                std::max<double>(1, state_.iterations());
    state_.counters["floor_us"] = floor_ * 1e6;
    state_.counters["x_floor"] = perIteration / floor_;
  }

 private:
  benchmark::State& state_;
  double floor_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace orv::bench
