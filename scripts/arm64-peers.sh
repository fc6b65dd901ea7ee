#!/usr/bin/env bash
# The benchmarks' peers for the device's architecture: Debian's arm64 packages, fetched and unpacked below a folder;
# nothing is installed, and the machine's own package state is not touched.
#   scripts/arm64-peers.sh FOLDER
set -euo pipefail

folder=$(realpath -m "$1")
packages=(libssl3 libssl-dev libglib2.0-0 libglib2.0-dev libpcre2-8-0 libpcre2-dev libinih1 libinih-dev)
[ "$(cat "$folder/root/packages" 2>/dev/null)" != "${packages[*]}" ] || exit 0

rm -rf "$folder"
mkdir -p "$folder"/apt/{lists,cache/archives}/partial "$folder/debs"
touch "$folder/apt/status"
cat >"$folder/apt/apt.conf" <<CONF
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
Acquire::Languages "none";
Dir::State "$folder/apt";
Dir::State::status "$folder/apt/status";
Dir::Cache "$folder/apt/cache";
CONF
export APT_CONFIG=$folder/apt/apt.conf
cd "$folder/debs"
if ! { apt-get update && apt-get download "${packages[@]}"; } >"$folder/log" 2>&1; then
  tail -n 20 "$folder/log" >&2
  exit 1
fi
for package in *.deb; do dpkg -x "$package" "$folder/unpacked"; done
mv "$folder/unpacked" "$folder/root"
echo "${packages[*]}" >"$folder/root/packages"
