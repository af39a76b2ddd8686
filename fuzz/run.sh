#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer and the address and
# undefined-behaviour sanitizers, each from the sources it needs only, and
# runs them one after the other.
# Usage: fuzz/run.sh [seconds] [target...]   (default 600 s each; targets:
# ini, status; default all)
# New inputs go to fuzz-out/TARGET/corpus, findings to fuzz-out/TARGET/ as
# crash-* files.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
RUN_SECONDS=${1:-600}
shift || true
TARGETS=("$@")
[ ${#TARGETS[@]} -gt 0 ] || TARGETS=(ini status)

# Sources, libraries and seed corpus of each target.
INI_SOURCES=(
  fuzz/ini_fuzz.cc
  fuzz/fuzz_support.cc
  src/support/ini_file.cc
  src/support/message_format.cc
  src/description/indexed_rules.cc
  src/description/params.cc
  src/support/file_helpers.cc
  src/platform/posix/file_ops.cc
)
INI_LIBS=()
INI_SEEDS=fuzz/corpus
STATUS_SOURCES=(
  fuzz/status_fuzz.cc
  fuzz/status_fuzz_support.cc
  src/status/status_read.cc
  src/status/status.cc
  src/status/status_xml.cc
  src/platform/xml_document.cc
  src/planning/hash_cache.cc
  src/support/message_format.cc
  src/support/time_text.cc
  src/support/file_helpers.cc
  src/platform/posix/file_ops.cc
)
STATUS_LIBS=(-lpugixml)
STATUS_SEEDS=fuzz/corpus_status

for target in "${TARGETS[@]}"; do
  name=${target^^}
  sources="${name}_SOURCES[@]"
  libs="${name}_LIBS[@]"
  seeds="${name}_SEEDS"
  [ -n "${!seeds:-}" ] || { echo "fuzz: unknown target $target" >&2; exit 2; }
  out=$ROOT/fuzz-out/$target
  mkdir -p "$out/corpus"
  echo "fuzz: building $out/${target}_fuzz" >&2
  clang++ -std=c++20 -O1 -g -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$ROOT/src" -I"$ROOT" "${!sources}" "${!libs}" -o "$out/${target}_fuzz"
  echo "fuzz: running $target for $RUN_SECONDS s" >&2
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$out/${target}_fuzz" -max_total_time="$RUN_SECONDS" -print_final_stats=1 -max_len=4096 \
    -artifact_prefix="$out/" "$out/corpus" "$ROOT/${!seeds}"
done
