#!/usr/bin/env bash
# Brings the reader up under pcscd with an emulated card.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOF'
Usage: ./zelta up [--check]

Installs packages, builds, makes a demo card (three RSA 2048 certificates, PIN
12345678), starts the agent and pcscd with the reader, shows reader, ATR and
certificates and stays until Ctrl-C.

  --check      sign with every key, verify the signatures, and end (exit code 0:
               all good)
  -h, --help   this text
EOF
}

check=no
running_only=no
for argument in "$@"; do
  case "$argument" in
    --check) check=yes ;;
    --run-only) running_only=yes ;;  # under sudo, after packages and build
    *) help_or_die up "$argument" ;;
  esac
done

if [ "$running_only" = no ]; then
  ask_root "to run pcscd and the agent with the reader"
  need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}"
  build_preset release zelta_vsc ifdzelta zelta-agent zelta-logs zelta-status zelta-trace
fi
if [ "$(id -u)" -ne 0 ]; then
  say "Root is needed to run pcscd and the agent with the reader: sudo $0 --run-only"
  end_work
  exec sudo --preserve-env=ZELTA_RUN_DIR,ZELTA_BUILD_DIR "$0" --run-only "$@"
fi

readonly PIN=12345678
readonly CHECK=$check
readonly LOGS=$ZELTA_RUN_DIR/data/Vornhalt/ZeltaAgent/logs
own_run_pcscd=no
made_run_pcscd=no

# Ends a process that this script started and waits for it. pcscd can lose a signal that arrives
# just before it waits for signals, so it is sent again.
end_process() {
  local pid=$1
  for _ in TERM TERM TERM TERM; do
    kill -TERM "$pid" 2>/dev/null || break
    timeout 2.5 tail --pid="$pid" -f /dev/null && break
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

clean_up() {
  local code=$? pid
  trap '' INT TERM
  trap - EXIT
  end_work
  echo "going down" >"$ZELTA_RUN_DIR/stage"
  case "$code" in 0 | 130 | 143) ;; *) show_logs ;; esac
  # Uses the shell's own list, last process first: an interruption may come before a variable has a
  # process's id.
  for pid in $(jobs -p | tac); do end_process "$pid"; done
  rm -rf "$ZELTA_RUN_DIR"
  # The next pcscd would take the files of a killed one for the system's.
  if [ "$own_run_pcscd" = yes ]; then rm -f /run/pcscd/pcscd.comm /run/pcscd/pcscd.pid; fi
  if [ "$made_run_pcscd" = yes ]; then rm -rf /run/pcscd; fi
  exit "$code"
}

show_logs() {
  local log
  for log in "$ZELTA_RUN_DIR/agent.log" "$ZELTA_RUN_DIR/pcscd.log" "$(newest_log "$LOGS")"; do
    [ -s "$log" ] || continue
    printf -- '--- %s\n' "$log" >&2
    tail -n 20 "$log" >&2
  done
}

# stage WHAT: the current step, which `status` shows.
stage() {
  step "$1"
  echo "still coming up ($1)" >"$ZELTA_RUN_DIR/stage"
}

prepare_run_dir() {
  is_up && die "already up (process $(cat "$ZELTA_RUN_DIR/up.pid")); ./zelta down ends it"
  # Only a folder of ours is emptied.
  if [ -e "$ZELTA_RUN_DIR/up.pid" ]; then
    rm -rf "$ZELTA_RUN_DIR"
  elif [ -e "$ZELTA_RUN_DIR" ]; then
    rmdir "$ZELTA_RUN_DIR" 2>/dev/null ||
      die "$ZELTA_RUN_DIR is not empty and not of ./zelta up; set ZELTA_RUN_DIR to another folder"
  fi
  mkdir -p "$ZELTA_RUN_DIR"
  chmod 0755 "$ZELTA_RUN_DIR"
  # Locked while any of these processes runs: `down` waits for it. If another `up` started at the
  # same moment has the lock, it also has the folder.
  exec {lock}>>"$ZELTA_RUN_DIR/up.pid"
  flock --nonblock "$lock" || die "another ./zelta up is coming up"
  trap clean_up EXIT
  chmod 0644 "$ZELTA_RUN_DIR/up.pid"
  stage "Making the demo card"
  echo $$ >&"$lock"
  mkdir -p "$LOGS" "$ZELTA_RUN_DIR/reader.conf.d"
  # A log is readable by its owner and by the group of the user who called sudo.
  chgrp "${SUDO_GID:-0}" "$LOGS"
  chmod 2750 "$LOGS"
  # pcscd accepts few characters in a path; the checkout's path may have others.
  ln -s "$ZELTA_BUILD_DIR/lib" "$ZELTA_RUN_DIR/lib"
  printf '%s' "$PIN" >"$ZELTA_RUN_DIR/pin"
  chmod 0600 "$ZELTA_RUN_DIR/pin"
  cat >"$ZELTA_RUN_DIR/reader.conf.d/zelta" <<EOF
FRIENDLYNAME "Zelta Virtual SmartCard Reader"
DEVICENAME zelta:0
LIBPATH $ZELTA_RUN_DIR/lib/libifdzelta.so
EOF
  cat >"$ZELTA_RUN_DIR/registry.reg" <<'EOF'
Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SOFTWARE\Policies\Vornhalt\Zelta\zelta_admin]
"zelta.event_filter_mode"=dword:00000002

