#!/usr/bin/env bash
# The main job: cspfd serving a demo client over the example topology.
#
# On a fresh temporary tree: cspfctl plays the IS-IS side and the operator,
# cspfd computes, the demo client asks for four paths (three share a
# constraint, one avoids an interface); then a link fails and the paths
# that moved are shown, then the agent's own state dump. Everything started
# is stopped and the tree is removed, whatever happens.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=build/bin
root=$(mktemp -d /dev/shm/cspf-demo-XXXXXX)
log=$(mktemp /tmp/cspf-demo-build-XXXXXX.log)
agent=""
watcher=""
cleanup() {
  [ -n "$watcher" ] && kill "$watcher" 2>/dev/null || true
  if [ -n "$agent" ]; then
    kill -TERM "$agent" 2>/dev/null || true
    wait "$agent" 2>/dev/null || true
  fi
  rm -rf "$root" "$log"
}
trap cleanup EXIT

echo "Building (build/) ..."
bash tools/build.sh >"$log" 2>&1 || {
  cat "$log"
  exit 1
}

ctl() { "$bin/cspfctl" --root "$root" "$@"; }
step() { printf '\n== %s\n' "$*"; }
# Prints the first N result changes of the demo client, waiting at most 10 s.
changes() {
  ctl watch demo --count "$1" --timeout 10 >"$root/changes" 2>&1 &
  watcher=$!
  sleep 0.3
}
shown() {
  wait "$watcher" || true
  watcher=""
  cat "$root/changes"
}

step "The IS-IS side loads examples/topology.json (6 routers, both levels, a LAN)"
ctl topo load examples/topology.json
ctl te set --enabled yes --router-id 10.0.0.1
ctl intf set Ethernet1 --ipv4 10.1.12.0/31
ctl intf set Ethernet2 --ipv4 10.1.13.0/31
ctl te show

step "cspfd starts on a fresh tree ($root), as router r1 (10.0.0.1)"
MIVLOGDIR="$root" MIVLOG_DISABLE=1 "$bin/cspfd" --root "$root" &
agent=$!

step "Client 'demo' asks for four paths: three share one constraint (none), one avoids Ethernet2"
ctl client add demo
changes 4
ctl request add demo 10.0.0.6 --id 1
ctl request add demo 10.0.0.4 --id 1
ctl request add demo 10.0.0.5 --id 1
ctl request add demo 10.0.0.6 --id 2 --exclude Ethernet2
shown >/dev/null
ctl status demo

step "The link r1 Ethernet2 - r3 fails: the paths that moved"
changes 3
ctl topo link down r1 Ethernet2
shown

step "The agent's state dump"
ctl dump

step "Stopping cspfd"
kill -TERM "$agent"
wait "$agent"
agent=""
echo "cspfd stopped cleanly; the tree goes with the demo."
