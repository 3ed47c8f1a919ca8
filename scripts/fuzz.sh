#!/usr/bin/env bash
# Builds the fuzzers and runs each for a while, from its corpus.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: scripts/fuzz.sh [--seconds N]

Builds the fuzzers and runs each for N seconds (20), from its folder in
fuzz/corpus. What breaks one is kept in build-fuzz/findings.

Exit code 1: a fuzzer has found something.
EOT
}

seconds=20
case "${1:-}" in
  "") ;;
  --seconds)
    [[ "${2:-}" =~ ^[1-9][0-9]{0,5}$ ]] || die_usage "--seconds needs a number above 0"
    seconds=$2
    ;;
  -h | --help)
    usage
    exit 0
    ;;
  *) die_usage "fuzz takes no '$1'; see scripts/fuzz.sh --help" ;;
esac

need_packages "${BUILD_PACKAGES[@]}" "${LINT_PACKAGES[@]}"
build_preset fuzz zelta_fuzzers
folder=$(build_folder fuzz)
findings=$folder/findings
mkdir -p "$findings"
make_work

# fuzz NAME: runs it and reports the result; false if something was found.
fuzz() {
  local name=$1 log=$WORK/$1.log
  # New inputs go to the first folder; an announced length must not be trusted.
  mkdir "$WORK/$name"
  # An answer that never comes shows as an input that takes too long. Choosing inputs by their
  # entropy would take longer than playing them.
  if "$folder/bin/${name}_fuzzer" -max_total_time="$seconds" -rss_limit_mb=512 -timeout=25 \
    -entropic=0 -artifact_prefix="$findings/${name}-" "$WORK/$name" "$ZELTA_ROOT/fuzz/corpus/$name" \
    >"$log" 2>&1; then
    say "$name: $(grep -E '^Done [0-9]+ runs' "$log")"
  else
    tail -n 60 "$log" >&2
    say "$name: broken; the input is in $findings"
    return 1
  fi
}

# As many at a time as there are processors.
broken=0
running=0
for source in "$ZELTA_ROOT"/fuzz/*_fuzzer.cpp; do
  fuzz "$(basename "$source" _fuzzer.cpp)" &
  running=$((running + 1))
  [ "$running" -lt "$(nproc)" ] || {
    wait -n || broken=1
    running=$((running - 1))
  }
done
while [ "$running" -gt 0 ]; do
  wait -n || broken=1
  running=$((running - 1))
done
exit "$broken"
