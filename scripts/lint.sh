#!/usr/bin/env bash
# Format, clang's warnings with thread-safety analysis, clang-tidy and shellcheck.
set -euo pipefail
cd "$(dirname "$0")/.."
for tool in clang++ clang-tidy clang-format shellcheck; do
  command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done
scripts/format.sh --check
git ls-files -z 'zelta' '*.sh' '.ci/run' 'packaging/debian/p*' | xargs -0 shellcheck -x
cmake --preset clang >/dev/null
cmake --build --preset clang
git ls-files -z '*.cpp' ':!*_win32.cpp' ':!benchmarks' ':!fuzz' |
  xargs -0 -n 8 -P "$(nproc)" clang-tidy -p build-clang --quiet
