#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (preset fuzz) and runs each for
# SECONDS (default 60) from its committed corpus. Inputs the fuzzer finds go to a
# scratch folder, not the repository; a crashing input is kept as build/fuzz/crash-*.
#   bash scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ not found, fuzzing skipped"
  exit 0
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2 --target fuzz_route_file fuzz_profile_json >/dev/null
status=0
for target in route_file profile_json; do
  scratch="$(mktemp -d)"
  log="build/fuzz/fuzz-$target.log"
  dict=()
  [ -f "fuzz/$target.dict" ] && dict=("-dict=fuzz/$target.dict")
  if ! build/fuzz/fuzz/fuzz_"$target" "${dict[@]}" -max_total_time="$seconds" -max_len=8192 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="build/fuzz/crash-$target-" "$scratch" "fuzz/corpus/$target" >"$log" 2>&1; then
    echo "fuzz: $target FAILED; the last lines of $log:"
    tail -n 30 "$log"
    status=1
  fi
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
  added="$(find "$scratch" -type f | wc -l)"
  seeds="$(find "fuzz/corpus/$target" -type f | wc -l)"
  echo "fuzz: $target: ${runs:-?} executions in ${seconds} s from $seeds seeds, $added new inputs found"
  rm -rf "$scratch"
done
exit "$status"
