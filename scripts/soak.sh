#!/usr/bin/env bash
# Stops the reader's processes at random under load.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta soak [--stops N | --minutes N] [--seed S]

Builds the reader and stops its agent or pcscd at random moments for 0.05 to 8
seconds while four clients use it. Every answer is checked, and every client
must have a right one within 2 seconds after each stop. Ctrl-C ends it with the
summary.

  --stops N      end after N stops; default: 200
  --minutes N    end after N minutes
  --seed S       moments and durations of the run that printed this seed
  -h, --help     this text

Exit code 1: a wrong answer, or a reader that came back late or not at all.
EOT
}

options=("$@")
length=
while [ $# -gt 0 ]; do
  case "$1" in
    --stops | --minutes | --seed)
      [[ "${2:-}" =~ ^[0-9]{1,10}$ ]] || die_usage "$1 needs a whole number"
      if [ "$1" != --seed ]; then
        [ "$2" -gt 0 ] || die_usage "$1 needs a number above 0"
        [ -z "$length" ] || die_usage "soak takes one of --stops and --minutes"
        length=$1
      fi
      shift
      ;;
    *) help_or_die soak "$1" ;;
  esac
  shift
done

ask_root "to run pcscd in a mount namespace of its own"
need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
build_preset release zelta_vsc ifdzelta zelta-agent
make_work
step "Stopping agent and pcscd under load"
trap : INT # the soak ends with its summary, and its exit code counts
as_root "to run pcscd in a mount namespace of its own" \
  env TMPDIR="$WORK" PYTHONPATH="$ZELTA_ROOT/tests/end_to_end" PYTHONDONTWRITEBYTECODE=1 \
  ZELTA_BUILD_DIR="$ZELTA_BUILD_DIR" \
  /usr/bin/python3 "$ZELTA_ROOT/tests/scenarios/soak.py" "${options[@]}"
