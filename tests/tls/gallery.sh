#!/bin/sh
# Makes the certificate gallery in the folder named by the first argument; the second is the port of the server that
# serves revocation lists. Every certificate has its name as file: NAME.pem, NAME.key.
set -eu
cd "$1"
port=$2
: >log

key() { # NAME [KIND]
  case "${2:-ec}" in
    ec) openssl ecparam -name prime256v1 -genkey -noout -out "$1.key" ;;
    *) openssl genrsa -out "$1.key" "$2" ;;
  esac >>log 2>&1
}

request() { # NAME [SUBJECT]
  openssl req -new -key "$1.key" -subj "${2:-/CN=$1}" -out "$1.csr" >>log 2>&1
}

self() { # NAME EXTENSIONS
  [ -e "$1.key" ] || key "$1"
  request "$1"
  printf '%b\n' "$2" >"$1.ext"
  openssl x509 -req -in "$1.csr" -signkey "$1.key" -days 3650 -extfile "$1.ext" -out "$1.pem" >>log 2>&1
}

issue() { # NAME ISSUER EXTENSIONS [DAYS] [DIGEST]
  [ -e "$1.key" ] || key "$1"
  request "$1"
  printf '%b\n' "$3" >"$1.ext"
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "${4:-3650}" "-${5:-sha256}" \
    -extfile "$1.ext" -out "$1.pem" >>log 2>&1
}

ca='basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign'
good='subjectAltName=DNS:good.test'

self root "$ca"
self other-root "$ca"
self no-sign-root 'basicConstraints=critical,CA:TRUE\nkeyUsage=critical,cRLSign'
issue middle root "$ca"
issue lower middle "$ca"
issue good middle "$good"
issue deep lower "$good"
issue short middle "$good" 1
issue wildcard middle 'subjectAltName=DNS:*.good.test'
issue www middle 'subjectAltName=DNS:www.good.test'
issue no-name middle 'basicConstraints=CA:FALSE'
issue client-only middle "$good\nextendedKeyUsage=clientAuth"
issue critical middle "$good\n1.2.3.4=critical,ASN1:NULL"
# "good.test" NUL ".evil.test" as a DNS name
issue nul-name middle 'subjectAltName=DER:30:16:82:14:67:6f:6f:64:2e:74:65:73:74:00:2e:65:76:69:6c:2e:74:65:73:74'
issue broken-name middle 'subjectAltName=DER:30:16:82:14:67'
issue from-other other-root "$good"
issue no-sign-leaf no-sign-root "$good"
self self-signed "$good"
issue not-ca middle 'basicConstraints=critical,CA:FALSE'
issue under-not-ca not-ca "$good"
issue length-zero root "$ca" 3650
printf 'basicConstraints=critical,CA:TRUE,pathlen:0\nkeyUsage=critical,keyCertSign,cRLSign\n' >length-zero.ext
openssl x509 -req -in length-zero.csr -CA root.pem -CAkey root.key -days 3650 -extfile length-zero.ext \
  -out length-zero.pem >>log 2>&1
issue too-deep length-zero "$ca"
issue under-too-deep too-deep "$good"
issue constrained root "$ca\nnameConstraints=critical,permitted;DNS:allowed.test"
issue outside constrained "$good"
key rsa-middle 2048
issue rsa-middle root "$ca"
issue md5 rsa-middle "$good" 3650 md5
issue sha1 rsa-middle "$good" 3650 sha1
key rsa512 512
issue rsa512 middle "$good"

points="crlDistributionPoints=URI:http://127.0.0.1:$port/middle.crl"
issue revoked middle "$good\n$points"
issue not-revoked middle "$good\n$points"
issue list-gone middle "$good\ncrlDistributionPoints=URI:http://127.0.0.1:$port/gone.crl"
issue middle-listed root "$ca\ncrlDistributionPoints=URI:http://127.0.0.1:$port/root.crl"
cp middle.key middle-listed.key
request middle-listed /CN=middle
openssl x509 -req -in middle-listed.csr -CA root.pem -CAkey root.key -days 3650 -extfile middle-listed.ext \
  -out middle-listed.pem >>log 2>&1

for issuer in middle root; do
  : >"$issuer.index"
  printf '01\n' >"$issuer.number"
  printf '[ca]\ndefault_ca=it\n[it]\ndatabase=%s.index\ncrlnumber=%s.number\ndefault_md=sha256\n' "$issuer" "$issuer" \
    >"$issuer.conf"
done
openssl ca -config middle.conf -keyfile middle.key -cert middle.pem -revoke revoked.pem >>log 2>&1
for issuer in middle root; do
  openssl ca -config "$issuer.conf" -keyfile "$issuer.key" -cert "$issuer.pem" -gencrl -crldays 30 -out "$issuer.crl.pem" \
    >>log 2>&1
  openssl crl -in "$issuer.crl.pem" -outform DER -out "$issuer.crl" >>log 2>&1
done

# One byte of the signature is another.
openssl x509 -in good.pem -outform DER -out forged.der
size=$(wc -c <forged.der)
last=$(tail -c 1 forged.der | od -An -tu1 | tr -d ' ')
head -c $((size - 1)) forged.der >forged.new
printf "\\$(printf '%03o' $((last ^ 1)))" >>forged.new
openssl x509 -inform DER -in forged.new -out forged.pem

cat good.pem middle.pem >bundle.pem
