#!/usr/bin/env bash
# Ends what `zelta up` started.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case "${1:-}" in
  "") ;;
  -h | --help)
    say "Usage: ./zelta down
Ends the reader, the agent and the pcscd that ./zelta up started."
    exit 0
    ;;
  *) die_usage "down takes no '$1'; see ./zelta down --help" ;;
esac

if ! is_up; then
  say "Nothing is up."
  exit 0
fi
pid=$(cat "$ZELTA_RUN_DIR/up.pid")
exec {lock}<"$ZELTA_RUN_DIR/up.pid"
as_root "to end process $pid" kill -TERM "$pid"
flock --shared --timeout 30 "$lock" || die "process $pid does not end"
say "Down."
