#!/bin/sh
# Runs pcscd with the reader and nothing else, beside any other pcscd of the machine. As root.
#
#   private_pcscd.sh FOLDER HANDLER [PCSCD-OPTION...]
#
# FOLDER gets everything that pcscd and the driver leave behind; HANDLER is libifdzelta.so. Where
# FOLDER/reader.conf.d has files already they are taken as they are. The process becomes pcscd, so
# its process id is this one's. Then
#   clients find it with   PCSCLITE_CSOCK_NAME=FOLDER/run/pcscd/pcscd.comm
#   an agent finds it with ZELTA_PIPE_ROOT=FOLDER/pipe
#   the driver's log is in FOLDER/data/Vornhalt/ZeltaAgent/logs
# ZELTA_MODULE, ZELTA_REGISTRY and the like are the caller's to set; PCSCD_PRELOAD names a library
# that pcscd alone is to load first.
set -eu
folder=$1
handler=$2
shift 2

mkdir -p "$folder/run/pcscd" "$folder/pipe" "$folder/reader.conf.d" \
  "$folder/data/Vornhalt/ZeltaAgent/logs"
rm -f "$folder/run/pcscd/pcscd.comm" "$folder/run/pcscd/pcscd.pid"
if [ -z "$(ls -A "$folder/reader.conf.d")" ]; then
  cat >"$folder/reader.conf.d/zelta" <<END
FRIENDLYNAME "Zelta Virtual SmartCard Reader"
DEVICENAME zelta:0
LIBPATH $handler
END
fi
: "${ZELTA_REGISTRY:=$folder/registry.reg}"
export ZELTA_PIPE_ROOT="$folder/pipe" ZELTA_PROGRAM_DATA="$folder/data" ZELTA_REGISTRY

# shellcheck disable=SC2016  # expanded by the inner shell
exec unshare --mount --propagation private sh -c '
  mount --bind "$1/run" /run
  configuration=$1/reader.conf.d
  shift
  if [ -n "${PCSCD_PRELOAD:-}" ]; then export LD_PRELOAD="$PCSCD_PRELOAD"; fi
  exec pcscd --foreground --config "$configuration" "$@"
' sh "$folder" "$@"
