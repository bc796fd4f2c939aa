#!/bin/sh
# fotapkg as a release engineer uses it: packages_test.sh PROGRAMS KEYS PACKAGE BUNDLE
# shellcheck disable=SC2317 # expect() calls the functions
set -u
export PATH="$1:$PATH" PIN=1234
keys=$2 package=$3 bundle=$4
# shellcheck source-path=SCRIPTDIR source=expect.sh
. "$(dirname "$0")/expect.sh"

silent() { # COMMAND...
    [ -z "$("$@" 2>&1)" ] && echo silent
}
with_pin() { # COMMAND...: has it on standard input
    echo "$PIN" | "$@"
}
good() { # FILE KEYS
    expect 0 'good$' fotapkg verify "$1" --keys "$2"
}
part() { # FOLDER FILE...: with these files of the keys
    folder=$1
    mkdir "$folder"
    while shift && [ $# -gt 0 ]; do cp "$keys/$1" "$folder"; done
}
sign_by_ec() { # FROM: where its pass phrase is
    fotapkg sign details.zip --keys public --key ec.pem --cert ec_cert.pem --passin "$1" -o ec.zip
}
service() { # FILE: signs it beside
    openssl dgst -sha256 -sign "$keys/build_key.pem" -out "$1.sign" "$1"
}

size=$(wc -c <"$package")
head -c 5000 "$package" >cut.zip
part public device_cert.pem build_cert.pem build_pubkey.pem
part other device.pem device_cert.pem
fotapkg keys new --json >told
cp new/build_cert.pem other

# What the checks end with, and what they tell scripts.
expect 0 '"good":true,.*"error":null}$' fotapkg verify "$package" --keys "$keys" --json
expect 1 '"good":false,.*"error":null}$' fotapkg verify cut.zip --keys "$keys" --json
expect 3 '"good":null,.*"error":"There is no file public/device.pem' fotapkg verify "$package" --keys public --json
expect 0 '"needs_key":true' fotapkg inspect "$package" --json
expect 3 '"needs_key":true' fotapkg inspect "$package" --keys public --json
expect 1 'signature *NOT good' fotapkg inspect "$package" --keys other
expect 3 '"error":"Cannot read nowhere' fotapkg inspect nowhere --json
for command in verify inspect; do
    expect 0 '"verdict":"above"' fotapkg $command "$package" --keys "$keys" --json --limit $((size - 1))
    expect 1 '"verdict":"refused"' fotapkg $command "$package" --keys "$keys" --json --limit $((size / 2048 - 1))K
    expect 0 '"verdict":"above"' fotapkg $command "$bundle" --keys "$keys" --json --limit 1K
done
expect 0 silent silent fotapkg verify "$package" --keys "$keys" --quiet
expect 0 "\"certificate_sha256\":\"$(openssl x509 -in new/build_cert.pem -outform der | sha256sum | cut -c-64)\"" cat told
expect 2 "no command 'verfiy'; did you mean 'verify'?" fotapkg verfiy "$package"
expect 2 "no option '--contnet'; did you mean '--content'?" fotapkg package --contnet image
expect 2 "no option '--xylophone'$" fotapkg package --xylophone
expect 2 'give --keys' fotapkg bundle "$package" -o none.zip
expect 1 'standard output' fotapkg bundle "$package" --keys "$keys" -o -

# Signatures of a service, which sees neither package nor keys.
mkdir content && head -c 9000 /dev/urandom >content/image
expect 0 'details *details.zip, ' fotapkg package --content content --source 1 --target 2 \
    --description d --details-only -o details.zip
service details.zip
fotapkg sign details.zip --signature details.zip.sign --keys public -o signed.zip --quiet
good signed.zip "$keys"
expect 1 'no SHA-256 signature' fotapkg sign details.zip --signature details.zip.sign --keys other -o none.zip
fotapkg extract signed.zip --keys "$keys" --details-only -o extracted.zip --quiet
expect 0 '' cmp details.zip extracted.zip
fotapkg extract signed.zip --keys "$keys" -o extracted --quiet
expect 0 '' cmp content/image extracted/image
expect 0 'piece_0001.sign' fotapkg bundle signed.zip --pieces-only --pieces 2 -o pieces
service pieces/piece_0001
expect 1 'There is no signature pieces/piece_0002.sign' fotapkg sign pieces --keys public -o bundle.zip
service pieces/piece_0002
expect 0 'bundle.zip' fotapkg sign pieces --keys public -o bundle.zip
good bundle.zip "$keys"
expect 1 'is damaged, or not signed by' fotapkg sign pieces --cert new/build_cert.pem -o none.zip

# Names that unzip changes, and warns of, only when it unpacks.
echo 1 >sub_file
zip -qX0 details.zip sub_file
LC_ALL=C sed 's/\(PK\x01\x02.\)\x03/\1\x00/g; s/sub_file/sub\\file/g' details.zip >dos.zip
for details in details dos; do fotapkg sign $details.zip --keys "$keys" -o $details.signed --quiet; done
good details.signed "$keys"
expect 1 'unpacking *FAILED: unzip refuses it, exit code 1' fotapkg verify dos.signed --keys "$keys"

# Other keys: in a token, under a pass phrase, for all to read, of another kind; a new one; several.
export SOFTHSM2_CONF="$work/softhsm2.conf"
mkdir tokens && echo "directories.tokendir = $work/tokens" >"$SOFTHSM2_CONF"
softhsm2-util --init-token --free --label build --pin $PIN --so-pin $PIN >/dev/null
softhsm2-util --import "$keys/build_key.pem" --token build --label sign --id 01 --pin $PIN >/dev/null
token='pkcs11:token=build;object=sign'
expect 0 "with $token" fotapkg sign details.zip --keys public --key $token --passin env:PIN -o token.zip
good token.zip "$keys"
expect 0 "with $token" with_pin fotapkg bundle token.zip --keys public --key $token --passin - -o token.zip.bundle
good token.zip.bundle "$keys"
expect 1 'PIN is right' fotapkg bundle token.zip --keys public --key $token --passin env:PATH -o none.zip

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -passout pass:$PIN -subj /CN=ec -keyout ec.pem -out ec_cert.pem 2>/dev/null
chmod 644 ec.pem
expect 0 'bundles need; .* another --key' sign_by_ec env:PIN
expect 0 'ec.pem is a secret that every user' sign_by_ec env:PIN
expect 1 'ec.pem gives no private key' sign_by_ec env:PATH

expect 0 'signed by CN=fota build' fotapkg resign "$bundle" --keys "$keys" --key new/build_key.pem \
    --cert new/build_cert.pem -o resigned.zip
good resigned.zip other
expect 1 'not signed by a signer' fotapkg resign resigned.zip --keys "$keys" -o none.zip
expect 1 'has no device.pem to open it; put it there, or sign' fotapkg resign "$package" --keys public \
    --key new/build_key.pem --cert new/build_cert.pem -o none.zip
expect 0 'build_key.pem and ' fotapkg resign resigned.zip --keys other --key new/build_key.pem --key "$keys/build_key.pem" \
    --cert "$keys/build_cert.pem" --cert new/build_cert.pem -o both.zip
expect 1 'signature *FAILED' fotapkg verify both.zip --keys other
cat "$keys/build_cert.pem" >>other/build_cert.pem
good both.zip other
expect 1 '' test -e none.zip
exit "$failed"
