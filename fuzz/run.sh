#!/usr/bin/env bash
# Builds the ini engine's fuzz target with libFuzzer and the address and
# undefined-behaviour sanitizers, from the sources it needs only, and runs it.
# Usage: fuzz/run.sh [seconds]      (default 600)
# New inputs go to fuzz-out/corpus, findings to fuzz-out/ as crash-* files.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
RUN_SECONDS=${1:-600}
OUT=$ROOT/fuzz-out
mkdir -p "$OUT/corpus"

SOURCES=(
  fuzz/ini_fuzz.cc
  fuzz/fuzz_support.cc
  src/support/ini_file.cc
  src/support/message_format.cc
  src/description/indexed_rules.cc
  src/description/params.cc
)
echo "fuzz: building $OUT/ini_fuzz" >&2
clang++ -std=c++20 -O1 -g -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$ROOT/src" -I"$ROOT" "${SOURCES[@]}" -o "$OUT/ini_fuzz"

echo "fuzz: running for $RUN_SECONDS s" >&2
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  "$OUT/ini_fuzz" -max_total_time="$RUN_SECONDS" -print_final_stats=1 -max_len=4096 \
  -artifact_prefix="$OUT/" "$OUT/corpus" "$ROOT/fuzz/corpus"
