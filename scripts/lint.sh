#!/usr/bin/env bash
# clang-tidy, in parallel.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: scripts/lint.sh [--product | --tests | FILE...]

Runs clang-tidy on every source, those for Windows included, or only on those
that are named.

  --product      no tests, benchmarks or fuzzers
  --tests        these only
  -h, --help     this text
EOT
}

cd "$ZELTA_ROOT"
case "${1:-}" in
  -h | --help)
    usage
    exit 0
    ;;
  --product)
    mapfile -t sources < <(git ls-files '*.cpp' ':!tests/' ':!benchmarks/' ':!fuzz/')
    ;;
  --tests)
    mapfile -t sources < <(git ls-files 'tests/*.cpp' 'benchmarks/*.cpp' 'fuzz/*.cpp')
    ;;
  -*) die_usage "lint takes no '$1'; see scripts/lint.sh --help" ;;
  "") mapfile -t sources < <(git ls-files '*.cpp') ;;
  *) mapfile -t sources < <(realpath --relative-to=. "$@") ;;
esac

need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${WINDOWS_PACKAGES[@]}" \
  "${LINT_PACKAGES[@]}"
# The header with the version is made by a build; the build's other results are not needed.
CONFIGURE_OPTIONS=(-DZELTA_BUILD_BENCHMARKS=ON)
build_preset clang zelta_build_version
CONFIGURE_OPTIONS=()
(configure windows-lint) >/dev/null

# The folders that the compiler for Windows searches by itself. clang does not know gnu_printf.
gcc=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")
windows=(--extra-arg=--target=x86_64-w64-mingw32 --extra-arg=-nostdinc++ --extra-arg=-Wno-ignored-attributes)
for folder in c++ c++/x86_64-w64-mingw32 c++/backward; do
  windows+=("--extra-arg=-isystem$gcc/include/$folder")
done

# tidy FOLDER OPTION...: runs it on the sources that a folder lists.
tidy() {
  local folder=$1
  shift
  # Its standard error only counts the warnings that it hides.
  # shellcheck disable=SC2016  # the inner shell expands it
  xargs -r -n 1 -P "$(nproc)" sh -c 'clang-tidy --quiet "$@" 2>/dev/null; result=$?
    echo >>"$0"; exit "$result"' "$WORK/done" -p "$folder" "$@" <"$folder/sources"
}
# tidy_progress FILE SECONDS: a line for each checked source.
tidy_progress() {
  local count total=${#sources[@]}
  count=$(wc -l <"$1")
  printf '%d of %d sources%s' "$count" "$total" "$(eta $((100 * count / total)) "$2")"
}

make_work
/usr/bin/python3 - "$WORK" "$(build_folder clang)" "$(build_folder windows-lint)" \
  "${sources[@]}" <<'PYTHON'
# Sorts the sources by the build that compiles them and gives clang that build's options in its own
# form.
import json, os, sys
gcc_only = {"-fno-keep-inline-dllexport", "-Wno-stringop-overflow"}
work, *builds = sys.argv[1:4]
left = [os.path.abspath(source) for source in sys.argv[4:]]
for system, build in zip(("linux", "windows"), builds):
    with open(os.path.join(build, "compile_commands.json")) as file:
        commands = [c for c in json.load(file) if c["file"].endswith((".cpp", ".cc"))]
    for command in commands:
        words = command["command"].split(" ")
        while not os.path.basename(words[0]).endswith(("++", "++-posix")):  # a launcher
            del words[0]
        command["command"] = " ".join(word for word in words if word not in gcc_only)
    os.mkdir(os.path.join(work, system))
    with open(os.path.join(work, system, "compile_commands.json"), "w") as file:
        json.dump(commands, file)
    compiled = {os.path.realpath(command["file"]) for command in commands}
    with open(os.path.join(work, system, "sources"), "w") as file:
        file.writelines(source + "\n" for source in left if source in compiled)
    left = [source for source in left if source not in compiled]
with open(os.path.join(work, "left"), "w") as file:
    file.writelines(source + "\n" for source in left)
PYTHON
failed=0
step "Looking at ${#sources[@]} sources"
: >"$WORK/done"
follow tidy_progress "$WORK/done" &
follower=$!
tidy "$WORK/linux" || failed=1
tidy "$WORK/windows" "${windows[@]}" || failed=1
# Neither build compiles the fuzzers and the examples. They need no options but these.
while read -r source; do
  case "$source" in
    "$ZELTA_ROOT"/tests/precompiled.cpp) ;; # nothing but a comment
    "$ZELTA_ROOT"/fuzz/* | "$ZELTA_ROOT"/examples/*)
      clang-tidy --quiet "$source" -- -std=c++17 "-I$ZELTA_ROOT" "-I$ZELTA_ROOT/agent/include" \
        2>/dev/null || failed=1
      ;;
    *)
      say "$source: no build compiles it" >&2
      failed=1
      ;;
  esac
done <"$WORK/left"
end_follower
say "${#sources[@]} sources looked at"
exit "$failed"
