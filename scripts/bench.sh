#!/usr/bin/env bash
# Measures what a command costs.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta bench [OPTION...]

Builds the reader and its benchmarks and prints what a command, a movement of the card and a control
of the driver cost, beside the bare exchange of the same bytes and a handler that answers at once,
with the targets, and the system calls of a command. Takes about a minute; the machine should have
nothing else to do.

  --quick        fewer rounds: a look, not a result
  --page FILE    replace the tables in this page (docs/performance.md)
  --chart FILE   draw the chart, as SVG
  -h, --help     this text
EOT
}

options=()
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) options+=("$1") ;;
    --page | --chart)
      [ $# -ge 2 ] || die_usage "$1 needs a file"
      [ "$1" != --page ] || [ -f "$2" ] || die_usage "there is no page '$2'"
      { : >>"$2"; } 2>/dev/null || die_usage "'$2' cannot be written"
      options+=("$1" "$(realpath --canonicalize-missing "$2")")
      shift
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    *) die_usage "bench takes no '$1'; see ./zelta bench --help" ;;
  esac
  shift
done

need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${BENCH_PACKAGES[@]}"
CONFIGURE_OPTIONS=(-DZELTA_BUILD_BENCHMARKS=ON)
build_preset release zelta_benchmarks
as_root "to run pcscd in a mount namespace of its own, and to trace it" \
  env PYTHONPATH="$ZELTA_ROOT/tests/end_to_end:$ZELTA_ROOT/tests/scenarios" \
  PYTHONDONTWRITEBYTECODE=1 ZELTA_BUILD_DIR="$ZELTA_BUILD_DIR" \
  /usr/bin/python3 "$ZELTA_ROOT/benchmarks/bench.py" "${options[@]}"
