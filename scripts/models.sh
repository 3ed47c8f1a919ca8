#!/usr/bin/env bash
# Checks the models of the driver's concurrency over all interleavings, and that each of their
# mutations is caught.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: ./zelta models [OPTION...]

Installs spin and has it search every state of the models in models/: assertions
and end states, and what the model states in temporal logic. Prints the states
of each search. Then breaks each model in the ways that its head names, each of
which has to be found.

  --jobs N       searches at a time; default: one for each processor
  --no-install   does nothing if spin is not there
  -h, --help     this text

Exit code 1: a fault in a model, or one that was put in and not found.
Exit code 77: spin is not there.
EOT
}

jobs=$(nproc)
install=1
while [ $# -gt 0 ]; do
  case "$1" in
    --jobs)
      [[ "${2:-}" =~ ^[1-9][0-9]?$ ]] || die_usage "--jobs needs a number above 0"
      jobs=$2
      shift
      ;;
    --no-install) install= ;;
    *) help_or_die models "$1" ;;
  esac
  shift
done
[ -z "$install" ] || need_packages "${MODEL_PACKAGES[@]}"
if ! command -v spin >/dev/null; then
  say "Skipped: spin is not installed"
  exit 77
fi

memory=1000 # megabytes that a search may use
depth=100000
work=$(mktemp -d)
trap 'wait; rm -rf "$work"' EXIT

# generate FOLDER MODEL DEFINITION...: the search's source.
generate() {
  local folder=$1 model=$2
  shift 2
  mkdir "$folder"
  cp "$model" "$folder/model.pml"
  (cd "$folder" && spin -a "${@/#/-D}" model.pml)
}

# search FOLDER OPTIMIZATION safety|ltl: builds and runs it.
search() {
  local folder=$1 optimization=$2 kind=$3
  local build=(-DCOLLAPSE "-DMEMLIM=$memory") run=(-n "-m$depth")
  if [ "$kind" = safety ]; then
    build+=(-DSAFETY -DNOCLAIM)
  else
    run+=(-a)
  fi
  cd "$folder"
  gcc "$optimization" -w "${build[@]}" -o pan pan.c && ./pan "${run[@]}"
}

# number BEFORE AFTER FILE: the number between the two texts, if it is there.
number() { sed -nE "s/^(.* )?$1([0-9.e+]+)$2.*/\2/p" "$3" | head -n 1; }

# is_whole LOG: whether a search went through every state.
is_whole() {
  grep -q '^State-vector .* errors:' "$1" &&
    ! grep -qE 'max search depth too small|Search not completed|out of memory|reached -DMEMLIM' "$1"
}

# check_variant NAME MODEL VARIANT safety|ltl: the model as it is.
# check_mutation NAME MODEL VARIANT MUTATION: the model with the mutation.
# Both leave a line in NAME.result and the search's output in NAME.log.
check_variant() {
  local model=$2 variant=$3 kind=$4 folder=$work/$1 verdict=FAILED
  {
    generate "$folder.search" "$model" "$variant" && (search "$folder.search" -Og "$kind")
  } >"$folder.log" 2>&1 || true
  if is_whole "$folder.log" && grep -q 'errors: 0$' "$folder.log"; then verdict=passed; fi
  printf '%-13s %-8s %-31s %9s states %5s s  %s\n' "$(basename "$model" .pml)" "$variant" "$kind" \
    "$(number '' ' states, stored' "$folder.log")" \
    "$(number 'elapsed time ' ' seconds' "$folder.log")" "$verdict" >"$folder.result"
}
check_mutation() {
  local model=$2 variant=$3 mutation=$4 folder=$work/$1 verdict='FAILED: not found'
  {
    generate "$folder.search" "$model" "$variant" "$mutation" && (search "$folder.search" -O0 safety)
  } >"$folder.log" 2>&1 || true
  if grep -qE 'errors: [1-9]' "$folder.log"; then verdict=found; fi
  printf '%-13s %-8s %-31s %s\n' "$(basename "$model" .pml)" "$variant" "$mutation" "$verdict" \
    >"$folder.result"
}

# start CHECK ARGUMENT...: as soon as there is a processor for it.
started=0
start() {
  local check=$1
  shift
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  started=$((started + 1))
  "$check" "$(printf '%03d' "$started")" "$@" &
}

# The head of a model has the lines "variant: NAME [ltl]" and "mutation: VARIANT NAME ...".
for model in "$ZELTA_ROOT"/models/*.pml; do
  while read -r _ _ variant ltl; do
    start check_variant "$model" "$variant" safety
    [ "$ltl" != ltl ] || start check_variant "$model" "$variant" ltl
  done < <(grep '^ \* variant: ' "$model")
done
variants=$started
for model in "$ZELTA_ROOT"/models/*.pml; do
  while read -r _ _ variant mutation _; do
    start check_mutation "$model" "$variant" "$mutation"
  done < <(grep '^ \* mutation: ' "$model")
done
wait
if [ "$variants" -eq 0 ] || [ "$started" -eq "$variants" ]; then
  die "the models name nothing to check"
fi

failed=0
for result in "$work"/*.result; do
  cat "$result"
  grep -q FAILED "$result" || continue
  failed=$((failed + 1))
  tail -n 40 "${result%.result}.log" >&2
done
printf '%d passed, %d failed\n' $((started - failed)) "$failed"
[ "$failed" -eq 0 ]
