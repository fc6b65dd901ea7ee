#!/usr/bin/env bash
# Packages and device images for aarch64: what the Buildroot package and the Yocto recipe set configures, builds
# and installs, with the cross compiler, into an empty root just the files that the Debian packages hold.
#   scripts/check-packaging.sh BUILD   (a build of the preset package-arm64; what is there already is used again)
set -euo pipefail
umask 077
build=$(realpath -m "$1")
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "check-packaging: $*" >&2
  exit 1
}
# files ROOT: what it holds, wherever a distribution puts libraries.
files() { (cd "$1" && find . -mindepth 1 ! -type d) | sed 's:/lib/aarch64-linux-gnu/:/lib/:' | sort; }

cmake --preset package-arm64 -B "$build" >/dev/null
cmake --build "$build" >/dev/null
rm -f "$build"/*.deb
(umask 022 && cd "$build" && cpack -G DEB >/dev/null)
for package in "$build"/*.deb; do
  closed=$(dpkg-deb -c "$package" | grep -v '^.......r' || true)
  [ -z "$closed" ] || fail "not for everybody in $package: $closed"
  dpkg-deb -x "$package" "$work/packages"
  copyright=$work/packages/usr/share/doc/$(dpkg-deb -f "$package" Package)/copyright
  cmp LICENSE "$copyright"
  rm "$copyright"
done

version=$(sed -n 's/^project(qmxutil VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
recipe=packaging/yocto/qmxutil_$version.bb
grep -qF "md5=$(md5sum <LICENSE | cut -d' ' -f1)\"" "$recipe" || fail "the checksum of LICENSE in $recipe"
# Buildroot's own parts of a package makefile: qstrip, and cmake-package, which is nothing here.
buildroot() {
  make --no-print-directory -f - "$@" <<'END'
qstrip = $(strip $(subst ",,$(1)))
include packaging/buildroot/qmxutil.mk
print: ; @echo '$(QMXUTIL_VERSION) $(QMXUTIL_CONF_OPTS)'
END
}
for symbol in $(grep -oE 'BR2_PACKAGE_QMXUTIL_[A-Z_]+' packaging/buildroot/qmxutil.mk | sort -u); do
  grep -qx "config $symbol" packaging/buildroot/Config.in || fail "$symbol is not in Config.in"
done
[ "$(buildroot STAGING_DIR=/staging BR2_PACKAGE_QMXUTIL_BASE_LIBRARY='"usr/lib/libx.so"' | tr ' ' '\n' |
  grep BASE_LIBRARY)" = -DQMX_BASE_LIBRARY=/staging/usr/lib/libx.so ] || fail "the base library of Buildroot"

read -r said buildroot_options < <(buildroot BR2_PACKAGE_QMXUTIL_COMMAND=y)
[ "$said" = "$version" ] || fail "Buildroot's version is $said"
yocto_options=$(sed -n 's/^EXTRA_OECMAKE = "\(.*\)"$/\1/p' "$recipe")
for options in "$buildroot_options" "$yocto_options"; do
  rm -rf "$work/image"
  # shellcheck disable=SC2086
  cmake --no-warn-unused-cli -S . -B "$build" -G Ninja --toolchain cmake/arm64.cmake -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib $options >/dev/null
  cmake --build "$build" >/dev/null
  DESTDIR="$work/image" cmake --install "$build" >/dev/null
  diff <(files "$work/packages") <(files "$work/image") || fail "packages (<), image (>): $options"
done
echo "$(files "$work/image" | wc -l) files, the same in the packages and in the images of Buildroot and Yocto"
