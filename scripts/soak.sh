#!/usr/bin/env bash
# Disturbs the reader at random under load.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta soak [N | --minutes N | --stops N] [--seed S]

Builds the reader and disturbs it at random moments for 0.05 to 8 seconds while
12 clients use it and the card is swapped: agent and pcscd are stopped and
killed, hostile agents come, the disk of the log, descriptors and memory run
out. Every answer is checked; every client must have a right one soon after each
disturbance; another reader in the same pcscd must notice nothing. Ctrl-C ends
it with the report, which also goes into the folder reports.

  --minutes N    end after N minutes; the number alone does, too
  --stops N      end after N disturbances; default: 200
  --seed S       the disturbances of the run that printed this seed
  -h, --help     this text

Exit code 1: a wrong answer, or a reader that came back late or not at all.
docs/reliability.md lists the disturbances and what must hold.
EOT
}

options=()
length=
while [ $# -gt 0 ]; do
  [[ ! "$1" =~ ^[0-9]+$ ]] || set -- --minutes "$@"
  case "$1" in
    --stops | --minutes | --seed)
      [[ "${2:-}" =~ ^[0-9]{1,10}$ ]] || die_usage "$1 needs a whole number"
      if [ "$1" != --seed ]; then
        [ "$2" -gt 0 ] || die_usage "$1 needs a number above 0"
        [ -z "$length" ] || die_usage "soak takes one of --stops and --minutes"
        length=$1
      fi
      options+=("$1" "$2")
      shift
      ;;
    *) help_or_die soak "$1" ;;
  esac
  shift
done

ask_root "to run pcscd in a mount namespace of its own"
need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
build_preset release zelta_vsc ifdzelta ifdnull zelta-agent
make_work
reports=$ZELTA_ROOT/reports
mkdir -p "$reports"
step "Disturbing the reader under load"
trap : INT # the soak ends with its summary, and its exit code counts
as_root "to run pcscd in a mount namespace of its own" \
  env TMPDIR="$WORK" PYTHONPATH="$ZELTA_ROOT/tests/end_to_end" PYTHONDONTWRITEBYTECODE=1 \
  ZELTA_BUILD_DIR="$ZELTA_BUILD_DIR" \
  /usr/bin/python3 "$ZELTA_ROOT/tests/scenarios/soak.py" --reports "$reports" "${options[@]}"
