#!/usr/bin/env bash
# Breaks the product in one place after another and checks whether the suite notices.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta mutate [--list] [NAME...]

Breaks one rule of the product in one place, builds what changes, and runs the
tests that must notice; then the next. All in a copy of the sources, in
build-mutate. Ends with "N passed, N failed": a mutation that survives has
failed. Without a NAME all are tried, which takes about 45 minutes.

  --list         the mutations and the rules that they break
  -h, --help     this text
EOT
}

case "${1:-}" in
  -h | --help)
    usage
    exit 0
    ;;
  --list) ;;
  -*) die_usage "mutate takes no '$1'; see ./zelta mutate --help" ;;
  *) need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${WINDOWS_PACKAGES[@]}" ;;
esac

PYTHONDONTWRITEBYTECODE=1 exec /usr/bin/python3 "$ZELTA_ROOT/tests/mutations/run_mutations.py" \
  "$ZELTA_ROOT/build-mutate" "$@"
