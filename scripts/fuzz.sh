#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (preset fuzz) and runs each for
# SECONDS (default 60) from its committed corpus, all at once.
# Inputs the fuzzer finds go to a scratch folder, not the repository; a crashing
# input is kept as build/fuzz/crash-*.
#   bash scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
targets=(route_file profile_json fpm_stream)
if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ not found, fuzzing skipped"
  exit 0
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2 --target "${targets[@]/#/fuzz_}" >/dev/null
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
pids=()
for target in "${targets[@]}"; do
  mkdir -p "$scratch/$target"
  dict=()
  [ -f "fuzz/$target.dict" ] && dict=("-dict=fuzz/$target.dict")
  build/fuzz/fuzz/fuzz_"$target" "${dict[@]}" -max_total_time="$seconds" -max_len=8192 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build/fuzz/crash-$target-" "$scratch/$target" "fuzz/corpus/$target" \
    >"build/fuzz/fuzz-$target.log" 2>&1 &
  pids+=($!)
done
status=0
for i in "${!targets[@]}"; do
  target="${targets[$i]}"
  log="build/fuzz/fuzz-$target.log"
  if ! wait "${pids[$i]}"; then
    echo "fuzz: $target FAILED; the last lines of $log:"
    tail -n 30 "$log"
    status=1
  fi
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
  echo "fuzz: $target: ${runs:-?} executions in $seconds s from $(find "fuzz/corpus/$target" -type f | wc -l) seeds," \
    "$(find "$scratch/$target" -type f | wc -l) new inputs found"
done
exit "$status"
