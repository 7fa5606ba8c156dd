#!/usr/bin/env bash
# The local cloud's certificates. Usage: make_certs.sh DIR [--cert-name NAME]. Existing
# files are kept; what is missing is made.
#   ca.pem             the private CA (root 1); ca2.pem a second root; roots.pem both, as a
#                      vendor ships them before moving from one root to the other
#   server.pem         the messaging server: localhost, 127.0.0.1 and the blob host names
#   chain.pem          the same names, signed by an intermediate CA (inter.pem), served with it
#   root2.pem          the same names, signed by the second root
#   other.pem          a certificate of root 1 for another name (other.example) only
#   blob.pem           the blob emulator's own certificate (root 1)
#   name-NAME.pem      with --cert-name NAME: a certificate of root 1 for NAME only
#   client.pem         the device's client certificate
# Each certificate has its .key, and ca, inter, server and blob their .pin: the base64
# SHA-256 of the public key, as Upload::set_tls_policy takes it.
set -euo pipefail
dir=${1:?usage: make_certs.sh DIR [--cert-name NAME]}
name=""
[ "${2:-}" = "--cert-name" ] && name=${3:?--cert-name needs a NAME}
mkdir -p "$dir"
cd "$dir"

quiet() { "$@" >/dev/null 2>&1 || { echo "make_certs: $* failed" >&2; "$@"; exit 1; }; }

# root BASE SUBJECT
root() {
  [ -f "$1.pem" ] && return
  quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.pem" -days 3650 \
    -subj "/CN=$2" -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign"
}

# issue BASE ISSUER CN EXTENSIONS...: a certificate signed by ISSUER.pem/.key
issue() {
  local base=$1 issuer=$2 cn=$3
  shift 3
  [ -f "$base.pem" ] && return
  printf '%s\n' "$@" > "$base.ext"
  quiet openssl req -newkey rsa:2048 -nodes -keyout "$base.key" -out "$base.csr" -subj "/CN=$cn"
  quiet openssl x509 -req -in "$base.csr" -CA "$issuer.pem" -CAkey "$issuer.key" \
    -set_serial "0x$(openssl rand -hex 8)" -out "$base.pem" -days 3650 -extfile "$base.ext"
  rm -f "$base.csr" "$base.ext"
}

# The pin of a certificate, computed as README's "Trust" shows.
pin() {
  [ -f "$1.pin" ] || openssl x509 -in "$1.pem" -pubkey -noout | openssl pkey -pubin -outform der |
    openssl dgst -sha256 -binary | base64 > "$1.pin"
}

server_ext=(basicConstraints=CA:FALSE keyUsage=digitalSignature,keyEncipherment
  extendedKeyUsage=serverAuth
  subjectAltName=DNS:localhost,DNS:*.blob.localhost,DNS:devstoreaccount1.blob.localhost,IP:127.0.0.1)
named_ext() {
  echo basicConstraints=CA:FALSE keyUsage=digitalSignature,keyEncipherment extendedKeyUsage=serverAuth \
    "subjectAltName=DNS:$1"
}

root ca "Local Cloud Test CA"
root ca2 "Local Cloud Test CA 2"
issue inter ca "Local Cloud Intermediate CA" basicConstraints=critical,CA:TRUE,pathlen:0 \
  keyUsage=critical,keyCertSign,cRLSign
issue server ca localhost "${server_ext[@]}"
issue blob ca devstoreaccount1.blob.localhost "${server_ext[@]}"
issue root2 ca2 localhost "${server_ext[@]}"
if [ ! -f chain.pem ]; then
  issue chain-leaf inter localhost "${server_ext[@]}"
  cat chain-leaf.pem inter.pem > chain.pem && mv chain-leaf.key chain.key && rm chain-leaf.pem
fi
# shellcheck disable=SC2046  # one extension per word
issue other ca other.example $(named_ext other.example)
# shellcheck disable=SC2046
[ -z "$name" ] || issue "name-$name" ca "$name" $(named_ext "$name")
issue client ca device basicConstraints=CA:FALSE keyUsage=digitalSignature,keyEncipherment \
  extendedKeyUsage=clientAuth
for base in ca inter server blob; do pin "$base"; done
[ -f roots.pem ] || cat ca.pem ca2.pem > roots.pem
chmod 600 ./*.key
