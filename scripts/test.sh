#!/usr/bin/env bash
# Installs what the tests need, builds, runs everything.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOF'
Usage: ./zelta test [OPTION...]

Installs what the tests need, builds, runs the whole suite and prints "N passed, N failed".

  --preset NAME     run this preset's suite only; may be repeated (release, windows, debug, clang,
                    asan-ubsan, tsan); default: release and windows, the latter under Wine
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
need_packages "${packages[@]}"

log=$(mktemp)
clean_up() {
  rm -f "$log"
  # A run that is broken off leaves its Wine prefix to be removed here.
  [[ " ${presets[*]} " != *" windows "* ]] ||
    "$ZELTA_ROOT/tests/wine_prefix.sh" remove "$(build_folder windows)/wine-prefix" || true
}
trap clean_up EXIT

# run_ctest PRESET: the suite, as root if it needs that.
run_ctest() {
  local arguments=(--preset "$1" --test-dir "$(build_folder "$1")" "${filter[@]}")
  cd "$ZELTA_ROOT"
  if [ "$1" = windows ]; then
    ctest "${arguments[@]}"
  else
    as_root "to run pcscd in mount namespaces and clients as other users" ctest "${arguments[@]}"
    [ "$(id -u)" -eq 0 ] ||
      as_root "to give the build folder back" chown -R "$(id -u):$(id -g)" "$(build_folder "$1")"
  fi
}

passed=0
failed=0
# run_suite PRESET: adds what CTest counted.
run_suite() {
  local preset=$1 summary total bad
  # The benchmarks are built with the release, so that they keep up with the code.
  CONFIGURE_OPTIONS=()
  [ "$preset" != release ] || CONFIGURE_OPTIONS=(-DZELTA_BUILD_BENCHMARKS=ON)
  build_preset "$preset" "${targets[@]}"
  step "Testing ($preset)"
  (run_ctest "$preset") 2>&1 | tee "$log" || true
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" || true)
  if [ -z "$summary" ]; then
    [ ${#filter[@]} -gt 0 ] || die "the $preset suite ran no tests"
    return 0
  fi
  bad=$(awk '{ print $4 }' <<<"$summary")
  total=$(awk '{ print $NF }' <<<"$summary")
  passed=$((passed + total - bad))
  failed=$((failed + bad))
}

for preset in "${presets[@]}"; do run_suite "$preset"; done
[ $((passed + failed)) -gt 0 ] || die "no tests were run"
printf '%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
