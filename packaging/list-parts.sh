#!/usr/bin/env bash
# list-parts.sh VERSION FOLDER: an SPDX 2.3 document (tag and value) of what ships: every file in
# FOLDER with its checksums, and the parts of the compiler that are linked into them. The product
# itself uses no library of others; Windows' own are not part of it.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/environment.sh
version=$1
folder=$2
company=$(sed -n 's/^set(VORL_COMPANY "\([^"]*\)".*/\1/p' CMakeLists.txt)

# ID, DEBIAN-PACKAGE, LICENCE, WHAT
runtime_parts() {
  local compiler
  compiler=$(dpkg-query -S "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)" | cut -d: -f1)
  cat <<EOF
libgcc|$compiler|GPL-3.0-or-later WITH GCC-exception-3.1|GCC's helper functions for x86-64 code
libstdcxx|$compiler|GPL-3.0-or-later WITH GCC-exception-3.1|GCC's C++ library
mingw-w64-crt|mingw-w64-x86-64-dev|ZPL-2.1|mingw-w64's start-up code, C functions and import libraries
winpthreads|mingw-w64-x86-64-dev|MIT|mingw-w64's threads, which GCC's C++ library uses
EOF
}

# verification_code: SPDX's digest over the digests of all files.
verification_code() {
  find "$folder" -type f -exec sha1sum {} + | cut -d' ' -f1 | sort | tr -d '\n' | sha1sum |
    cut -d' ' -f1
}

digest=$(verification_code)
cat <<EOF
SPDXVersion: SPDX-2.3
DataLicense: CC0-1.0
SPDXID: SPDXRef-DOCUMENT
DocumentName: client-agent-$version
DocumentNamespace: urn:client-agent:$version:$digest
Creator: Organization: $company
Creator: Tool: packaging/list-parts.sh
Created: 2020-01-01T00:00:00Z
DocumentComment: <text>Created is fixed, so that equal files give an equal document.</text>

PackageName: Client Agent
SPDXID: SPDXRef-client-agent
PackageVersion: $version
PackageSupplier: Organization: $company
PackageDownloadLocation: NOASSERTION
FilesAnalyzed: true
PackageVerificationCode: $digest
PackageLicenseConcluded: NOASSERTION
PackageLicenseInfoFromFiles: NOASSERTION
PackageLicenseDeclared: NOASSERTION
PackageCopyrightText: Copyright (c) $company
Relationship: SPDXRef-DOCUMENT DESCRIBES SPDXRef-client-agent
EOF
for file in "$folder"/*; do
  cat <<EOF

FileName: ./${file##*/}
SPDXID: SPDXRef-file-${file##*/}
FileType: BINARY
FileChecksum: SHA1: $(sha1sum "$file" | cut -d' ' -f1)
FileChecksum: SHA256: $(sha256sum "$file" | cut -d' ' -f1)
FileComment: build identifier $(packaging/build-id.sh "$file" | cut -d' ' -f1)
LicenseConcluded: NOASSERTION
LicenseInfoInFile: NOASSERTION
FileCopyrightText: Copyright (c) $company
EOF
done
runtime_parts | while IFS='|' read -r id package licence what; do
  cat <<EOF

PackageName: $id
SPDXID: SPDXRef-$id
PackageVersion: $(dpkg-query -W -f='${Version}' "$package")
PackageSupplier: NOASSERTION
PackageDownloadLocation: NOASSERTION
FilesAnalyzed: false
PackageLicenseConcluded: $licence
PackageLicenseDeclared: $licence
PackageCopyrightText: NOASSERTION
PackageComment: <text>$what; from the Debian package $package</text>
Relationship: SPDXRef-client-agent STATIC_LINK SPDXRef-$id
EOF
done
