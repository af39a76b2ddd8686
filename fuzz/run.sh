#!/usr/bin/env bash
# Builds the fuzz targets (the ini engine's, the bridge's readers') with
# libFuzzer and the address and undefined-behaviour sanitizers, from the
# sources each needs only, and runs each in turn.
# Usage: fuzz/run.sh [seconds] [targets]   (default 600, "ini bridge")
# New inputs go to fuzz-out/NAME_corpus, findings to fuzz-out/ as NAME-crash-*.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
RUN_SECONDS=${1:-600}
TARGETS=" ${2:-ini bridge} "
OUT=$ROOT/fuzz-out
mkdir -p "$OUT"

SOURCES=(
  fuzz/ini_fuzz.cc
  fuzz/fuzz_support.cc
  src/support/ini_file.cc
  src/support/message_format.cc
  src/description/indexed_rules.cc
  src/description/params.cc
)
if [[ $TARGETS == *" ini "* ]]; then
echo "fuzz: building $OUT/ini_fuzz" >&2
clang++ -std=c++20 -O1 -g -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$ROOT/src" -I"$ROOT" "${SOURCES[@]}" -o "$OUT/ini_fuzz"
fi

# The bridge's readers: frames, the client's reply, the module's messages.
BRIDGE_SOURCES=(
  fuzz/bridge_fuzz.cc
  agent/bridge_wire.cc
  agent/agent_paths.cc
  client/responder.cc
  src/install/notify.cc
  src/platform/posix/process.cc
)
if [[ $TARGETS == *" bridge "* ]]; then
echo "fuzz: building $OUT/bridge_fuzz" >&2
clang++ -std=c++20 -O1 -g -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -I"$ROOT/src" -I"$ROOT" "${BRIDGE_SOURCES[@]}" -o "$OUT/bridge_fuzz"
fi

echo "fuzz: running each target for $RUN_SECONDS s" >&2
run_target() {  # name, corpus directory of the repository
  [[ $TARGETS == *" $1 "* ]] || return 0
  mkdir -p "$OUT/$1_corpus"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$OUT/$1_fuzz" -max_total_time="$RUN_SECONDS" -print_final_stats=1 -max_len=4096 \
    -artifact_prefix="$OUT/$1-" "$OUT/$1_corpus" "$ROOT/fuzz/$2"
}
run_target ini corpus
run_target bridge bridge_corpus
