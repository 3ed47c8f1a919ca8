#!/usr/bin/env bash
# Shows the traffic between the applications and the card of the running reader, else the system's.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

program=$ZELTA_BUILD_DIR/bin/zelta-trace
[ -x "$program" ] || die "zelta-trace is not built; ./zelta up builds it"
case " $* " in
  *" --help "* | *" -h "* | *" --version "* | *" -V "*) exec "$program" "$@" ;;
esac
# A saved trace needs neither a reader nor root.
[ ! -f "${1:-}" ] || exec "$program" "$@"
is_up || exec "$program" "$@"
need_up
become_root "to ask the agent" "$program" --control "$ZELTA_RUN_DIR/agent.ctl" "$@"
