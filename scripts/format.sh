#!/usr/bin/env bash
# Formats the sources; --check only reports.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=-i
[ "${1:-}" = --check ] && mode="--dry-run --Werror"
# shellcheck disable=SC2086  # two words
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format $mode
