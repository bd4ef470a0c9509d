#!/usr/bin/env bash
# The helper's systemd unit and sysusers.d entry, read by systemd's own tools
# (no running systemd needed): the unit passes "systemd-analyze verify"
# without a word, and the entry creates the system group korvo, with no
# members and nothing else.
#   check-packaging-files.sh UNIT-FILE SYSUSERS-FILE
set -euo pipefail
unit=$1
sysusers=$2
fail() { printf 'FAIL: %s\n' "$*" >&2; exit 1; }

# verify reports an unknown key or a value it cannot parse, then ignores it
# and exits 0: any output is a fault.
output=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify $unit: $output"
[ -z "$output" ] || fail "systemd-analyze verify $unit: $output"

# A misspelt capability is dropped without a word by the unit parser.
read -r -a capabilities <<<"$(sed -n 's/^CapabilityBoundingSet=//p' "$unit")"
[ "${#capabilities[@]}" -gt 0 ] || fail "$unit has no CapabilityBoundingSet="
systemd-analyze capability "${capabilities[@]}" >/dev/null || fail "$unit names an unknown capability"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir "$root/etc"
output=$(systemd-sysusers --root="$root" - <"$sysusers" 2>&1) || fail "systemd-sysusers: $output"
# Anything besides the one line about the group is a line it did not take.
if grep -v -e "^Creating group 'korvo' with GID [0-9]*\.$" -e '^$' <<<"$output"; then
  fail "systemd-sysusers said more than it should"
fi
line=$(cat "$root/etc/group")
[[ $line =~ ^korvo:x:([0-9]+):$ ]] || fail "expected the group korvo without members, got: $line"
[ "${BASH_REMATCH[1]}" -lt 1000 ] || fail "korvo is not a system group: $line"
[ ! -s "$root/etc/passwd" ] || fail "the entry creates users: $(cat "$root/etc/passwd")"
echo "packaging files: ok"
