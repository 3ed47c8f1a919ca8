# shellcheck shell=bash
# Shared by the project's commands: messages, packages, builds, the running reader's files.

ZELTA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
ZELTA_RUN_DIR=$(realpath --canonicalize-missing "${ZELTA_RUN_DIR:-/run/zelta-up}")
ZELTA_BUILD_DIR=$(realpath --canonicalize-missing "${ZELTA_BUILD_DIR:-$ZELTA_ROOT/build}")
export ZELTA_RUN_DIR ZELTA_BUILD_DIR

# git refuses a checkout that belongs to another user. Here root works in it on that user's behalf.
export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0=$ZELTA_ROOT

# shellcheck source=scripts/packages.sh
source "$ZELTA_ROOT/scripts/packages.sh"

say() { printf '%s\n' "$*"; }
# step WHAT: the command's current step; an interruption names it.
step() {
  doing=$*
  printf '==> %s\n' "$*"
}
die() {
  printf 'zelta: %s\n' "$*" >&2
  exit 1
}
die_usage() {
  printf 'zelta: %s\n' "$*" >&2
  exit 2
}

# The command's current step, and the process that shows its progress.
doing=
follower=
# The command's temporary files; removed when it ends, whoever owns them.
WORK=
make_work() {
  [ -n "$WORK" ] || WORK=$(mktemp -d "${TMPDIR:-/tmp}/zelta.XXXXXX")
}

end_follower() {
  [ -n "$follower" ] || return 0
  # A newly forked shell still has this one's traps, and loses other signals to them.
  kill -KILL "$follower" 2>/dev/null || true
  wait "$follower" 2>/dev/null || true
  follower=
  [ ! -t 1 ] || printf '\r\033[K'
}

end_work() {
  trap '' INT TERM
  end_follower
  [ -n "$WORK" ] || return 0
  # Does not ask for a password again if that has expired.
  rm -rf "$WORK" 2>/dev/null || [ "$(id -u)" -eq 0 ] || sudo -n rm -rf "$WORK" || true
  WORK=
}

# interrupted EXIT-CODE: called when the program in the foreground, which gets the signal too, has
# ended.
interrupted() {
  trap '' INT TERM
  end_follower
  printf '\nzelta: interrupted%s\n' "${doing:+; ended: $doing}" >&2
  exit "$1"
}
trap end_work EXIT
trap 'interrupted 130' INT
trap 'interrupted 143' TERM

# For the loop in which a command reads its options.
# need_value WHAT OPTION [VALUE...]: bad use if the option is the last word.
need_value() {
  [ $# -ge 3 ] || die_usage "$2 needs $1"
}
# help_or_die COMMAND WORD: shows the command's usage for -h and --help; any other word is bad use.
help_or_die() {
  case "$2" in
    -h | --help)
      usage
      exit 0
      ;;
    *) die_usage "$1 takes no '$2'; see ./zelta $1 --help" ;;
  esac
}

zelta_version() {
  sed -n 's/^project(zelta_vsc VERSION \([0-9.]*\).*/\1/p' "$ZELTA_ROOT/CMakeLists.txt"
}

# The package's version: that of the commit's tag, if it has one. A commit after a tag has a higher
# one, a commit before the first tag a lower one than the version to come.
package_version() {
  local tag
  if tag=$(git -C "$ZELTA_ROOT" describe --exact-match --match 'v[0-9]*' 2>/dev/null); then
    printf '%s' "${tag#v}"
  elif tag=$(git -C "$ZELTA_ROOT" describe --abbrev=0 --match 'v[0-9]*' 2>/dev/null); then
    printf '%s+git%s' "${tag#v}" "$(git -C "$ZELTA_ROOT" rev-list --count "$tag"..HEAD)"
  else
    printf '%s~git%s' "$(zelta_version)" "$(git -C "$ZELTA_ROOT" rev-list --count HEAD)"
  fi
}

# Seconds after which sudo's record of the password is renewed.
SUDO_PERIOD=50
root_asked=
root_told= # what for

# Runs until this script, or the program it execs, exits.
keep_sudo() {
  while ! timeout "$SUDO_PERIOD" tail --pid=$$ -f /dev/null; do sudo -n -v || return 0; done
}

