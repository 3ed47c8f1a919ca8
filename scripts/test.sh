#!/usr/bin/env bash
# Installs what the tests need, builds, runs everything.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOF'
Usage: ./zelta test [OPTION...]

Installs what the tests need, builds, runs the whole suite and prints "N passed, N failed".

  --preset NAME     run this preset's suite only; may be repeated (release, debug, asan-ubsan, tsan,
                    clang); default: release
  --sanitizers      the default and the suites under asan-ubsan and tsan
  --filter REGEX    only tests whose names match
  -h, --help        this text
EOF
}

presets=()
filter=()
while [ $# -gt 0 ]; do
  case "$1" in
    --preset)
      [ $# -ge 2 ] || die_usage "--preset needs a name"
      presets+=("$2")
      shift
      ;;
    --sanitizers) presets+=(release asan-ubsan tsan) ;;
    --filter)
      [ $# -ge 2 ] || die_usage "--filter needs a regular expression"
      filter=(--tests-regex "$2")
      shift
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    *) die_usage "test takes no '$1'; see ./zelta test --help" ;;
  esac
  shift
done
[ ${#presets[@]} -gt 0 ] || presets=(release)

need_packages "${BUILD_PACKAGES[@]}" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}"

passed=0
failed=0
# run_suite PRESET: adds what CTest counted.
run_suite() {
  local preset=$1 log summary total bad
  log=$(mktemp)
  build_preset "$preset"
  step "Testing ($preset)"
  (cd "$ZELTA_ROOT" && as_root "to run pcscd in mount namespaces and clients as other users" \
    ctest --preset "$preset" "${filter[@]}") 2>&1 | tee "$log" || true
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" || true)
  rm -f "$log"
  [ -n "$summary" ] || die "the $preset suite ran no tests"
  bad=$(awk '{ print $4 }' <<<"$summary")
  total=$(awk '{ print $NF }' <<<"$summary")
  passed=$((passed + total - bad))
  failed=$((failed + bad))
}

for preset in "${presets[@]}"; do run_suite "$preset"; done
printf '%d passed, %d failed\n' "$passed" "$failed"
[ "$failed" -eq 0 ]
