#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (ASan+UBSan) and runs every one of them for MINUTES
# (default 10), as many at once as there are cores. New inputs go to a scratch corpus per harness;
# crashes are written to build-fuzz/findings/<harness>/ and should be added to corpus/<harness>/.
# A summary line per harness (executions, coverage, crashes) ends the run.
#
#   fuzz/run.sh [MINUTES] [HARNESS...]
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-10}
shift || true
harnesses=("$@")
if [ "${#harnesses[@]}" -eq 0 ]; then
  harnesses=($(sed -n 's/^orv_add_fuzz_harness(\([a-z_]*\) .*/\1/p' fuzz/CMakeLists.txt))
fi
CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORV_FUZZ=ON \
  -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCH=OFF -DORV_BUILD_TOOLS=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${harnesses[@]/#/fuzz_}"
dictionary() {
  case "$1" in
    jws_verify) echo fuzz/dict/jws_verify.dict ;;
    keyed_unarchiver) echo fuzz/dict/keyed_unarchiver.dict ;;
    url_and_input) echo fuzz/dict/url_and_input.dict ;;
    *) echo fuzz/dict/json_answers.dict ;;
  esac
}
run_one() {
  local name=$1
  mkdir -p "build-fuzz/scratch/$name" "build-fuzz/findings/$name"
  build-fuzz/fuzz/"fuzz_$name" "build-fuzz/scratch/$name" "fuzz/corpus/$name" -dict="$(dictionary "$name")" \
    -max_total_time=$((minutes * 60)) -timeout=10 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
    -artifact_prefix="build-fuzz/findings/$name/" >"build-fuzz/findings/$name.log" 2>&1 || true
  local execs cov crashes
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/findings/$name.log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "build-fuzz/findings/$name.log" | tail -n 1)
  crashes=$(find "build-fuzz/findings/$name" -type f | wc -l)
  echo "$name: ${execs:-0} executions, ${cov:-cov: ?}, $crashes findings (log: build-fuzz/findings/$name.log)"
}
jobs=$(nproc)
for name in "${harnesses[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do sleep 1; done
  run_one "$name" &
done
wait
