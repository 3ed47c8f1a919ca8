#!/usr/bin/env bash
# Signs programs and libraries for Windows.
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() {
  cat <<'EOT'
Usage: scripts/sign-windows.sh (--new-certificate FOLDER | --certificate FILE
                               --key FILE) [OPTION...] FILE...

Signs each file in its place, with SHA-256. A file that is signed already gets
the new signature instead.

  --new-certificate FOLDER  make a test certificate there and sign with that:
                            zelta-test.pem, zelta-test.key, and for Windows
                            zelta-test.cer
  --certificate FILE        certificates in PEM, the signer's first
  --key FILE                the signer's key in PEM
  --password-file FILE      the key's password, if it has one
  --timestamp URL           a server that adds the time, so that the signature
                            outlives its certificate
  -h, --help                this text
EOT
}

certificate=
key=
folder=
options=()
files=()
while [ $# -gt 0 ]; do
  case "$1" in
    --new-certificate | --certificate | --key | --password-file | --timestamp)
      need_value "a value" "$@"
      case "$1" in
        --new-certificate) folder=$2 ;;
        --certificate) certificate=$2 ;;
        --key) key=$2 ;;
        --password-file) options+=(-readpass "$2") ;;
        --timestamp) options+=(-ts "$2") ;;
      esac
      shift
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    -*) die_usage "sign-windows takes no '$1'; see scripts/sign-windows.sh --help" ;;
    *) files+=("$1") ;;
  esac
  shift
done
[ ${#files[@]} -gt 0 ] || die_usage "which files? See scripts/sign-windows.sh --help"
if [ -n "$folder" ]; then
  [ -z "$certificate$key" ] || die_usage "a new certificate, or one that is there, not both"
elif [ -z "$certificate" ] || [ -z "$key" ]; then
  die_usage "--certificate and --key, or --new-certificate; see scripts/sign-windows.sh --help"
fi
need_packages osslsigncode openssl
make_work

if [ -n "$folder" ]; then
  certificate=$folder/zelta-test.pem
  key=$folder/zelta-test.key
  mkdir -p "$folder"
  [ ! -e "$key" ] || die "$key is there already; sign with it: --certificate, --key"
  (umask 077 && openssl req -x509 -newkey rsa:3072 -noenc -sha256 -days 365 \
    -subj "/CN=Zelta Test" -addext basicConstraints=critical,CA:FALSE \
    -addext keyUsage=critical,digitalSignature -addext extendedKeyUsage=codeSigning \
    -keyout "$key" -out "$certificate" 2>"$WORK/log") || die "$(cat "$WORK/log")"
  openssl x509 -in "$certificate" -outform der -out "$folder/zelta-test.cer"
fi

for file in "${files[@]}"; do
  osslsigncode sign -h sha256 -certs "$certificate" -key "$key" "${options[@]}" \
    -n "Zelta Virtual SmartCard Reader" -in "$file" -out "$WORK/signed" >"$WORK/log" 2>&1 ||
    die "$file: $(tail -n 1 "$WORK/log")"
  cat "$WORK/signed" >"$file" # which keeps its owner and mode
  rm "$WORK/signed"
  say "signed: $file"
done
