#!/usr/bin/env bash
# Serves a copy of examples/ on loopback with a private nginx, signs its
# descriptions with a key made for the occasion, and runs corvid-update
# against it in a throw-away agent root that trusts that key: an install,
# which asks, downloads and runs the update's commands, then a check that
# finds everything up to date; then the daemon, serve, on a private socket,
# with its client asking for the status; last, a served update.ini with one
# byte changed, which the agent refuses. Usage: examples/demo.sh BIN_DIR
set -euo pipefail

BIN=${1:?usage: demo.sh BIN_DIR}
HOST="$BIN/corvid-update"
CLIENT="$BIN/corvid-update-client"
SIGN="$BIN/corvid-update-sign"
EXAMPLES=$(cd "$(dirname "$0")" && pwd)
NGINX=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$HOST" ] || { echo "demo: $HOST is not built" >&2; exit 1; }
[ -x "$NGINX" ] || { echo "demo: nginx is not installed" >&2; exit 1; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/corvid-demo.XXXXXX")
NGINX_PID=""
SERVE_PID=""
cleanup() {
  if [ -n "$SERVE_PID" ]; then
    kill "$SERVE_PID" 2>/dev/null || true
    wait "$SERVE_PID" 2>/dev/null || true
  fi
  if [ -n "$NGINX_PID" ]; then
    kill "$NGINX_PID" 2>/dev/null || true
    wait "$NGINX_PID" 2>/dev/null || true
  fi
  rm -rf "$WORK"
}
trap cleanup EXIT

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1]); s.close()'
}

# One nginx process as the calling user: no master, no daemon, everything
# it writes inside $WORK. A port taken between asking and binding is retried.
start_nginx() {
  mkdir -p "$WORK/nginx/logs" "$WORK/nginx/tmp"
  for _ in 1 2 3 4 5; do
    PORT=$(free_port)
    cat > "$WORK/nginx/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $WORK/nginx/logs/nginx.pid;
error_log $WORK/nginx/logs/error.log warn;
events { worker_connections 64; }
http {
  default_type application/octet-stream;
  access_log $WORK/nginx/logs/access.log;
  client_body_temp_path $WORK/nginx/tmp/body;
  proxy_temp_path $WORK/nginx/tmp/proxy;
  fastcgi_temp_path $WORK/nginx/tmp/fastcgi;
  uwsgi_temp_path $WORK/nginx/tmp/uwsgi;
  scgi_temp_path $WORK/nginx/tmp/scgi;
  server {
    listen 127.0.0.1:$PORT;
    root $SERVED;
  }
}
CONF
    rm -f "$WORK/nginx/logs/nginx.pid"
    "$NGINX" -p "$WORK/nginx/" -c "$WORK/nginx/nginx.conf" -e "$WORK/nginx/logs/error.log" \
      >"$WORK/nginx/logs/stderr.log" 2>&1 &
    NGINX_PID=$!
    # nginx writes its PID file once it listens.
    for _ in $(seq 100); do
      [ -s "$WORK/nginx/logs/nginx.pid" ] && return 0
      kill -0 "$NGINX_PID" 2>/dev/null || break
      sleep 0.05
    done
    kill "$NGINX_PID" 2>/dev/null || true
    wait "$NGINX_PID" 2>/dev/null || true
    NGINX_PID=""
  done
  echo "demo: nginx did not start:" >&2
  cat "$WORK/nginx/logs/error.log" "$WORK/nginx/logs/stderr.log" >&2 2>/dev/null || true
  exit 1
}

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

# The served copy gets the signatures; examples/ stays as it is.
SERVED="$WORK/served"
mkdir -p "$SERVED"
cp -R "$EXAMPLES/agent" "$EXAMPLES/repo" "$EXAMPLES/sections" "$SERVED/"
start_nginx
SOURCE="http://127.0.0.1:$PORT/repo/"
AGENT_SOURCE="http://127.0.0.1:$PORT/agent/"
ROOT="$WORK/agent"
step "update source $AGENT_SOURCE (the agent itself: its main rule) serves:"
sed -n '/^\[/,$p' "$SERVED/agent/update.ini"
step "update source $SOURCE (the tools) serves:"
sed -n '/^\[/,$p' "$SERVED/repo/update.ini"

step "corvid-update-sign keygen --type gost2012 $WORK/keys/release (the publisher's key pair)"
mkdir -p "$WORK/keys"
"$SIGN" keygen --type gost2012 "$WORK/keys/release"
step "corvid-update-sign sign --key $WORK/keys/release.key --serial 1 --expires 30 (each served update.ini)"
for source in agent repo sections; do
  "$SIGN" sign --key "$WORK/keys/release.key" --serial 1 --expires 30 "$SERVED/$source/update.ini"
done
cat "$SERVED/repo/update.ini.sig"
# Every agent root of the demo trusts the key, in its default directory.
for agent_root in "$ROOT" "$WORK/agent-1.0" "$WORK/agent-2.0"; do
  mkdir -p "$agent_root/etc/update-keys"
  cp "$WORK/keys/release.pub" "$agent_root/etc/update-keys/"
