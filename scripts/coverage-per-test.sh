#!/usr/bin/env bash
# Branch coverage of Classes/ and Platform/ per test, and what each test reaches that no other does.
# Usage: scripts/coverage-per-test.sh [REGEX]   (after scripts/coverage.sh has built build-coverage)
#
# Runs each ctest test (those matching REGEX, default all) alone on the coverage build and keeps its
# gcovr JSON in build-coverage/per-test/. Then prints, per test: the branches only it reaches among all
# recorded tests, then its name. A test that reaches nothing of its own is not thereby redundant: it
# may check a property (an order, a thread, a value) on a path others merely run. But a merge or a
# removal that would lose a branch shows up here before the suite-wide figure moves.
# Takes about ten seconds per test; recorded tests are kept, so a rerun only adds missing ones.
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
dir="$src/build-coverage"
out="$dir/per-test"
[ -f "$dir/CTestTestfile.cmake" ] || { echo "run scripts/coverage.sh first" >&2; exit 2; }
mkdir -p "$out"
cd "$src"
ctest --test-dir "$dir" -N -R "${1:-.}" | sed -n 's/^ *Test *#[0-9]*: //p' | while read -r test; do
  file="$out/${test//\//_}.json"
  [ -f "$file" ] && continue
  find "$dir" -name '*.gcda' -delete
  ctest --test-dir "$dir" -R "^${test//./\\.}\$" --timeout 600 >/dev/null 2>&1 || echo "failed: $test" >&2
  gcovr --root . --object-directory "$dir" --filter 'Classes/' --filter 'Platform/' --exclude-throw-branches \
    --exclude-unreachable-branches --json "$file" >/dev/null 2>>"$out/gcovr.log"
done
python3 - "$out" <<'PY'
import collections, glob, json, os, sys
reached = {}
for path in glob.glob(os.path.join(sys.argv[1], "*.json")):
    branches = set()
    for f in json.load(open(path))["files"]:
        for line in f["lines"]:
            if line.get("gcovr/excluded"):
                continue
            branches.update((f["file"], line["line_number"], i) for i, b in enumerate(line["branches"]) if b["count"] > 0)
    reached[os.path.basename(path)[:-5]] = branches
count = collections.Counter(b for branches in reached.values() for b in branches)
for own, name in sorted((sum(count[b] == 1 for b in branches), name) for name, branches in reached.items()):
    print(f"{own:5} {name}")
print(f"{len(count)} branches reached by {len(reached)} tests; first column: branches only that test reaches")
PY
