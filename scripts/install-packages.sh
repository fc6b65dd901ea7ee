#!/usr/bin/env bash
# Installs the Debian packages that a task needs; does nothing, and asks for nothing, when they are there.
#   scripts/install-packages.sh build|bench|fuzz|arm64|check|docs|package|clips …
set -euo pipefail

packages_for() {
  case "$1" in
    build) echo g++ cmake ninja-build pkg-config libcli11-dev nlohmann-json3-dev libgtest-dev libgmock-dev ;;
    bench) echo libbenchmark-dev libssl-dev libglib2.0-dev libinih-dev libavcodec-dev \
      libgstreamer-plugins-bad1.0-dev ;;
    fuzz) echo clang libclang-rt-14-dev ;;
    arm64) echo g++-aarch64-linux-gnu qemu-user googletest ;;
    check) echo clang-format-14 valgrind gcovr jq binutils ;;
    docs) echo doxygen ;;
    package) echo dpkg-dev file ;;
    clips) echo ffmpeg ;;
    *) echo "install-packages.sh: unknown task '$1'" >&2; exit 2 ;;
  esac
}

missing=()
for task in "$@"; do
  for package in $(packages_for "$task"); do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
  done
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "These Debian packages are missing: ${missing[*]}" >&2
    echo "Installing them takes root, and there is no sudo here. As root, run:" >&2
    echo "  apt-get update" >&2
    echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

echo "Installing Debian packages, which takes a minute or two:"
fold -s -w 76 <<<"${missing[*]}" | sed 's/^/  /'
umask 022 # what is installed is for everybody
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { "${as_root[@]}" apt-get update &&
       "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
         "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  exit 1
fi
