#!/usr/bin/env bash
# Makes the certificate database of the demo card: a small CA and three RSA 2048 certificates that
# it issued, for authentication, signing and encryption. The database's password is the card's PIN.
#
# Usage: make-demo-db.sh FOLDER PIN
#
# A complete database is left unchanged; an unfinished one is made anew. The CA's certificate is
# also in FOLDER/ca.pem.
set -euo pipefail

usage() {
  echo "Usage: $(basename "$0") FOLDER PIN   (PIN: 4 to 8 digits)"
  exit "$1"
}

[[ ${1:-} != -h && ${1:-} != --help ]] || usage 0
[ $# -eq 2 ] || usage 2 >&2
folder=$1
pin=$2
[[ $pin =~ ^[0-9]{4,8}$ ]] || usage 2 >&2
command -v certutil >/dev/null || { echo "certutil is missing (package libnss3-tools)" >&2; exit 1; }

complete=$folder/complete
if [ -e "$complete" ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  (umask 077; printf '%s\n' "$pin" >"$work/pin")
  if ! certutil -K -d "sql:$folder" -f "$work/pin" >/dev/null 2>&1; then
    echo "The database in $folder has another PIN" >&2
    exit 1
  fi
  exit 0
fi

# Made beside its place and moved there when it is done.
parent=$(dirname "$folder")
mkdir -p "$parent"
work=$(mktemp -d "$parent/.demo-db.XXXXXX")
trap 'rm -rf "$work"' EXIT
umask 077
database=$work/database
mkdir "$database"
printf '%s\n' "$pin" >"$work/pin"
head -c 256 /dev/urandom >"$work/noise"

nss() {
  certutil "$@" -d "sql:$database" -f "$work/pin" >>"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
  }
}

# issue NICKNAME SERIAL SUBJECT KEY-USAGE...
issue() {
  local nickname=$1 serial=$2 subject=$3
  shift 3
  nss -S -n "$nickname" -s "$subject" -c zelta-ca -t ,, -k rsa -g 2048 -Z SHA256 -m "$serial" \
    -v 120 -z "$work/noise" --keyUsage "$@"
}

nss -N
# Asked for the basic constraints: a CA, without a limit of the path, critical.
printf 'y\n\ny\n' | nss -S -x -n zelta-ca -s "CN=Zelta Demo CA,O=Zelta" -t CT,C,C -k rsa -g 2048 \
  -Z SHA256 -m 1 -v 240 -z "$work/noise" -2 --keyUsage certSigning,crlSigning,critical
issue zelta-auth 2 "CN=Demo Card Authentication,O=Zelta" digitalSignature,critical \
  --extKeyUsage clientAuth
issue zelta-sign 3 "CN=Demo Card Signature,O=Zelta" digitalSignature,nonRepudiation,critical
# Signs as well, so that every key of the card can be tried.
issue zelta-encrypt 4 "CN=Demo Card Encryption,O=Zelta" \
  digitalSignature,keyEncipherment,dataEncipherment,critical
certutil -L -d "sql:$database" -n zelta-ca -a >"$database/ca.pem"

mkdir -p "$folder"
chmod 700 "$folder"
mv -f "$database"/* "$folder"/
touch "$complete"
