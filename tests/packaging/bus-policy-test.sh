#!/usr/bin/env bash
# The helper's bus policy on a private system bus, with the real helper owning
# its name. With a group korvo: root and connections holding korvo at
# connect(), as effective (setgid) or supplementary group, reach the helper's
# three interfaces; another user reaches nothing; only root owns the name.
# Without a group korvo the bus still starts and only root gets through.
# Runs under tests/support/isolated: the bus listens at the system bus address
# in the test's own /run (a setgid client's libdbus ignores
# DBUS_SYSTEM_BUS_ADDRESS), and /etc/group is a bind mount in the test's own
# mount namespace, never the machine's.
#   bus-policy-test.sh HELPER-BINARY POLICY-FILE
set -euo pipefail
helper=$(realpath "$1")
policy=$(realpath "$2")
[ "${KORVO_ISOLATED:-}" = 1 ] || { echo "run me under tests/support/isolated" >&2; exit 2; }
name=com.tallowmar.korvo.utility
work=$(mktemp -d /tmp/korvo-policy-XXXXXX)
pids=()
failures=0
stop() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; pids=(); }
trap 'stop; umount /etc/group 2>/dev/null || true; rm -rf "$work"' EXIT

korvo_gid=4242
while getent group "$korvo_gid" >/dev/null; do korvo_gid=$((korvo_gid + 1)); done

# start with|without: /etc/group with or without korvo, a new bus and helper.
start() {
  stop
  umount /etc/group 2>/dev/null || true
  grep -v '^korvo:' /etc/group >"$work/group"
  [ "$1" = without ] || echo "korvo:x:$korvo_gid:" >>"$work/group"
  mount --bind "$work/group" /etc/group
  mkdir -p /run/dbus
  cat >"$work/bus.conf" <<EOF
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include ignore_missing="no">$policy</include>
</busconfig>
EOF
  dbus-daemon --config-file="$work/bus.conf" --fork --print-pid=3 3>"$work/pid" 2>"$work/bus.log" ||
    { echo "FAIL: dbus-daemon refused the policy ($1 a group korvo):"; cat "$work/bus.log"; exit 1; }
  pids+=("$(cat "$work/pid")")
  DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket "$helper" >"$work/helper.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 150); do
    dbus-send --system --reply-timeout=2000 --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
      org.freedesktop.DBus.NameHasOwner string:"$name" 2>/dev/null | grep -q 'boolean true' && return
    sleep 0.1
  done
  echo "FAIL: the helper did not take its name:"; cat "$work/helper.log"; exit 1
}

# expect reached|refused WHO DESTINATION PATH INTERFACE.METHOD [ARGUMENT...],
# WHO being "root" or setpriv options. "refused" is the bus's own refusal;
# any answer of the helper (a reply, an error, its own refusal) is "reached".
expect() {
  local want=$1 who=$2 got output
  shift 2
  local run=(dbus-send --system --reply-timeout=5000 --print-reply --dest="$1" "${@:2}")
  [ "$who" = root ] || run=(setpriv $who -- "${run[@]}")
  if output=$("${run[@]}" 2>&1); then got=reached
  elif [[ $output == *"Rejected send message"* || $output == *"is not allowed to own"* ]]; then got=refused
  elif [[ $output == "Error "* ]]; then got=reached
  else got="no answer"
  fi
  [ "$got" = "$want" ] || { echo "FAIL: [$who] $*: $got, expected $want: ${output%%$'\n'*}"; failures=$((failures + 1)); }
}

helper_call=("$name" /com/tallowmar/korvo/utility)
request=("${helper_call[@]}" com.tallowmar.korvo.utility.KorvoHelperToolProtocol.setVPNDebugLoggingEnabled)
own=(org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.RequestName string:"$name" uint32:0)
plain="--reuid=65534 --regid=65534 --clear-groups"
setgid="--reuid=65534 --rgid=65534 --egid=$korvo_gid --clear-groups"
member="--reuid=65534 --regid=65534 --groups=$korvo_gid"

start with
expect reached root "${request[@]}"
expect reached "$setgid" "${request[@]}"
expect reached "$member" "${request[@]}"
expect refused "$plain" "${request[@]}"
expect reached "$setgid" "${helper_call[@]}" org.freedesktop.DBus.Peer.Ping
expect reached "$setgid" "${helper_call[@]}" org.freedesktop.DBus.Introspectable.Introspect
expect refused "$plain" "${helper_call[@]}" org.freedesktop.DBus.Peer.Ping
expect refused "$setgid" "${helper_call[@]}" org.freedesktop.DBus.Properties.GetAll string:x
expect refused "$setgid" "${own[@]}"

start without
expect reached root "${request[@]}"
expect refused "$setgid" "${request[@]}"

[ "$failures" -eq 0 ] || { echo "$failures failures; the helper's log:"; cat "$work/helper.log"; exit 1; }
echo "bus policy: ok"