# ask_root PURPOSE: has sudo ask for the password, at most once in the whole command.
# Commands that need root late call it first.
ask_root() {
  [ "$(id -u)" -ne 0 ] && [ -z "$root_asked" ] || return 0
  command -v sudo >/dev/null || die "root is needed $1, and there is no sudo: run this as root"
  if ! sudo -n true 2>/dev/null; then
    root_told=$1
    say "Root is needed $1." >&2
    sudo -v || die "root is needed $1, and sudo does not allow it: run this as root"
  fi
  root_asked=yes
  keep_sudo </dev/null >/dev/null 2>&1 &
}

run_as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

tell_root() {
  local purpose=$1
  shift
  ask_root "$purpose"
  [ "$(id -u)" -eq 0 ] || [ "$purpose" = "$root_told" ] ||
    say "Root is needed $purpose: sudo $*" >&2
}
# as_root PURPOSE COMMAND...: runs it as root and says why.
as_root() {
  tell_root "$@"
  shift
  run_as_root "$@"
}
# become_root PURPOSE COMMAND...: the same in this script's place, so that the command gets Ctrl-C.
become_root() {
  tell_root "$@"
  shift
  [ "$(id -u)" -eq 0 ] || set -- sudo "$@"
  exec "$@"
}

# Seconds between two lines of progress if there is no terminal.
PROGRESS_PERIOD=10

# eta PERCENT SECONDS: the remaining time at the same speed.
eta() {
  local left
  [ "$1" -gt 0 ] && [ "$2" -ge 5 ] || return 0
  left=$(($2 * (100 - $1) / $1))
  if [ "$left" -ge 90 ]; then
    printf ', about %d min left' $(((left + 30) / 60))
  else
    printf ', about %d s left' "$left"
  fi
}

# A command's progress, by the last lines of its log and the seconds that it has run.
# build_progress LOG SECONDS: "[ 42%] Building ...", as ninja and make say.
build_progress() {
  local percent
  percent=$(tail -c 100000 "$1" | sed -n 's/^ *\[ *\([0-9]\{1,3\}\)%\].*/\1/p' | tail -n 1)
  [ -n "$percent" ] || percent=0
  printf '%d %% built%s' "$percent" "$(eta "$percent" "$2")"
}
# apt_progress LOG SECONDS: "pmstatus:PACKAGE:PERCENT:TEXT", as apt-get says; dlstatus for downloads.
apt_progress() {
  local line percent
  line=$(grep -aE '^(pm|dl)status:' "$1" | tail -n 1 || true)
  percent=$(cut -d: -f3 <<<"$line")
  percent=${percent%%.*}
  [ -n "$percent" ] || percent=0
  printf '%d %%%s %s' "$percent" "$(eta "$percent" "$2")" "$(cut -d: -f4- <<<"$line")"
}

# follow PROGRESS LOG: shows it in one line on a terminal, else in a line every PROGRESS_PERIOD.
follow() {
  local begun=$SECONDS told=$SECONDS text columns=80
  [ ! -t 1 ] || { columns=$(stty size <&3 | cut -d' ' -f2); } 3>&1
  [ "$columns" -gt 0 ] || columns=80
  while sleep 1 >/dev/null 2>&1 && kill -0 $$ 2>/dev/null; do
    text="    $("$1" "$2" $((SECONDS - begun)))"
    if [ -t 1 ]; then
      printf '\r\033[K%s' "${text:0:columns-1}"
    elif [ $((SECONDS - told)) -ge "$PROGRESS_PERIOD" ]; then
      told=$SECONDS
      say "$text"
    fi
  done
}

# with_progress PROGRESS LOG COMMAND...: the command's output goes to the log.
with_progress() {
  local progress=$1 log=$2 result=0
  shift 2
  : >"$log"
  follow "$progress" "$log" &
  follower=$!
  # In a subshell, so that an interruption is reported here and not in the log.
  ("$@") >"$log" 2>&1 || result=$?
  end_follower
  return "$result"
}

