#!/usr/bin/env bash
# Shows and follows the driver's logs: those of the running reader, else the system's.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

program=$ZELTA_BUILD_DIR/bin/zelta-logs
[ -x "$program" ] || die "zelta-logs is not built; ./zelta up builds it"
if is_up && [ -z "${ZELTA_PROGRAM_DATA:-}" ]; then
  need_up
  export ZELTA_PROGRAM_DATA=$ZELTA_RUN_DIR/data
fi
exec "$program" "$@"