[HKEY_LOCAL_MACHINE\SOFTWARE\Vornhalt\ZeltaAgent]
"ZeltaLogRotationTime"="60"
EOF
  export ZELTA_PIPE_ROOT=$ZELTA_RUN_DIR/pipe
  export ZELTA_PROGRAM_DATA=$ZELTA_RUN_DIR/data
  export ZELTA_REGISTRY=$ZELTA_RUN_DIR/registry.reg
  export ZELTA_MODULE=$ZELTA_BUILD_DIR/lib/libzelta_vsc.so
}

start_agent() {
  "$ZELTA_BUILD_DIR/bin/zelta-agent" --backend emulated --db "$ZELTA_RUN_DIR/card" \
    --pin-file "$ZELTA_RUN_DIR/pin" --control "$ZELTA_RUN_DIR/agent.ctl" \
    >"$ZELTA_RUN_DIR/agent.log" 2>&1 &
  agent_pid=$!
}

# Starts a separate pcscd: in the system's place if that is free, else in a private mount namespace
# with its own socket.
start_pcscd() {
  local options=(--foreground --config "$ZELTA_RUN_DIR/reader.conf.d")
  if [ -S /run/pcscd/pcscd.comm ]; then
    unshare --mount true 2>/dev/null ||
      die "a pcscd runs already, and this system does not permit a second one beside it (no mounts" \
        "are possible here); end the first: sudo systemctl stop pcscd.socket pcscd.service"
    mkdir -p "$ZELTA_RUN_DIR/pcscd"
    echo "$ZELTA_RUN_DIR/pcscd/pcscd.comm" >"$ZELTA_RUN_DIR/pcscd.socket"
    # shellcheck disable=SC2016  # expanded by the inner shell
    unshare --mount sh -c 'mount --make-rprivate / && mount --bind "$0" /run/pcscd && exec "$@"' \
      "$ZELTA_RUN_DIR/pcscd" pcscd "${options[@]}" >"$ZELTA_RUN_DIR/pcscd.log" 2>&1 &
  else
    own_run_pcscd=yes
    [ -d /run/pcscd ] || made_run_pcscd=yes
    echo /run/pcscd/pcscd.comm >"$ZELTA_RUN_DIR/pcscd.socket"
    pcscd "${options[@]}" >"$ZELTA_RUN_DIR/pcscd.log" 2>&1 &
  fi
  pcscd_pid=$!
  use_running_reader
  local attempt
  for ((attempt = 0; attempt < 100; ++attempt)); do
    [ -S "$PCSCLITE_CSOCK_NAME" ] && return
    kill -0 "$pcscd_pid" 2>/dev/null || die "pcscd ended at once"
    sleep 0.1
  done
  die "pcscd did not open its socket after $attempt attempts"
}

# Returns when a card is in; `opensc-tool --wait` would wait for the next one.
wait_for_card() {
  local attempt
  # No command substitution: bash loses a Ctrl-C that comes during one.
  for ((attempt = 0; attempt < 150; ++attempt)); do
    opensc-tool --atr >"$ZELTA_RUN_DIR/wait.log" 2>&1 && return
    sleep 0.2
  done
  die "no card after $attempt attempts: $(tail -n 1 "$ZELTA_RUN_DIR/wait.log")"
}

show_card() {
  stage "Waiting for the card"
  wait_for_card
  say "Reader: $(opensc-tool --list-readers | sed -n 's/^ *0 *Yes *//p')"
  say "ATR:    $(opensc-tool --atr 2>/dev/null)"
  say "Card:   $(opensc-tool --name 2>/dev/null | tail -n 1)"
  step "Certificates on the card"
  pkcs11-tool --module "$(pkcs11_module)" --list-objects --type cert 2>/dev/null ||
    die "the certificates could not be read"
}

hints() {
  local variable=
  if [ "$PCSCLITE_CSOCK_NAME" != /run/pcscd/pcscd.comm ]; then
    variable="export PCSCLITE_CSOCK_NAME=$PCSCLITE_CSOCK_NAME"
    cat <<EOF

A pcscd of the system is running, so this reader has one of its own. In other terminals, first:
  $variable
To add the reader to the system's pcscd instead, install the package (docs/operation.md).
EOF
  fi
  cat <<EOF

The reader is up. The card's PIN is $PIN. Try, in another terminal:
  echo hello | pkcs11-tool --login --pin $PIN --sign --id 0001 -m SHA256-RSA-PKCS -o signature
  ssh-keygen -D $(pkcs11_module)
  pcsc_scan
  ./zelta status      ./zelta trace       ./zelta logs
  ./zelta card remove ./zelta card insert
Ctrl-C ends it.
EOF
}

# Sourced for pkcs11_module and check_signatures.
# shellcheck source=scripts/signatures.sh
source "$ZELTA_ROOT/scripts/signatures.sh"

prepare_run_dir
"$ZELTA_ROOT/scripts/make-demo-db.sh" "$ZELTA_RUN_DIR/card" "$PIN" >"$ZELTA_RUN_DIR/db.log" 2>&1 ||
  die "the demo card could not be made: $(tail -n 3 "$ZELTA_RUN_DIR/db.log")"
stage "Starting the agent and pcscd"
start_agent
start_pcscd
show_card
rm -f "$ZELTA_RUN_DIR/stage"
if [ "$CHECK" = yes ]; then
  step "Signing with every key and verifying"
  check_signatures "$PIN" "$ZELTA_RUN_DIR"
  say "All signatures are good."
  exit 0
fi
trap 'say; say "Ending the agent and pcscd."; exit 0' INT TERM
hints
wait -n "$agent_pid" "$pcscd_pid" || true
if kill -0 "$agent_pid" 2>/dev/null; then die "pcscd has ended"; else die "the agent has ended"; fi
