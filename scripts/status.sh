#!/usr/bin/env bash
# Reader, state, agent, card and log file of a running reader.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case "${1:-}" in
  "") ;;
  -h | --help)
    say "Usage: ./zelta status
Shows reader, state, agent, card and log file. Exit code 1: no reader is up."
    exit 0
    ;;
  *) die_usage "status takes no '$1'; see ./zelta status --help" ;;
esac

need_up
ask_root "to ask the agent"
use_running_reader
readers=$(opensc-tool --list-readers 2>/dev/null || true)
reader=$(printf '%s\n' "$readers" | sed -n 's/^ *0 *\(Yes\|No\) *//p')
case $(printf '%s\n' "$readers" | awk '$1 == "0" { print $2 }') in
  Yes) state="card present" ;;
  No) state="empty" ;;
  *) state="not listed by pcscd" ;;
esac
say "Reader: ${reader:-none}"
say "State:  $state"
agent=$(as_root "to ask the agent" \
  "$ZELTA_BUILD_DIR/bin/zelta-agent" ctl status --control "$ZELTA_RUN_DIR/agent.ctl") ||
  agent="not running"
printf '%s\n' "$agent" | sed '1s/^/Agent:  /; 2,$s/^/        /'
say "Log:    $(newest_log "$ZELTA_RUN_DIR/data/Vornhalt/ZeltaAgent/logs")"
