#!/usr/bin/env bash
# Installs what the tests need, builds, runs everything.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOF'
Usage: ./zelta test [OPTION...]

Installs what the tests need, builds, runs the whole suite and prints "N passed,
N failed". Tests that this machine does not let run are counted before, with the
reason.

  --preset NAME     run this preset's suite only; may be repeated (release,
                    windows, debug, clang, asan-ubsan, tsan); default: release
                    and windows, the latter under Wine
  --folder NAME     build and run only the tests in tests/NAME; may be repeated
  --filter REGEX    only tests whose names match
  -h, --help        this text
EOF
}

presets=()
folders=()
filter=()
while [ $# -gt 0 ]; do
  case "$1" in
    --preset)
      need_value "a name" "$@"
      presets+=("$2")
      shift
      ;;
    --folder)
      [ $# -ge 2 ] || die_usage "--folder needs a name"
      [ -e "$ZELTA_ROOT/tests/$2/CMakeLists.txt" ] || die_usage "there is no folder tests/$2"
      folders+=("$2")
      shift
      ;;
    --filter)
      need_value "a regular expression" "$@"
      filter=(--tests-regex "$2")
      shift
      ;;
    *) help_or_die test "$1" ;;
  esac
  shift
done
[ ${#presets[@]} -gt 0 ] || presets=(release windows)
for preset in "${presets[@]}"; do
  case "$preset" in
    windows | debug | release | clang | asan-ubsan | tsan) ;;
    *) die_usage "there is no preset '$preset'; see ./zelta test --help" ;;
  esac
done