done
echo "(the agents trust it: etc/update-keys/release.pub in their roots)"

set +e
step "corvid-update --root $ROOT check $AGENT_SOURCE $SOURCE"
"$HOST" --root "$ROOT" --cmdid demo-0 check "$AGENT_SOURCE" "$SOURCE" 2>/dev/null
echo "(exit status $?)"
step "each source passed its signature check (from the log)"
grep -a "$(printf '\tsignature\t')" "$ROOT/log/corvid_update.log" | cut -f4-

step "corvid-update --root $ROOT --answer yes install $AGENT_SOURCE $SOURCE"
echo "(the host is its own client: it answers the question and runs the user's command)"
"$HOST" --root "$ROOT" --cmdid demo-1 --answer yes install "$AGENT_SOURCE" "$SOURCE"
echo "(exit status $?)"
step "the version records the install commands wrote"
for f in "$ROOT"/var/update/*.version; do echo "$(basename "$f"): $(cat "$f")"; done

step "corvid-update --root $ROOT check $AGENT_SOURCE $SOURCE (a second look)"
"$HOST" --root "$ROOT" --cmdid demo-2 check "$AGENT_SOURCE" "$SOURCE" 2>/dev/null
echo "(exit status $?)"
step "corvid-update --root $ROOT status (a new process reads back what the check left)"
"$HOST" --root "$ROOT" status 2>/dev/null
echo "(exit status $?)"

SOCKET="$WORK/bridge.sock"
step "corvid-update --root $ROOT --socket $SOCKET serve &"
"$HOST" --root "$ROOT" --socket "$SOCKET" serve </dev/null >/dev/null 2>&1 &
SERVE_PID=$!
for _ in $(seq 100); do [ -S "$SOCKET" ] && break; sleep 0.05; done
ls -l "$SOCKET"
step "corvid-update-client --socket $SOCKET status --once"
"$CLIENT" --socket "$SOCKET" status --once
echo "(exit status $?)"
step "corvid-update-client --socket $SOCKET check $AGENT_SOURCE $SOURCE"
"$CLIENT" --socket "$SOCKET" check "$AGENT_SOURCE" "$SOURCE"
echo "(exit status $?)"
step "corvid-update-client --socket $SOCKET status --json"
"$CLIENT" --socket "$SOCKET" status --json
echo "(exit status $?)"
step "corvid-update-client --socket $SOCKET xml"
"$CLIENT" --socket "$SOCKET" xml
echo "(exit status $?)"
step "stopping the daemon (SIGTERM)"
kill -TERM "$SERVE_PID"
wait "$SERVE_PID"
echo "(exit status $?)"
SERVE_PID=""
set -e

step "what the run left in the update directory ($ROOT/var/update)"
ls -l "$ROOT/var/update"
step "the log ($ROOT/log/corvid_update.log)"
cat "$ROOT/log/corvid_update.log"

# ---- The file-section example: one description, two machines ----------------
# examples/sections/update.ini lets conditions choose per machine; two agent
# roots that differ only in --product-version get different rules from it.
SECTIONS="http://127.0.0.1:$PORT/sections/"
step "update source $SECTIONS serves:"
sed -n '/^\[/,$p' "$SERVED/sections/update.ini"
for version in 1.0 2.0; do
  agent_root="$WORK/agent-$version"
  for command in check download; do
    step "corvid-update --root $agent_root --product-version $version $command $SECTIONS"
    set +e
    "$HOST" --root "$agent_root" --product-version "$version" --cmdid "demo-$version" "$command" "$SECTIONS"
    echo "(exit status $?)"
    set -e
  done
  step "what agent $version downloaded"
  ls "$agent_root/var/update"
  sed -n 3p "$agent_root/var/update/corvid-tool.sh"
  step "how agent $version chose among the sections (from its log of the download)"
  sed -n '/processing command: download/,$p' "$agent_root/log/corvid_update.log" |
    grep -a -e 'file section #' -e 'sections were skipped' | cut -f3- | tr '\t' ' '
done

# ---- A changed byte: the signature no longer matches --------------------------
step "one byte of the served $SOURCE update.ini changes (version.1=1.1 becomes 1.2)"
sed -i 's/^version\.1=1\.1$/version.1=1.2/' "$SERVED/repo/update.ini"
grep '^version\.1=' "$SERVED/repo/update.ini"
step "corvid-update --root $ROOT check $SOURCE"
set +e
"$HOST" --root "$ROOT" --cmdid demo-4 check "$SOURCE" 2>/dev/null
echo "(exit status $?)"
set -e
step "nothing of the refused source was used: the saved description and the serials stand"
grep '^version\.1=' "$ROOT/var/update/corvid_update.ini"
cat "$ROOT/var/update/corvid_update_serials"
