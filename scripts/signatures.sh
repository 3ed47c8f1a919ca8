# shellcheck shell=bash
# Signs with the keys on a card through OpenSC, and verifies with openssl.

pkcs11_module() {
  local module
  for module in /usr/lib/*/opensc-pkcs11.so; do
    [ -e "$module" ] && printf '%s' "$module" && return
  done
  die "opensc-pkcs11.so is not installed"
}

# check_signatures PIN FOLDER: signs with every key whose certificate is on the card; ends the
# script if one fails, or if there are none.
check_signatures() {
  local pin=$1 work=$2 module ids id count=0
  module=$(pkcs11_module)
  ids=$(pkcs11-tool --module "$module" --list-objects --type cert 2>/dev/null |
    sed -n 's/^ *ID: *//p' | sort -u)
  [ -n "$ids" ] || die "no certificates on the card"
  head -c 100 /dev/urandom >"$work/message"
  for id in $ids; do
    pkcs11-tool --module "$module" --read-object --type cert --id "$id" \
      --output-file "$work/cert.der" >/dev/null 2>&1 || die "certificate $id could not be read"
    openssl x509 -inform der -in "$work/cert.der" -noout -pubkey >"$work/key.pem" ||
      die "certificate $id is not one"
    pkcs11-tool --module "$module" --login --pin "$pin" --sign --id "$id" \
      --mechanism SHA256-RSA-PKCS --input-file "$work/message" --output-file "$work/signature" \
      >"$work/sign.log" 2>&1 || die "signing with key $id failed: $(tail -n 1 "$work/sign.log")"
    openssl dgst -sha256 -verify "$work/key.pem" -signature "$work/signature" "$work/message" \
      >/dev/null || die "the signature of key $id is wrong"
    say "Key $id: $(openssl x509 -inform der -in "$work/cert.der" -noout -subject): good signature"
    count=$((count + 1))
  done
  say "$count keys signed."
}
