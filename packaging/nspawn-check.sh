#!/usr/bin/env bash
# Tries the package under a real systemd: boots a Debian 12 tree with
# systemd-nspawn (systemd as PID 1, driven with nsenter), installs the
# package and plays an administrator's fleet machine:
#   - the README's steps: a source in /etc/corvid-update/sources, the daemon
#     and the timer enabled; the timer is daily with its randomized delay,
#     and a drop-in that makes it fire at once installs the source's update;
#   - a new release and a changed sources file reach the next run without a
#     restart, and status --json shows its outcome;
#   - bad input: a sources line that is not a URI, an unknown policy, a run
#     while the daemon is down: each run fails with its message in the
#     journal and the log, and the status stays as it was;
#   - the log rotated twice by logrotate under a running command: every line
#     whole, in the files the rotation left;
#   - the daemon killed with SIGKILL comes back.
# Usage: packaging/nspawn-check.sh DEB
# The Debian tree is made once with debootstrap and kept in
# $CORVID_NSPAWN_CACHE (default /var/tmp/corvid-update-bookworm); each check
# boots a copy of it, removed at the end unless CORVID_NSPAWN_KEEP=1.
set -euo pipefail
deb=$(realpath "$1")
cache=${CORVID_NSPAWN_CACHE:-/var/tmp/corvid-update-bookworm}
mirror=${CORVID_DEBIAN_MIRROR:-http://deb.debian.org/debian}
failures=0
ok() { echo "ok: $*"; }
bad() { echo "FAIL: $*"; failures=$((failures + 1)); }
check() { local what=$1; shift; if "$@"; then ok "$what"; else bad "$what"; fi; }

if [ ! -x "$cache/lib/systemd/systemd" ]; then
  echo "nspawn-check: making the Debian 12 tree in $cache (once)" >&2
  debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,libcurl4,libpugixml1v5,libgcrypt20,logrotate,adduser \
    bookworm "$cache.tmp" "$mirror" >/dev/null
  mv "$cache.tmp" "$cache"
fi
work=$(mktemp -d "${TMPDIR:-/var/tmp}/corvid-nspawn.XXXXXX")
tree=$work/root
cp -a "$cache" "$tree"
cp "$deb" "$tree/root/corvid-update.deb"
# What the package depends on and a tree made for an older one lacks comes
# from the host's apt, so that dpkg installs it beside the package.
mkdir -p "$tree/root/deps"
for dep in $(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/^ *//; s/[ |(].*//'); do
  dpkg --root="$tree" -s "$dep" >/dev/null 2>&1 || (cd "$tree/root/deps" && apt-get -q -o APT::Sandbox::User=root download "$dep" >/dev/null)
done

# The update source, served as a file: URI: one tool whose install command
# copies it into place and leaves its version record.
publish() {  # version, seconds the install command takes
  local repo=$tree/srv/repo
  mkdir -p "$repo"
  printf 'corvid tool %s\n' "$1" > "$repo/tool.txt"
  cat > "$repo/update.ini" <<EOF
[corvid]
version.1=$1
file.1=tool.txt
hash.1=#GOST3411_256_2012:$(rhash --printf='%{gost12-256}' "$repo/tool.txt")
filesize.1=$(stat -c %s "$repo/tool.txt")
exec.1=sh -c "sleep $2; cp \$download_path/tool.txt /usr/local/share/corvid-tool.txt && echo $1 > \$update_path/tool.txt.version"
exec_wait.1=1
EOF
}
publish 1.0 0

systemd-nspawn -q -D "$tree" --register=no --keep-unit --console=passive -b >"$work/console.log" 2>&1 &
nspawn=$!
finish() {
  kill "$nspawn" 2>/dev/null && wait "$nspawn" 2>/dev/null
  if [ "${CORVID_NSPAWN_KEEP:-0}" = 1 ]; then echo "nspawn-check: the tree stays in $tree" >&2; else rm -rf "$work"; fi
}
trap finish EXIT
leader=
for _ in $(seq 100); do
  leader=$(pgrep -P "$nspawn" || true)
  [ -n "$leader" ] && [ "$(cat "/proc/$leader/comm" 2>/dev/null)" = systemd ] && break
  sleep 0.1
done
[ -n "$leader" ] || { echo "nspawn-check: the container did not start"; cat "$work/console.log"; exit 1; }
inside() { nsenter -t "$leader" -a env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
state=
for _ in $(seq 100); do  # until its bus answers
  state=$(inside systemctl is-system-running --wait 2>/dev/null) && break
  [ -n "$state" ] && break
  sleep 0.1
done
echo "nspawn-check: booted, systemd is $state"

log=/var/log/corvid-update/corvid_update.log
unit=corvid-update-unattended
json() { inside corvid-update-client status --json; }
journal_has() {  # journald may take a moment to store what the run printed
  for _ in $(seq 50); do
    inside journalctl -q -u "$unit" --no-pager | grep -qF -- "$1" && return 0
    sleep 0.1
  done
  return 1
}
log_has() { inside cat "$log" | grep -qF -- "$1"; }
# Starts the unattended service once; it must end with the given exit status.
run_unattended() {  # status
  inside systemctl start "$unit.service" >/dev/null 2>&1 || true
  [ "$(inside systemctl show -P ExecMainStatus "$unit.service")" = "$1" ]
}

check "the package installs" inside sh -c 'set -- /root/deps/*.deb; [ -e "$1" ] || set --; dpkg -i "$@" /root/corvid-update.deb >/dev/null'
timer() { inside systemctl show -P "$1" $unit.timer; }
check "the timer is daily, spread over six hours, and catches up" \
  test "$(timer TimersCalendar | grep -o 'OnCalendar=[^;]*') $(timer RandomizedDelayUSec) $(timer Persistent)" \
  = "OnCalendar=*-*-* 00:00:00  6h yes"
# The README's steps.
inside sh -c 'echo file:///srv/repo/ >> /etc/corvid-update/sources'
inside systemctl enable --now corvid-update.service 2>/dev/null
inside systemctl enable --now $unit.timer 2>/dev/null
check "the timer is waiting" test "$(inside systemctl is-active $unit.timer)" = active
mkdir -p "$tree/etc/systemd/system/$unit.timer.d"
printf '[Timer]\nOnCalendar=\nOnActiveSec=1s\nRandomizedDelaySec=0\n' > "$tree/etc/systemd/system/$unit.timer.d/now.conf"
inside systemctl daemon-reload
inside systemctl restart $unit.timer
for _ in $(seq 300); do
  [ -n "$(inside systemctl show -P ExecMainExitTimestamp $unit.service)" ] && break
  sleep 0.2
done
check "the timer's run installs the release and exits 0" test \
  "$(inside systemctl show -P ExecMainStatus $unit.service) $(cat "$tree/usr/local/share/corvid-tool.txt" 2>&1)" \
  = "0 corvid tool 1.0"
check "the journal holds the run's outcome" journal_has "status: uptodate"
rm "$tree/etc/systemd/system/$unit.timer.d/now.conf"
inside systemctl daemon-reload

publish 1.1 0
# A second source, whose one file is given to no machine yet.
mkdir -p "$tree/srv/other"
printf '[corvid]\ncan_skip.later.txt=yes\n[corvid.file=later.txt]\napply_if.rollout=0%%\nupdate_version=1\ndownload_file=$(null)\nexec=true\n' \
  > "$tree/srv/other/update.ini"
inside sh -c 'echo "  file:///srv/other/   # not a comment: a blank ends no URI" >> /etc/corvid-update/sources' || true
check "a sources line with a blank inside fails the run" run_unattended 1
check "the journal says which line" journal_has "line 8: a blank or control character in the URI"
inside sed -i '$d' /etc/corvid-update/sources
inside sh -c 'echo "file:///srv/other/" >> /etc/corvid-update/sources'
check "a new release and a new source need no restart" run_unattended 0
check "the new release is installed" test "$(cat "$tree/usr/local/share/corvid-tool.txt")" = "corvid tool 1.1"
check "the file of no machine's share is skipped" log_has "all sections were skipped for file: later.txt"
before=$(json)
check "status --json tells the run" grep -q '"result":"uptodate".*"id":"unattended-' <<<"$before"

inside sh -c 'echo "ftp://elsewhere/" >> /etc/corvid-update/sources'
check "a sources line that is not a URI fails the run" run_unattended 1
check "the journal says why" journal_has "sources file /etc/corvid-update/sources: line 9: not an http, https or file URI: ftp://elsewhere/"
check "so does the log" log_has "line 9: not an http, https or file URI"
inside sed -i '$d' /etc/corvid-update/sources
inside sed -i 's/^CORVID_UPDATE_UNATTENDED=.*/CORVID_UPDATE_UNATTENDED="sometimes"/' /etc/default/corvid-update
check "an unknown policy fails the run with status 2" run_unattended 2
check "the journal names the policy" journal_has 'unknown unattended policy "sometimes"'
check "so does the log" log_has 'unknown unattended policy "sometimes"'
inside sed -i 's/^CORVID_UPDATE_UNATTENDED=.*/CORVID_UPDATE_UNATTENDED="install"/' /etc/default/corvid-update
inside systemctl stop corvid-update.service
check "a run while the daemon is down fails" run_unattended 1
check "the journal says so" journal_has "cannot connect to /run/corvid-update/corvid_bridge.sock"
check "so does the log" log_has "cannot connect to /run/corvid-update/corvid_bridge.sock"
inside systemctl start corvid-update.service
for _ in $(seq 50); do inside test -S /run/corvid-update/corvid_bridge.sock && break; sleep 0.1; done
check "the status is the last run's" test "$(json)" = "$before"

# Rotations while an install command runs: each line lands whole in one
# of the files the rotations leave.
publish 1.2 3
inside corvid-update-client update > "$work/update.out" 2>&1 &
client=$!
sleep 1
inside logrotate -f /etc/logrotate.d/corvid-update
sleep 0.5
inside logrotate -f /etc/logrotate.d/corvid-update
wait "$client" || true
check "the install went on through the rotations" grep -q "status: uptodate" "$work/update.out"
all=$(inside sh -c "zcat -f $log.2.gz $log.1 $log")
check "the rotations left three files" inside test -f $log.2.gz -a -f $log.1 -a -f $log
check "the daemon reopened its log twice" test "$(grep -c $'\tserve\tlog reopened' <<<"$all")" = 2
check "the run's first line is in the oldest file" \
  grep -qE $'\tclient command\t--cmdid client-[0-9-]+ -- install$' <<<"$(inside zcat $log.2.gz)"
check "and its last in the newest" grep -q $'\tdone\tcommand: install, result: uptodate' <<<"$(inside cat $log)"
check "every line is whole" test -z "$(grep -vE $'^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]{12}Z\t36[567]\t' <<<"$all")"
check "the files are the group's to read" test "$(inside stat -c '%a %G' $log)" = "640 corvid"

inside systemctl kill -s KILL corvid-update.service
for _ in $(seq 100); do
  [ "$(inside systemctl show -P NRestarts corvid-update.service)" = 1 ] && inside test -S /run/corvid-update/corvid_bridge.sock && break
  sleep 0.2
done
check "the daemon comes back after SIGKILL" test "$(inside corvid-update-client status --once)" = "status: uptodate"

echo "nspawn-check: $failures failed"
[ "$failures" -eq 0 ]
