#!/usr/bin/env bash
# ./dist: two runs in two folders give the same bytes, the checksums and the list of parts are those
# of what lies there, and signing works with a certificate made for this test.
set -euo pipefail
. cmake/environment.sh

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

copy=build/second-dist/sources
log=build/dist-test.txt
run_dist() { ./dist "$@" >"$log" 2>&1 || fail "./dist $*: $(tail -n 30 "$log")"; }

rm -rf build/second-dist
mkdir -p "$copy"
tar -c --exclude='./build*' --exclude=./.git . | tar -x -C "$copy"
run_dist
grep -q "Not signed" "$log" || fail "signed without a certificate"
rm -rf build/dist-first
cp -r build/dist build/dist-first
(
  cd "$copy"
  ./dist >dist.txt 2>&1 || fail "the second ./dist: $(tail -n 30 dist.txt)"
)
diff -r build/dist-first "$copy/build/dist" || fail "two runs in two folders differ"
for binary in build/mingw-release/bin/*.exe build/mingw-release/bin/*.dll; do
  cmp "$binary" "$copy/$binary" || fail "two builds in two folders differ"
done

cd build/dist-first
version=$(ls ./*.msi | sed 's/.*client-agent-\(.*\)\.msi/\1/')
for file in "client-agent-$version".{msi,zip,spdx} "client-agent-$version-symbols.zip"; do
  grep -q "  $file\$" SHA256SUMS || fail "$file has no checksum"
done
sha256sum --quiet -c SHA256SUMS
mkdir unpacked
(cd unpacked && msiextract "../client-agent-$version.msi" >/dev/null)
for name in vorlsrvc.exe vorldiag.exe vlevtlog.dll vorlmisc.dll vorlinfo.dll vorlcore.dll vorlupd.dll; do
  grep -qx "FileName: ./$name" "client-agent-$version.spdx" || fail "$name is not listed"
  inside=$(find unpacked -name "$name")
  cmp "$inside" "../mingw-release/bin/$name" || fail "the package has another $name"
  grep -q "SHA256: $(sha256sum "$inside" | cut -d' ' -f1)" "client-agent-$version.spdx" ||
    fail "another checksum for $name"
  id=$(../../packaging/build-id.sh "$inside" | cut -d' ' -f1)
  unzip -p "client-agent-$version-symbols.zip" build-identifiers.txt | grep -q "^$id  $name" ||
    fail "no symbols for $name"
done
for part in libgcc libstdcxx mingw-w64-crt winpthreads; do
  grep -A2 "^PackageName: $part\$" "client-agent-$version.spdx" | grep -q '^PackageVersion: .' ||
    fail "$part is not listed with its version"
done
[ "$(grep -c '^FileName:' "client-agent-$version.spdx")" -eq 7 ] || fail "other files are listed"
cd ../..

# A certificate that nobody trusts, for today.
sign=build/dist-sign
rm -rf "$sign"
mkdir -p "$sign"
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=throw-away" -keyout "$sign/key.pem" \
  -out "$sign/cert.pem" -addext extendedKeyUsage=codeSigning 2>/dev/null
echo secret >"$sign/password"
openssl pkcs12 -export -inkey "$sign/key.pem" -in "$sign/cert.pem" -out "$sign/cert.p12" \
  -passout "file:$sign/password"
run_dist --sign "$sign/cert.p12" "$sign/password"
verify() { osslsigncode verify -CAfile "$sign/cert.pem" -in "$1" 2>&1; }
verify "build/dist/client-agent-$version.msi" >"$sign/verified.txt" ||
  fail "the package is not signed: $(cat "$sign/verified.txt")"
mkdir "$sign/unpacked"
(cd "$sign/unpacked" && msiextract "../../dist/client-agent-$version.msi" >/dev/null)
signed=0
while IFS= read -r -d '' binary; do
  verify "$binary" >"$sign/verified.txt" || fail "not signed: $binary"
  signed=$((signed + 1))
done < <(find "$sign/unpacked" \( -name '*.exe' -o -name '*.dll' \) -print0)
[ "$signed" -eq 7 ] || fail "$signed signed binaries"
# In the Wine of docs_test.sh, which comes next: in the build folder's, other tests have a service.
(
  export WINEPREFIX=$PWD/build/docs-test/wine
  cmake/wine-server.sh start </dev/null >/dev/null 2>&1
  cmake/wine.sh "$(find "$sign/unpacked" -name vorldiag.exe)" status >"$sign/status.txt" || true
  cmake/wine-server.sh stop
)
[ "$(grep -c 'as shipped but for its signature' "$sign/status.txt")" -ge 6 ] ||
  fail "the diagnosis takes signed files for others: $(cat "$sign/status.txt")"
cp "build/dist/client-agent-$version.msi" "$sign/changed.msi"
printf 'X' | dd of="$sign/changed.msi" bs=1 seek=20000 conv=notrunc 2>/dev/null
! verify "$sign/changed.msi" >/dev/null || fail "a changed package still passes for signed"
# What is handed out is what anybody can make again.
rm -rf build/dist
mv build/dist-first build/dist
rm -rf build/dist/unpacked "$sign"
echo "passed"
