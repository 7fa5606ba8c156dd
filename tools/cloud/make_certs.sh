#!/usr/bin/env bash
# Makes a private CA and, signed by it, a server certificate for the local cloud
# (localhost, 127.0.0.1 and the blob emulator's host names) and a client certificate
# for the device. Usage: make_certs.sh DIR. Existing files are kept.
set -euo pipefail
dir=${1:?usage: make_certs.sh DIR}
mkdir -p "$dir"
cd "$dir"
[ -f ca.pem ] && [ -f server.pem ] && [ -f client.pem ] && exit 0

quiet() { "$@" >/dev/null 2>&1 || { echo "make_certs: $* failed" >&2; "$@"; exit 1; }; }

quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 3650 \
  -subj "/CN=Local Cloud Test CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign"

cat > server.ext <<'EXT'
basicConstraints=CA:FALSE
keyUsage=digitalSignature,keyEncipherment
extendedKeyUsage=serverAuth
subjectAltName=DNS:localhost,DNS:*.blob.localhost,DNS:devstoreaccount1.blob.localhost,IP:127.0.0.1
EXT
quiet openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj "/CN=localhost"
quiet openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem \
  -days 3650 -extfile server.ext

cat > client.ext <<'EXT'
basicConstraints=CA:FALSE
keyUsage=digitalSignature,keyEncipherment
extendedKeyUsage=clientAuth
EXT
quiet openssl req -newkey rsa:2048 -nodes -keyout client.key -out client.pem.csr -subj "/CN=device"
quiet openssl x509 -req -in client.pem.csr -CA ca.pem -CAkey ca.key -CAcreateserial \
  -out client.pem -days 3650 -extfile client.ext
rm -f server.csr client.pem.csr server.ext client.ext
chmod 600 ca.key server.key client.key
