#!/usr/bin/env bash
# Follows README.md and docs/porting.md word for word, as a stranger would: in a clone whose path holds blanks, under
# a careful umask, with a /usr/local of its own and no LD_LIBRARY_PATH. Every block of shell commands is run, in
# order, and what a plain block shows after it has to be printed ("..." is anything). What `make demo` prints fits
# 80 columns.
#   scripts/check-pages.sh [FOLDER]   (where the clone is made, and left; it must not be there yet)
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${OWN_MOUNTS:-}" ]; then
  as_root=()
  [ "$(id -u)" = 0 ] || as_root=(--map-root-user)
  OWN_MOUNTS=1 exec unshare --mount "${as_root[@]}" "$0" "$@"
fi
mount -t tmpfs none /usr/local
# A copy of /etc, for the loader's cache. What may not be read is not needed.
mount -t tmpfs none /mnt
cp -a /etc/. /mnt 2>/dev/null || true
mount --bind /mnt /etc

clone=${1:-$(mktemp -d)/"a stranger's clone"}
git clone --quiet . "$clone"
cd "$clone"
unset LD_LIBRARY_PATH
umask 077
fail() {
  echo "check-pages: $*" >&2
  exit 1
}

# Of a page, a script: blocks of commands as they stand, plain blocks as what is expected.
script_of() {
  awk '
    /^```sh$/ { inside = "sh"; next }
    /^```$/ && inside == "" { inside = "shown"; print "expect <<\"END_OF_BLOCK\""; next }
    /^```$/ { if (inside == "shown") print "END_OF_BLOCK"; inside = ""; next }
    /^```/ { inside = "other"; next }
    inside == "sh" || inside == "shown"' "$1"
}
# expect <SHOWN: the log so far holds these lines, one after another. It does not trace what it looks for.
expect() {
  { set +x; } 2>/dev/null
  local shown
  shown=$(sed 's/[][\\*?]/\\&/g; s/\.\.\./*/g')
  # shellcheck disable=SC2053
  [[ $(<"$PWD/build/page.log") == *$shown* ]] || { echo "NOT PRINTED: $shown"; exit 1; }
  set -x
}
export -f expect
mkdir build
for page in README.md docs/porting.md; do
  script_of "$page" >build/page.sh
  grep -q '^cmake ' build/page.sh || fail "no commands in $page"
  echo "$page: $(grep -c . build/page.sh) lines"
  bash -euxo pipefail build/page.sh >build/page.log 2>&1 || { cat build/page.log; fail "$page"; }
  grep -E '^\+ [^es]|tests passed|^skipped' build/page.log | cut -c1-120
  long=$(sed -n '/^+ make demo/,/^+ make test/p' build/page.log | awk 'length($0) > 80')
  [ -z "$long" ] || fail "longer than 80 columns: $long"
done
[ -z "$(find build/device build/image -name 'libqmxbase*')" ] || fail "a stand-in over a device's library"
# A port does not take the tests along: they are still there, and still run over the stand-in.
scripts/run-tests.sh release -R exports >/dev/null
if ctest --preset release -R no-such-test >/dev/null 2>&1; then fail "no test ran, and that passed"; fi
echo "README.md and docs/porting.md hold"
