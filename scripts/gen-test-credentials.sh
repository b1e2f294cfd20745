#!/bin/sh
# Makes the local test cloud's credentials in the given folder: the key pair
# that signs the cloud's answers (its public half is embedded into the test
# build), a CA, a server certificate for 127.0.0.1 issued by it, a second
# certificate of that CA for another name, and a second, unrelated CA with its
# own server certificate for the refusal tests.
# Nothing made here is ever committed.
set -eu
out=${1:?usage: gen-test-credentials.sh OUTDIR}
mkdir -p "$out"
cd "$out"
q() { "$@" >/dev/null 2>&1; }

q openssl genrsa -out answer_signing.pem 2048
q openssl rsa -in answer_signing.pem -pubout -out answer_signing_pub.pem.tmp

cat > san.cnf <<CNF
[req]
distinguished_name = dn
[dn]
[ext]
subjectAltName = IP:127.0.0.1,DNS:localhost
basicConstraints = CA:FALSE
keyUsage = digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
[elsewhere]
subjectAltName = DNS:elsewhere.invalid
basicConstraints = CA:FALSE
keyUsage = digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
CNF

make_ca() { # name subject
  q openssl req -x509 -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.pem" -days 30 -subj "$2"
}
make_server() { # ca name [extensions section]
  q openssl req -newkey rsa:2048 -nodes -keyout "$2.key" -out "$2.csr" -subj "/CN=${4:-127.0.0.1}"
  q openssl x509 -req -in "$2.csr" -CA "$1.pem" -CAkey "$1.key" -CAcreateserial -out "$2.pem" \
      -days 30 -extfile san.cnf -extensions "${3:-ext}"
  rm -f "$2.csr"
}
make_ca ca "/CN=kx test cloud CA"
make_server ca server
make_server ca elsewhere_server elsewhere elsewhere.invalid
make_ca other_ca "/CN=kx unrelated CA"
make_server other_ca other_server
rm -f san.cnf ./*.srl
# Written last: its presence tells the build that the set is complete.
mv answer_signing_pub.pem.tmp answer_signing_pub.pem
