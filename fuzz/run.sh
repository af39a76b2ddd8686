#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer and the address and undefined-
# behaviour sanitizers, and runs them one after the other:
#   ini     the ini engine and the indexed reader, from their sources
#   loader  the whole description loader, both formats, from the module's
#           and the agent's sources, and the status a check plans from
#           what it loads, saved and read back; it starts no process
#   status  the status reader, and the writer and reader together
#   bridge  the bridge's frames, the client's reply and the module's messages
#   signature  update.ini.sig and its check, the key files and PEM keys, the serial store
#   sources the sources file, and the share and place of a staged rollout
#   patch   the patch applier on shaped patches, and the maker and the
#           applier together
# Usage: fuzz/run.sh [seconds [target...]]   (default 600 s, every target)
# Each target keeps new inputs in fuzz-out/TARGET/corpus and writes findings
# to fuzz-out/TARGET/ as crash-*, leak-*, oom-* or timeout-* files.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
RUN_SECONDS=${1:-600}
shift || true
TARGETS=("$@")
[ ${#TARGETS[@]} -gt 0 ] || TARGETS=(ini loader status bridge signature sources patch)
OUT=$ROOT/fuzz-out
FLAGS=(-std=c++20 -O1 -g -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined
       -fno-sanitize-recover=undefined -I"$ROOT/src" -I"$ROOT")
CALC_HASH=_ZN15HashFileChecker8CalcHashERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_RS5_
REMOVE_FILE=_ZN6update8platform11remove_fileEPKc

sources_of() {
  case $1 in
    ini) echo fuzz/ini_fuzz.cc fuzz/fuzz_support.cc src/support/ini_file.cc src/support/message_format.cc \
              src/support/xml_text.cc src/description/indexed_rules.cc src/description/params.cc src/support/uri_join.cc \
              src/support/file_helpers.cc src/platform/posix/file_ops.cc src/description/rollout.cc \
              src/platform/hash_file.cc src/description/file_names.cc src/description/patch_keys.cc ;;
    loader) echo fuzz/loader_fuzz.cc src/*/*.cc src/platform/posix/*.cc agent/*.cc ;;
    status) echo fuzz/status_fuzz.cc fuzz/status_fuzz_support.cc src/status/status_read.cc src/status/status.cc \
                 src/status/status_xml.cc src/platform/xml_document.cc src/facts/hash_cache.cc \
                 src/support/message_format.cc src/support/time_text.cc src/support/file_helpers.cc \
                 src/support/xml_text.cc src/platform/posix/file_ops.cc ;;
    bridge) echo fuzz/bridge_fuzz.cc agent/bridge_wire.cc agent/agent_paths.cc src/platform/posix/exposure.cc client/responder.cc \
                 src/install/notify.cc src/facts/stop_flag.cc src/platform/posix/process.cc ;;
    sources) echo fuzz/sources_fuzz.cc src/support/sources_file.cc src/support/xml_text.cc src/description/rollout.cc \
                  src/platform/hash_file.cc agent/local_params.cc src/support/file_helpers.cc src/platform/posix/file_ops.cc ;;
    signature) echo fuzz/signature_fuzz.cc src/support/signature_file.cc src/support/key_file.cc src/support/pem_key.cc \
                    src/support/serial_store.cc src/support/text_fields.cc src/support/time_text.cc \
                    src/support/message_format.cc src/support/file_helpers.cc src/platform/signature.cc \
                    src/platform/hash_file.cc src/platform/posix/file_ops.cc ;;
    patch) echo fuzz/patch_fuzz.cc src/support/patch_apply.cc sign/patch_make.cc src/support/file_helpers.cc \
                src/platform/posix/mapped_file.cc src/platform/posix/file_ops.cc ;;
    *) echo "fuzz: unknown target $1" >&2; exit 2 ;;
  esac
}

libs_of() {
  case $1 in
    loader) echo -Wl,--wrap="$CALC_HASH" -Wl,--wrap="$REMOVE_FILE" -lcurl -lgcrypt -lpugixml -llzma -lpthread ;;
    ini|sources|signature) echo -lgcrypt ;;
    status) echo -lpugixml ;;
    patch) echo -llzma -ldivsufsort ;;
  esac
}

# Compiles each source to its own object, two at a time, when it is newer
# than the object; headers are not tracked, so a changed header wants
# rm -r fuzz-out/TARGET/obj.
build() {
  local target=$1 objects=() pending=()
  mkdir -p "$OUT/$target/obj" "$OUT/$target/corpus"
  for src in $(sources_of "$target"); do
    local obj="$OUT/$target/obj/${src//\//_}.o"
    objects+=("$obj")
    [ "$obj" -nt "$src" ] || pending+=("$src")
  done
  echo "fuzz: building $target (${#pending[@]} of ${#objects[@]} sources)" >&2
  if [ ${#pending[@]} -gt 0 ]; then
    printf '%s\n' "${pending[@]}" | OUTDIR="$OUT/$target/obj" xargs -P 2 -I{} sh -c \
      'clang++ "$@" -c "$0" -o "$OUTDIR/$(echo "$0" | tr / _).o"' {} "${FLAGS[@]}"
  fi
  # shellcheck disable=SC2046
  clang++ -fsanitize=fuzzer,address,undefined "${objects[@]}" $(libs_of "$target") -o "$OUT/$target/${target}_fuzz"
}

# The seeds of each target: its corpus in fuzz/, and for the description
# readers every example description.
seeds_of() {
  local dir="$OUT/$1/seeds"
  rm -rf "$dir" && mkdir -p "$dir"
  case $1 in
    ini|loader)
      cp fuzz/corpus/* "$dir/"
      for ini in examples/*/update.ini; do cp "$ini" "$dir/example_$(basename "$(dirname "$ini")").ini"; done ;;
    status) cp fuzz/corpus_status/* "$dir/" ;;
    bridge) cp fuzz/bridge_corpus/* "$dir/" ;;
    signature) cp fuzz/corpus_signature/* "$dir/" ;;
    sources) cp packaging/sources "$dir/"; printf '25%%\nhttp://a/\n# c\n  file:///srv/r/ \r\n' > "$dir/seed" ;;
    patch) cp fuzz/corpus_patch/* "$dir/" ;;
  esac
  echo "$dir"
}

for target in "${TARGETS[@]}"; do
  build "$target"
  seeds=$(seeds_of "$target")
  echo "fuzz: running $target for $RUN_SECONDS s" >&2
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$OUT/$target/${target}_fuzz" -max_total_time="$RUN_SECONDS" -print_final_stats=1 -max_len=4096 -timeout=10 \
    -artifact_prefix="$OUT/$target/" "$OUT/$target/corpus" "$seeds"
done
