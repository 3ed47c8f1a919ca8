#!/usr/bin/env bash
# Makes the Debian package of the sources as they are.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOF'
Usage: ./zelta package [FOLDER]

Installs what the build needs and makes zelta-vsc_<version>_<architecture>.deb,
and zelta-vsc-dev for cards of your own, in the folder (dist). The version is
the tag's, v1.0.0, if the commit has one, else 1.0.0~git and the number of
commits, so that a later commit's package upgrades an earlier one's.

  -h, --help     this text
EOF
}

case "${1:-}" in
  -h | --help)
    usage
    exit 0
    ;;
  -*) die_usage "package takes no '$1'; see ./zelta package --help" ;;
esac
[ $# -le 1 ] || die_usage "package takes one folder"
folder=${1:-$ZELTA_ROOT/dist}
need_packages "${PACKAGE_PACKAGES[@]}"
{ mkdir -p "$folder" && [ -w "$folder" ]; } ||
  die "the package cannot be put into $folder; name another folder: ./zelta package FOLDER"
folder=$(realpath "$folder")

make_work
source=$WORK/zelta-vsc
mkdir "$source"
cd "$ZELTA_ROOT"
# shellcheck disable=SC2016  # the inner shell expands it
git ls-files -z --cached --others --exclude-standard |
  xargs -0 sh -c 'for f; do [ ! -e "$f" ] || printf "%s\0" "$f"; done' _ |
  tar --create --null --files-from=- | tar --extract --directory "$source"
cp -r "$source/packaging/debian" "$source/debian"
commit=$(git rev-parse --short HEAD)
cat >"$source/debian/changelog" <<EOF
zelta-vsc ($(package_version)) unstable; urgency=medium

  * Made of commit $commit.

 -- Vornhalt <zelta@vornhalt.example>  $(git log -1 --format=%cD)
EOF

log=$WORK/package.log
step "Making the package (version $(package_version))"
cd "$source"
# Debug information would be discarded, and takes a quarter of the time.
with_progress build_progress "$log" env ZELTA_COMMIT="$commit" NINJA_STATUS='[%p] ' \
  DEB_BUILD_OPTIONS="parallel=$(nproc) noautodbgsym" DEB_CXXFLAGS_STRIP=-g \
  dpkg-buildpackage --build=binary --no-sign || {
  show_failure "$log"
  die "the package could not be made"
}
for package in "$WORK"/*.deb; do
  cp "$package" "$folder"
  say "$folder/$(basename "$package")"
done
