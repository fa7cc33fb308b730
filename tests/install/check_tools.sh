#!/usr/bin/env bash
# Installs into a temporary prefix and uses what users get there: the tools
# (which must find the installed library by themselves), the example
# configuration, the man pages and the API reference; then the installed
# simulator, orvctl, orvmon and (when built) orvbridge together on free ports.
set -euo pipefail
build_dir=$1
version=$2

work=$(mktemp -d "${TMPDIR:-/tmp}/orvatools-XXXXXX")
sim=""
cleanup() {
  if [ -n "$sim" ]; then
    kill "$sim" 2>/dev/null || true
    wait "$sim" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

tools=(orvsim orvmon orvctl orvrec orvplay)
# orvbridge is built only where Cyclone DDS is installed.
bridge=no
if [ -x "$build_dir/bin/orvbridge" ]; then
  bridge=yes
  tools+=(orvbridge)
fi
# orvsub takes no INI file: installed and documented like the rest.
subscriber=()
[ -x "$build_dir/bin/orvsub" ] && subscriber=(orvsub)

echo "== tools, man pages"
for tool in "${tools[@]}" "${subscriber[@]}"; do
  [ -x "$prefix/bin/$tool" ] || fail "bin/$tool was not installed"
  out=$(env -u LD_LIBRARY_PATH "$prefix/bin/$tool" --version) || fail "bin/$tool does not run from the prefix"
  [ "$out" = "$tool $version" ] || fail "bin/$tool --version says '$out'"
  page=$(find "$prefix" -path "*/man1/$tool.1" | head -n 1)
  [ -n "$page" ] || fail "no man page for $tool"
  grep -q "^\.TH ${tool^^} \"1\"" "$page" || fail "$page is not the man page of $tool"
  [ "$tool" = orvsub ] || grep -qF -- '\-\-ini' "$page" || fail "$page lacks the options"
done
grep -q "^reg: " "$(find "$prefix" -path '*/man1/orvctl.1')" || fail "orvctl's man page lacks its subcommands"

echo "== example configuration, API reference"
ini=$prefix/share/orvaccess/orvaccess.ini
[ -f "$ini" ] || fail "share/orvaccess/orvaccess.ini was not installed"
api=$prefix/share/doc/orvaccess/api
[ -f "$api/index.html" ] || fail "the API reference was not installed in share/doc/orvaccess/api"
grep -q "OrvAccess_getTrackingDataLatest" "$api/orvaccess_8h.html" || fail "the API reference lacks the C functions"
grep -q "getTrackingDataAtTime" "$api/classOrvAccess.html" || fail "the API reference lacks the class"
# Units in the record pages, the comment of an enumeration's last value (it
# has no comma for the filter to find), the wire numbers' page, and the C
# functions' links to the methods that document them.
for unit in "us on the library clock" "rad/s" "navigation frame"; do
  grep -q "$unit" "$api/structs__OrvAccessTrkDataExt.html" ||
    fail "the tracking record's page lacks '$unit'"
done
grep -q "sample interval, s" "$api/structs__OrvAccessImuData.html" || fail "the IMU record's page lacks its units"
grep -q "orvRx stopped streaming" "$api/orvwire_8h.html" ||
  fail "the API reference lacks orvwire.h or the comments of last enumerators"
grep -q 'Same as <a class="el" href="classOrvAccess.html#' "$api/orvaccess_8h.html" ||
  fail "the C functions do not link to the methods that document them"

echo "== the installed tools at work"
# Seven ports that nobody on this machine uses, below 32768 as the library needs.
port_free() {
  local hex
  hex=$(printf '%04X' "$1")
  ! grep -q ":$hex " /proc/net/tcp /proc/net/udp /proc/net/tcp6 /proc/net/udp6 2>/dev/null
}
ports=()
p=$((20000 + ($$ * 37) % 12000))
while [ ${#ports[@]} -lt 7 ]; do
  p=$((p + 1))
  [ $p -lt 32768 ] || p=20000
  if port_free $p; then ports+=("$p"); fi
done
cat >"$work/t.ini" <<INI
[Communication]
tcpOrvRxAddr = 127.0.0.1
tcpOrvRxPort = ${ports[0]}
udpOrvRxPort = ${ports[1]}
udpOrvRxImgPort = ${ports[2]}
udpOrvRxInputPort = ${ports[3]}
udpOrvCorePort = ${ports[4]}
udpOrvHubPort = ${ports[5]}
udpNftPort = ${ports[6]}
sMemImgName = orvInstall$$
INI
mkdir "$work/files"
"$prefix/bin/orvsim" --ini "$work/t.ini" --duration 30 --files "$work/files" >"$work/sim.out" 2>"$work/sim.err" &
sim=$!
ctl() { env -u LD_LIBRARY_PATH "$prefix/bin/orvctl" --ini "$work/t.ini" "$@"; }
# orvsim says "serving" once its ports are open; the limit only ends a hung start.
for _ in $(seq 600); do
  grep -q serving "$work/sim.err" && break
  kill -0 "$sim" 2>/dev/null || fail "orvsim ended at its start: $(cat "$work/sim.err")"
  sleep 0.05
done
rc=0
out=$(ctl reg set 0x10 7 2>/dev/null) || rc=$?
[ "$out" = "0x000010 = 0x07 (7)" ] || fail "orvctl reg set: '$out' (exit $rc)"
out=$(ctl reg get 0x10) || fail "orvctl reg get failed"
[ "$out" = "0x000010 = 0x07 (7)" ] || fail "orvctl reg get: '$out'"
ctl check >"$work/check.out" || fail "orvctl check found problems: $(cat "$work/check.out")"
env -u LD_LIBRARY_PATH "$prefix/bin/orvmon" --ini "$work/t.ini" --plain --duration 1 >"$work/mon.out" ||
  fail "orvmon failed: $(cat "$work/mon.out")"
grep -Eq "^records +tracking +[1-9][0-9]* " "$work/mon.out" || fail "orvmon saw no tracking: $(cat "$work/mon.out")"
if [ $bridge = yes ]; then
  # Loopback only, in a domain of this run's own.
  cat >"$work/cyclone.xml" <<XML
<CycloneDDS><Domain id="any"><General><Interfaces><NetworkInterface address="127.0.0.1"/></Interfaces><AllowMulticast>false</AllowMulticast></General><Discovery><Peers><Peer address="127.0.0.1"/></Peers><ParticipantIndex>auto</ParticipantIndex><MaxAutoParticipantIndex>20</MaxAutoParticipantIndex></Discovery></Domain></CycloneDDS>
XML
  CYCLONEDDS_URI="file://$work/cyclone.xml" env -u LD_LIBRARY_PATH "$prefix/bin/orvbridge" --ini "$work/t.ini" \
    --domain $((1 + $$ % 200)) --duration 1 >"$work/bridge.out" 2>"$work/bridge.err" ||
    fail "orvbridge failed: $(cat "$work/bridge.err")"
  grep -Eq "^ +rt/orv/pose +[1-9][0-9]*$" "$work/bridge.out" || fail "orvbridge published no pose: $(cat "$work/bridge.out")"
fi
echo "ok"
