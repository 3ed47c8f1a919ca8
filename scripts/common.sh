# shellcheck shell=bash
# What the project's commands share: messages, packages, builds, the running reader's files.

ZELTA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
ZELTA_RUN_DIR=$(realpath --canonicalize-missing "${ZELTA_RUN_DIR:-/run/zelta/up}")
ZELTA_BUILD_DIR=$(realpath --canonicalize-missing "${ZELTA_BUILD_DIR:-$ZELTA_ROOT/build}")
export ZELTA_RUN_DIR ZELTA_BUILD_DIR

# git refuses a checkout of another user's, which root works in here on that user's behalf.
export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0=$ZELTA_ROOT

# shellcheck source=scripts/packages.sh
source "$ZELTA_ROOT/scripts/packages.sh"

say() { printf '%s\n' "$*"; }
step() { printf '==> %s\n' "$*"; }
die() {
  printf 'zelta: %s\n' "$*" >&2
  exit 1
}
die_usage() {
  printf 'zelta: %s\n' "$*" >&2
  exit 2
}

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

# The package's version: that of the commit's tag, if it has one.
package_version() {
  local tag
  if tag=$(git -C "$ZELTA_ROOT" describe --exact-match --match 'v[0-9]*' 2>/dev/null); then
    printf '%s' "${tag#v}"
  else
    printf '%s~git%s' "$(zelta_version)" "$(git -C "$ZELTA_ROOT" rev-list --count HEAD)"
  fi
}

# Runs a command as root and says what for.
as_root() {
  local purpose=$1
  shift
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    say "Root is needed $purpose: sudo $*" >&2
    sudo "$@"
  else
    die "root is needed $purpose, and there is no sudo; run as root: $*"
  fi
}

# Installs those of the packages that are missing.
need_packages() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  step "Installing ${#missing[@]} packages: ${missing[*]}"
  as_root "to refresh the package lists" apt-get -qq update
  as_root "to install packages" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq -y -o Dpkg::Use-Pty=0 install --no-install-recommends "${missing[@]}" >/dev/null
}

# build_folder PRESET: `build` for the release, `build-<preset>` for the others, or what
# ZELTA_BUILD_DIR has in the place of `build`.
build_folder() {
  case "$1" in
    release) printf '%s' "$ZELTA_BUILD_DIR" ;;
    *) printf '%s' "$ZELTA_BUILD_DIR-$1" ;;
  esac
}

# What else to configure with.
CONFIGURE_OPTIONS=()

# configure PRESET: a folder that somebody has configured with another generator keeps it.
configure() {
  local folder generator
  folder=$(build_folder "$1")
  generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$folder/CMakeCache.txt" 2>/dev/null || true)
  cd "$ZELTA_ROOT" || return
  cmake --preset "$1" -B "$folder" ${generator:+-G "$generator"} "${CONFIGURE_OPTIONS[@]}"
}

# build_preset PRESET [TARGET...]: configures and builds; quiet unless it fails.
build_preset() {
  local preset=$1 log
  shift
  log=$(mktemp)
  step "Building ($preset)"
  { (configure "$preset") &&
    cmake --build "$(build_folder "$preset")" --parallel "$(nproc)" ${1:+--target "$@"}
  } >"$log" 2>&1 || {
    tail -n 60 "$log" >&2
    rm -f "$log"
    die "the build in $(build_folder "$preset") failed"
  }
  rm -f "$log"
}

# The files of a running reader.
pcscd_socket() { cat "$ZELTA_RUN_DIR/pcscd.socket" 2>/dev/null || true; }
# `up` holds a lock on the file for as long as anything of it runs.
is_up() {
  [ -e "$ZELTA_RUN_DIR/up.pid" ] && ! flock --shared --nonblock "$ZELTA_RUN_DIR/up.pid" true
}
need_up() {
  is_up || die "no reader is up here; ./zelta up brings one up"
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
