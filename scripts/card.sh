#!/usr/bin/env bash
# Puts the emulated card in or takes it out.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case "${1:-}" in
  insert | remove) ;;
  -h | --help)
    say "Usage: ./zelta card insert|remove"
    exit 0
    ;;
  *) die_usage "card takes 'insert' or 'remove'; see ./zelta card --help" ;;
esac
[ $# -eq 1 ] || die_usage "card takes one word; see ./zelta card --help"
need_up
as_root "to reach the agent" \
  "$ZELTA_BUILD_DIR/bin/zelta-agent" ctl "$1" --control "$ZELTA_RUN_DIR/agent.ctl"
