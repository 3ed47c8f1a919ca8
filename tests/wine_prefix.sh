#!/bin/sh
# Makes or removes the folder in which the tests under Wine live: made anew in the temporary
# folder, reached by a link of a fixed name.
#
#   wine_prefix.sh make|remove LINK
#
# When the folder is made, WINEPREFIX=LINK and Wine's other settings are already set. Its server
# ends with the removal, or by itself some time after an interrupted run.
set -eu
action=$1
link=$2

remove() {
  [ -L "$link" ] || return 0
  folder=$(readlink "$link")
  if [ -d "$folder" ]; then
    # The server must not outlive its folder. This command fails if no server is running.
    WINEPREFIX=$folder wineserver -k || true
    WINEPREFIX=$folder wineserver -w
    rm -rf "$folder"
  fi
  rm -f "$link"
}

case $action in
  make)
    remove # what a run that was broken off has left
    folder=$(mktemp -d "${TMPDIR:-/tmp}/zelta-wine.XXXXXX")
    ln -s "$folder" "$link"
    # What is started here lives on and would hold the run's pipes open. The first program makes the
    # folder's contents; wineboot by name would be run twice, and leave two service managers.
    log=$folder/make.log
    { wineserver -p120 && wine cmd /c exit; } >"$log" 2>&1 </dev/null || {
      cat "$log" >&2
      exit 1
    }
    ;;
  remove) remove ;;
  *)
    echo "usage: wine_prefix.sh make|remove LINK" >&2
    exit 2
    ;;
esac
