#!/usr/bin/env bash
# Runs the checks, each as its own stage, and reports their times.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

STAGES=(format layers shellcheck test fuzz soak tsan asan-ubsan tidy clang tidy-tests)
# The folders whose classes are used by several threads.
THREADED=(reader agent_link driver host pcsc agent platform)
# CI has 50 minutes on two cores. The last stage takes 20 and begins by then or not at all.
LAST_BEGINS=$((28 * 60)) # seconds

usage() {
  cat <<EOT
Usage: ./zelta check [OPTION...]

Installs what the checks need, runs them, and prints the time of each and "N
passed, N failed". A stage that fails does not keep the later ones from running.

  format        clang-format would change nothing
  layers        no source includes what its layer may not
  shellcheck    the scripts
  test          ./zelta test: the release suite, the Windows suite under Wine
  fuzz          each fuzzer for 20 seconds
  soak          ./zelta soak for two minutes, with a seed that it prints
  tsan          the suite under the thread sanitizer, but for what runs pcscd
  asan-ubsan    the same under the address and undefined-behaviour sanitizers
  tidy          clang-tidy on the product's sources
  clang         clang builds everything, with thread-safety analysis
  tidy-tests    clang-tidy on the sources of tests, benchmarks and fuzzers

  --quick       as CI runs them: the sanitizers look at the tests of
                ${THREADED[*]} only,
                and tidy-tests is left out if it is not reached within $((LAST_BEGINS / 60))
                minutes
  --stage NAME  run this stage only; may be repeated
  -h, --help    this text
EOT
}

stages=()
quick=
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --stage)
      [ $# -ge 2 ] || die_usage "--stage needs a name"
      [[ " ${STAGES[*]} " == *" $2 "* ]] || die_usage "there is no stage '$2'"
      stages+=("$2")
      shift
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    *) die_usage "check takes no '$1'; see ./zelta check --help" ;;
  esac
  shift
done
[ ${#stages[@]} -gt 0 ] || stages=("${STAGES[@]}")

cd "$ZELTA_ROOT"
sanitized=()
if [ -n "$quick" ]; then
  for folder in "${THREADED[@]}"; do sanitized+=(--folder "$folder"); done
fi

# run_stage NAME
run_stage() {
  case "$1" in
    format) scripts/format.sh --check ;;
    layers) cmake -DSOURCE="$ZELTA_ROOT" -P cmake/CheckLayers.cmake ;;
    shellcheck) git ls-files -z zelta '*.sh' .ci/run packaging/zelta 'packaging/debian/*.p[or]*' |
      xargs -0 shellcheck -x ;;
    test) ./zelta test ;;
    soak) ./zelta soak 2 ;;
    clang) build_preset clang ;;
    fuzz) scripts/fuzz.sh ;;
    asan-ubsan | tsan) ./zelta test --preset "$1" "${sanitized[@]}" ;;
    tidy) scripts/lint.sh --product ;;
    tidy-tests) scripts/lint.sh --tests ;;
  esac
}

for stage in "${stages[@]}"; do
  case "$stage" in test | soak | tsan | asan-ubsan) ask_root "to run pcscd in the tests" ;; esac
done
need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${WINDOWS_PACKAGES[@]}" "${LINT_PACKAGES[@]}"
make_work
log=$WORK/stage.log
passed=0
failed=0
summary=()
failures=()
# failure_of NAME: the failed tests in the stage's log, otherwise the log's end.
failure_of() {
  printf '==> Stage %s failed\n' "$1"
  if grep -q '^==> Failed tests$' "$log"; then
    sed '1,/^==> Failed tests$/d; $d' "$log"
  else
    tail -n 40 "$log"
  fi
}
# note_stage NAME RESULT SECONDS: adds up the suites' counts; other stages count as one.
note_stage() {
  local name=$1 result=$2 seconds=$3 good=1 bad=0 verdict=passed
  if [[ $(tail -n 1 "$log") =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]]; then
    good=${BASH_REMATCH[1]}
    bad=${BASH_REMATCH[2]}
    verdict="$good passed, $bad failed"
  fi
  if [ "$result" -ne 0 ] && [ "$bad" -eq 0 ]; then
    [ "$good" -gt 1 ] || good=0
    bad=1
    verdict=failed
  fi
  passed=$((passed + good))
  failed=$((failed + bad))
  [ "$bad" -eq 0 ] || failures+=("$(failure_of "$name")")
  summary+=("$(printf 'Stage %-11s %5d s  %s' "$name" "$seconds" "$verdict")")
  say "${summary[-1]}"
}

for stage in "${stages[@]}"; do
  if [ -n "$quick" ] && [ "$stage" = tidy-tests ] && [ "$SECONDS" -gt "$LAST_BEGINS" ]; then
    summary+=("$(printf 'Stage %-11s     - s  left out, there is no time for it' "$stage")")
    continue
  fi
  step "Stage $stage"
  begin=$SECONDS
  result=0
  # A failing stage exits its own subshell only.
  (run_stage "$stage") 2>&1 | tee -i "$log" || result=$?
  note_stage "$stage" "$result" $((SECONDS - begin))
done

[ ${#failures[@]} -eq 0 ] || printf '%s\n' "${failures[@]}"
step "Stages"
printf '%s\n' "${summary[@]}"
say "Time: $((SECONDS / 60)) min $((SECONDS % 60)) s"
printf '%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
