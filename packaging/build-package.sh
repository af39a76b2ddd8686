#!/usr/bin/env bash
# Builds the Debian package in a configured, built build directory and
# checks it as a package build does: lintian must find no error, and
# systemd-analyze must accept its units (the daemon, the timer and the
# service it starts) without a word, judged among the system's units with
# the package's own man pages.
# Usage: packaging/build-package.sh BUILD_DIR
set -euo pipefail
built=$(cd "$1" && cpack -G DEB)
deb=$(sed -n 's/^CPack: - package: \(.*\) generated\.$/\1/p' <<<"$built")
[ -f "$deb" ] || { echo "$built"; exit 1; }
lintian --display-info --fail-on error "$deb"
root=$(mktemp -d "${TMPDIR:-/tmp}/corvid-package.XXXXXX")
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/usr/lib/systemd" && cp -a /lib/systemd/system "$root/usr/lib/systemd/"
dpkg-deb -x "$deb" "$root"
mapfile -t units < <(dpkg-deb -c "$deb" | sed -n 's#.* \.\(/.*/systemd/system/corvid-update.*\.\(service\|timer\)\)$#\1#p')
[ ${#units[@]} -eq 3 ] || { echo "expected three units in $deb, found: ${units[*]}"; exit 1; }
verdict=$(MANPATH="$root/usr/share/man" systemd-analyze verify --root="$root" "${units[@]}" 2>&1) &&
  [ -z "$verdict" ] || { echo "systemd-analyze verify ${units[*]}: $verdict"; exit 1; }
echo "$deb"
