#!/usr/bin/env bash
# on_process_bus.sh COMMAND...: runs it on a virtual process bus, in a network of its own that the
# kernel removes with its last process. The bridge belongs on bus0, all others on ied0. Without root
# it comes with a user namespace, which has no rights over the machine.
set -euo pipefail

own=(unshare --net)
((EUID == 0)) && "${own[@]}" true 2>/dev/null || own=(unshare --user --map-root-user --net)
if ! "${own[@]}" true 2>/dev/null; then
  echo "cannot make a private network: neither root nor allowed to make user namespaces" >&2
  exit 1
fi
export TARNLINK_PRIVATE_NETWORK=1
# Debian keeps ip in /sbin, which is not on the path of ordinary users.
# shellcheck disable=SC2016  # The inner shell's.
exec "${own[@]}" -- sh -c '
  ip() { PATH=$PATH:/usr/sbin:/sbin command ip "$@"; }
  set -e
  ip link set lo up
  ip link add bus0 type veth peer name ied0
  ip link set bus0 up
  ip link set ied0 up
  exec "$@"' sh "$@"