targets=("${folders[@]/#/tests/}")
targets=("${targets[@]/%//all}")
if [ ${#folders[@]} -gt 0 ]; then
  filter+=(--label-regex "^($(IFS='|'; echo "${folders[*]}"))\$")
fi

packages=("${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}")
[[ " ${presets[*]} " != *" windows "* ]] || packages+=("${WINDOWS_PACKAGES[@]}")
[[ " ${presets[*]} " != *" clang "* ]] || packages+=(clang)
readonly FOR_ROOT="to run pcscd in mount namespaces and clients as other users"
[ "${presets[*]}" = windows ] || ask_root "$FOR_ROOT"
need_packages "${packages[@]}"

make_work
chmod 0711 "$WORK" # for the clients that are other users
log=$WORK/suite.log
# The build of the next preset, which runs on processors that a suite leaves idle: a suite mostly
# waits.
early= # its process group
# begin_early_build PRESET: a failure shows when the preset's turn comes.
begin_early_build() {
  local log=$WORK/early.log
  set_configure_options "$1"
  (configure "$1") >"$log" 2>&1 || return 0
  # Started without the terminal's signals and with idle priority.
  setsid chrt --idle 0 cmake --build "$(build_folder "$1")" --parallel "$(nproc)" \
    ${targets[0]:+--target "${targets[@]}"} </dev/null >>"$log" 2>&1 &
  early=$!
}
end_early_build() {
  # Its process id may have been reused.
  if [ -n "$early" ] && early_build_runs; then
    # Sent more than once: a newly forked shell may lose the signal.
    while early_build_runs; do
      kill -TERM -- "-$early" "$early" 2>/dev/null || true
      sleep 0.1
    done
    while pgrep --runstates D,R,S --pgroup "$early" >/dev/null; do sleep 0.1; done
  fi
  early=
}
early_build_runs() { jobs -rp | grep -qx "$early"; }

lent= # the build folder in which root works
give_back() {
  [ -z "$lent" ] || run_as_root chown -R "$(id -u):$(id -g)" "$lent"
  lent=
}
clean_up() {
  trap '' INT TERM
  end_early_build
  # Removes the Wine prefix of an interrupted run before its folder is removed.
  [[ " ${presets[*]} " != *" windows "* ]] ||
    "$ZELTA_ROOT/tests/wine_prefix.sh" remove "$(build_folder windows)/wine-prefix" || true
  end_work
  give_back
}
trap clean_up EXIT

# run_ctest PRESET: runs the suite, as root if needed. Leftovers of an interrupted test are removed
# with the temporary folder.
run_ctest() {
  local arguments=(--preset "$1" --test-dir "$(build_folder "$1")" "${filter[@]}")
  cd "$ZELTA_ROOT"
  if [ "$1" = windows ]; then
    TMPDIR=$WORK ctest "${arguments[@]}"
  else
    as_root "$FOR_ROOT" env TMPDIR="$WORK" ctest "${arguments[@]}"
  fi
}

# skipped_tests FOLDER: each reason and its number of tests, in a line.
skipped_tests() {
  sed -n -e "s/.* \.\.\. skipped ['\"]\(.*\)['\"]\$/\1/p" -e '/: Skipped$/{n;p}' \
    "$1/Testing/Temporary/LastTest.log" | sort | uniq -c |
    sed 's/^ *\([0-9]*\) \(.*\)/\1 skipped: \2/'
}

# failed_tests PRESET: each failed test with what it printed, so that a log whose beginning was cut
# off still says what failed: GoogleTest's failures, or else the end.
failed_tests() {
  local name
  sed -n '/^The following tests FAILED:/,$s/^\t *[0-9]* - \(.*\) ([^()]*)$/\1/p' "$log" |
    while read -r name; do
      printf '%s (%s)\n' "$name" "$1"
      awk -v "name=$name" -v lines=30 -v half=20 '
        function show(from, to) { for (; from < to; ++from) print "    " text[from] }
        function show_failure(from, to,  left_out) {
          left_out = to - from - 2 * half
          if (left_out <= 0) { show(from, to); return }
          show(from, from + half)
          print "    ... " left_out " lines ..."
          show(to - half, to)
        }
        /^[0-9]+\/[0-9]+ Testing: / { here = substr($0, index($0, ": ") + 2) == name; next }
        !here { next }
        /^Output:$/ { getline; inside = 1; count = shown = running = 0; next }
        /^<end of output>$/ {
          inside = 0
          # If there is no failure, or a test did not end, the program itself has ended.
          if (!shown || running) show(count - shown > lines ? count - lines : shown, count)
        }
        !inside { next }
        /^\[ RUN      \] / { begin = count; running = 1 }
        { text[count++] = $0 }
        /^\[       OK \] / || /^\[  SKIPPED \] / { running = 0 }
        running && /^\[  FAILED  \] / { show_failure(begin, count); shown = count; running = 0 }
        ' "$(build_folder "$1")/Testing/Temporary/LastTest.log"
    done
}

# set_configure_options PRESET: the benchmarks are built with the release, so that they keep up with
# the code.
set_configure_options() {
  CONFIGURE_OPTIONS=()
  [ "$1" != release ] || CONFIGURE_OPTIONS=(-DZELTA_BUILD_BENCHMARKS=ON)
}

passed=0
failed=0
skipped=()
# run_suite PRESET [NEXT-PRESET]: adds what CTest counted.
run_suite() {
  local preset=$1 next=${2:-} summary total bad left_out
  end_early_build
  set_configure_options "$preset"
  build_preset "$preset" "${targets[@]}"
  [ -z "$next" ] || [ "$next" = "$preset" ] || begin_early_build "$next"
  step "Testing ($preset)"
  [ "$preset" = windows ] || [ "$(id -u)" -eq 0 ] || lent=$(build_folder "$preset")
  (run_ctest "$preset") 2>&1 | tee -i "$log" || true
  give_back
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" || true)
  if [ -z "$summary" ]; then
    [ ${#filter[@]} -gt 0 ] || die "the $preset suite ran no tests"
    return 0
  fi
  bad=$(awk '{ print $4 }' <<<"$summary")
  total=$(awk '{ print $NF }' <<<"$summary")
  left_out=$(grep -c ' (Skipped)$' "$log" || true)
  [ "$left_out" -eq 0 ] || mapfile -t -O ${#skipped[@]} skipped < <(skipped_tests "$(build_folder "$preset")")
  passed=$((passed + total - bad - left_out))
  failed=$((failed + bad))
  [ "$bad" -eq 0 ] || failed_tests "$preset" >>"$WORK/failed"
}

for i in "${!presets[@]}"; do run_suite "${presets[i]}" "${presets[i + 1]:-}"; done
[ $((passed + failed)) -gt 0 ] || [ ${#skipped[@]} -gt 0 ] || die "no tests were run"
[ ${#skipped[@]} -eq 0 ] || printf '%s\n' "${skipped[@]}"
if [ -s "$WORK/failed" ]; then
  step "Failed tests"
  cat "$WORK/failed"
fi
printf '%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
