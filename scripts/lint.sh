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
# What is compiled here: not what is for Windows only, nor benchmarks and fuzzers.
/usr/bin/python3 -c '
import json
with open("build-clang/compile_commands.json") as commands:
    print(*sorted({command["file"] for command in json.load(commands)}), sep="\0", end="")
' | xargs -0 -n 8 -P "$(nproc)" clang-tidy -p build-clang --quiet
