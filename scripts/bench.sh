#!/usr/bin/env bash
# Measures the cost of a command.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta bench [OPTION...]

Builds the reader and its benchmarks. Prints what a command, a movement of the
card and a control of the driver cost, compared with the bare exchange of the
same bytes and with a handler that answers at once; which targets are kept; and
the system calls of a command. Takes about a minute. The machine should have
nothing else to do.

  --quick        fewer rounds: a look, not a result
  --check        exit code 1 if a target was missed
  --page FILE    replace the tables in this page (docs/performance.md)
  --chart FILE   draw the chart, as SVG
  -h, --help     this text
EOT
}

# can_write FILE: whether the file can be written or made; changes nothing.
can_write() {
  if [ -e "$1" ]; then
    [ -f "$1" ] && [ -w "$1" ]
  else
    [ -d "$(dirname "$1")" ] && [ -w "$(dirname "$1")" ]
  fi
}

options=()
while [ $# -gt 0 ]; do
  case "$1" in
    --quick | --check) options+=("$1") ;;
    --page | --chart)
      need_value "a file" "$@"
      [ "$1" != --page ] || [ -f "$2" ] || die_usage "there is no page '$2'"
      can_write "$2" || die_usage "'$2' cannot be written"
      options+=("$1" "$(realpath --canonicalize-missing "$2")")
      shift
      ;;
    *) help_or_die bench "$1" ;;
  esac
  shift
done

ask_root "to run pcscd in a mount namespace of its own, and to trace it"
need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${BENCH_PACKAGES[@]}"
CONFIGURE_OPTIONS=(-DZELTA_BUILD_BENCHMARKS=ON)
build_preset release zelta_benchmarks
make_work
step "Measuring"
as_root "to run pcscd in a mount namespace of its own, and to trace it" \
  env TMPDIR="$WORK" PYTHONPATH="$ZELTA_ROOT/tests/end_to_end:$ZELTA_ROOT/tests/scenarios" \
  PYTHONDONTWRITEBYTECODE=1 ZELTA_BUILD_DIR="$ZELTA_BUILD_DIR" \
  /usr/bin/python3 "$ZELTA_ROOT/benchmarks/bench.py" "${options[@]}"
