#!/bin/bash
# make-package.sh BUILD_FOLDER OUTPUT.pkg: an installer package for macOS 10.9 and later, made on a
# Mac with its own tools (cmake is the only other one). The build folder is one of this project's,
# built on this Mac, or build/macos copied from the machine that cross-compiled it.
#
# Unsigned unless these are set; the order is the one that Apple's documents give:
#   KORVEL_SIGN_APPLICATION  identity "Developer ID Application: ...": signs the executable, with the
#                            hardened runtime and a time stamp, before it is packed
#   KORVEL_SIGN_INSTALLER    identity "Developer ID Installer: ...": signs the package
#   KORVEL_NOTARY_PROFILE    profile of `xcrun notarytool store-credentials`: has the signed package
#                            notarised, and staples the ticket to it
set -euo pipefail

build=${1:?usage: make-package.sh BUILD_FOLDER OUTPUT.pkg}
output=${2:?usage: make-package.sh BUILD_FOLDER OUTPUT.pkg}
here=$(cd "$(dirname "$0")" && pwd)
identifier=com.norvane.korvel.helper.pkg
version=$(sed -n 's/^project(korvel_helper VERSION \([0-9.]*\).*/\1/p' "$here/../CMakeLists.txt")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --component helper --prefix "$work/root"
helper=$work/root/Library/PrivilegedHelperTools/korvel_helper
if [ -n "${KORVEL_SIGN_APPLICATION:-}" ]; then
  codesign --force --options runtime --timestamp --identifier com.norvane.korvel.helper \
    --sign "$KORVEL_SIGN_APPLICATION" "$helper"
fi

# --ownership recommended: root and wheel, whoever owns the files here.
pkgbuild --root "$work/root" --scripts "$here/scripts" --identifier "$identifier" \
  --version "$version" --install-location / --ownership recommended "$work/helper.pkg"
sed "s/@VERSION@/$version/g" "$here/distribution.xml" >"$work/distribution.xml"
sign=()
if [ -n "${KORVEL_SIGN_INSTALLER:-}" ]; then sign=(--sign "$KORVEL_SIGN_INSTALLER" --timestamp); fi
productbuild --distribution "$work/distribution.xml" --package-path "$work" \
  ${sign[@]+"${sign[@]}"} "$output"

if [ -n "${KORVEL_NOTARY_PROFILE:-}" ]; then
  xcrun notarytool submit "$output" --keychain-profile "$KORVEL_NOTARY_PROFILE" --wait
  xcrun stapler staple "$output"
fi
echo "$output"
