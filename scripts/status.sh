#!/usr/bin/env bash
# Shows reader, state, agent, card and log file of a running reader.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  say "Usage: ./zelta status [--json] [--watch]
Shows reader, state, protocol, card, ATR, agent, session, counts and log file.
  --json   one object on one line, for programs
  --watch  show it again whenever it changes, until Ctrl-C
Exit code 1: no reader is up, or its agent does not answer."
}

for word in "$@"; do
  case "$word" in
    --json | --watch) ;;
    *) help_or_die status "$word" ;;
  esac
done

need_up
program=$ZELTA_BUILD_DIR/bin/zelta-status
[ -x "$program" ] || die "zelta-status is not built; ./zelta up builds it"
use_running_reader
become_root "to ask the agent" \
  env ${PCSCLITE_CSOCK_NAME:+"PCSCLITE_CSOCK_NAME=$PCSCLITE_CSOCK_NAME"} \
  "ZELTA_PROGRAM_DATA=$ZELTA_RUN_DIR/data" "$program" --control "$ZELTA_RUN_DIR/agent.ctl" "$@"