# show_failure LOG: the first error in it and what follows; the log's end if nothing looks like one.
show_failure() {
  local line
  line=$(grep -anEm 1 '^FAILED: |^CMake Error|^E: |^dpkg: error|(^|[: ])error: |: \*\*\* ' "$1" |
    cut -d: -f1 || true)
  if [ -n "$line" ]; then
    tail -n "+$line" "$1" | head -n 60 >&2
  else
    tail -n 60 "$1" >&2
  fi
}

# missing_packages PACKAGE...: the packages that are not installed.
missing_packages() {
  local package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] ||
      printf '%s\n' "$package"
  done
}

# Installs those of the packages that are missing.
need_packages() {
  local missing log
  command -v apt-get >/dev/null || die "the packages are Debian's, and there is no apt-get here"
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -gt 0 ] || return 0
  step "Installing ${#missing[@]} packages: ${missing[*]}"
  ask_root "to install packages"
  make_work
  log=$WORK/install.log
  if ! with_progress apt_progress "$log" run_as_root apt-get -q -o APT::Status-Fd=1 update ||
    ! with_progress apt_progress "$log" run_as_root env DEBIAN_FRONTEND=noninteractive \
      apt-get -q -y -o Dpkg::Use-Pty=0 -o APT::Status-Fd=1 \
      install --no-install-recommends "${missing[@]}"; then
    show_failure "$log"
    die "the packages could not be installed; try: sudo apt-get install ${missing[*]}"
  fi
}

# build_folder PRESET: `build` for the release, `build-<preset>` for the others. ZELTA_BUILD_DIR
# replaces `build`.
build_folder() {
  case "$1" in
    release) printf '%s' "$ZELTA_BUILD_DIR" ;;
    *) printf '%s' "$ZELTA_BUILD_DIR-$1" ;;
  esac
}

# Further options for configuring.
CONFIGURE_OPTIONS=()

# configure PRESET: a folder that was configured with another generator keeps it.
configure() {
  local folder generator
  folder=$(build_folder "$1")
  generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$folder/CMakeCache.txt" 2>/dev/null || true)
  cd "$ZELTA_ROOT" || return
  cmake --preset "$1" -B "$folder" ${generator:+-G "$generator"} "${CONFIGURE_OPTIONS[@]}"
}

# build PRESET [TARGET...]
build() {
  local preset=$1
  shift
  (configure "$preset") &&
    NINJA_STATUS='[%p] ' cmake --build "$(build_folder "$preset")" --parallel "$(nproc)" \
      ${1:+--target "$@"}
}

# build_preset PRESET [TARGET...]: configures and builds; shows its progress and the error.
build_preset() {
  local preset=$1 folder log
  folder=$(build_folder "$preset")
  [ ! -e "$folder" ] || [ -w "$folder" ] ||
    die "$folder belongs to $(stat -c %U "$folder"); take it over (sudo chown -R $(id -un) $folder)" \
      "or set ZELTA_BUILD_DIR to another folder"
  step "Building ($preset)"
  make_work
  log=$WORK/build.log
  with_progress build_progress "$log" build "$@" || {
    show_failure "$log"
    die "the build in $folder failed"
  }
}

# The files of a running reader.
pcscd_socket() { cat "$ZELTA_RUN_DIR/pcscd.socket" 2>/dev/null || true; }
# `up` holds a lock on the file while any of its processes runs.
is_up() {
  [ -e "$ZELTA_RUN_DIR/up.pid" ] && ! flock --shared --nonblock "$ZELTA_RUN_DIR/up.pid" true
}
# The file `stage` names the current step while the reader comes up and goes down.
need_up() {
  is_up || die "no reader is up here; ./zelta up brings one up"
  [ ! -e "$ZELTA_RUN_DIR/stage" ] ||
    die "the reader is $(cat "$ZELTA_RUN_DIR/stage" 2>/dev/null || true); try again in a few seconds"
}
# The environment of programs that use the running reader.
use_running_reader() {
  local socket
  socket=$(pcscd_socket)
  [ -z "$socket" ] || export PCSCLITE_CSOCK_NAME=$socket
}
newest_log() {
  find "$1" -maxdepth 1 -name 'zelta_vsc_*.txt' 2>/dev/null | sort | tail -n 1
}
