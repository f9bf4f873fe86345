#!/usr/bin/env bash
# Runs the library's examples: examples_test.sh FOLDER. A frame decodes to its fields, and what one
# program publishes on a veth pair of the test's own another one captures.
set -euo pipefail
if [[ ${2:-} != inside ]]; then exec unshare --map-root-user --net "$0" "$1" inside; fi
PATH=$PATH:/usr/sbin:/sbin

"$1/decode_goose" | diff - <(cat <<'TEXT'
IED1LD0/LLN0$GO$gcb1 from 02:00:00:00:00:0A, VLAN 100: appId 4096, stNum 5, sqNum 6, t 1715932770.125, 3 values
  boolean true
  integer -5
  float 49.98
TEXT
)

ip link add bus0 type veth peer name ied0
ip link set bus0 up
ip link set ied0 up
captured=$(mktemp)
trap 'rm -f "$captured"' EXIT
"$1/capture_goose" bus0 >"$captured" 2>&1 &
capture=$!
until [[ $(wc -l </proc/net/packet) == 2 ]]; do sleep 0.05; done
"$1/publish_goose" ied0
ip link delete bus0 # The capture ends.
wait "$capture"
for number in 1 2 3; do
  grep -q "^IED1LD0/LLN0\$GO\$gcb1 stNum $number sqNum 6, 1 values\$" "$captured"
done
grep -q 'disappeared\|went down' "$captured"
