#!/bin/sh
# Run before the agent's service starts, with the agent's options: makes the demo card if the agent
# uses the emulated card in the default folder and there is none yet.
set -e
folder=/var/lib/zelta/card
for word in "$@"; do
  case "$word" in
    pcsc | script | remote | --backend=pcsc | --backend=script | --backend=remote | --db | --db=* | --help | --version) exit 0 ;;
  esac
done
[ ! -e "$folder" ] || exit 0
echo "There is no card in $folder: making the demo card, with the PIN 12345678."
exec /usr/share/zelta/make-demo-db.sh "$folder" 12345678
