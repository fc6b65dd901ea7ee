#!/usr/bin/env bash
# The benchmarks' peers for the device's architecture: Debian's arm64 packages, fetched and unpacked below a folder;
# nothing is installed, and the machine's own package state is not touched.
#   scripts/arm64-peers.sh FOLDER
set -euo pipefail

with_dependencies=(libssl3 libglib2.0-0 libinih1 libavcodec59 libgstreamer1.0-0)
alone=(libssl-dev libglib2.0-dev libinih-dev libavcodec-dev libavutil-dev libgstreamer1.0-dev
  libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev libgstreamer-plugins-bad1.0-0)

folder=$(realpath -m "$1")
wanted="${with_dependencies[*]} ${alone[*]}"
[ "$(cat "$folder/root/packages" 2>/dev/null)" != "$wanted" ] || exit 0

fetch() {
  apt-get update
  apt-get install -y --download-only --no-install-recommends "${with_dependencies[@]}"
  cd "$folder/cache/archives"
  apt-get download "${alone[@]}"
}

echo "Fetching the peers' arm64 packages"
rm -rf "$folder"
mkdir -p "$folder"/{lists,cache/archives}/partial
touch "$folder/status"
cat >"$folder/apt.conf" <<CONF
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
Acquire::Languages "none";
Debug::NoLocking "true";
Dir::State "$folder";
Dir::State::status "$folder/status";
Dir::Cache "$folder/cache";
CONF
if ! (APT_CONFIG=$folder/apt.conf; export APT_CONFIG; fetch) >"$folder/log" 2>&1; then
  tail -n 20 "$folder/log" >&2
  exit 1
fi
for package in "$folder"/cache/archives/*.deb; do dpkg -x "$package" "$folder/root"; done
# What the peers need privately is not compiled against here, and its .pc files are not there.
sed -i '/^Requires.private/d' "$folder"/root/usr/lib/aarch64-linux-gnu/pkgconfig/*.pc
rm -rf "$folder/cache" "$folder/lists"
echo "$wanted" >"$folder/root/packages"
