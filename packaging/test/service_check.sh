# shellcheck shell=sh
# Runs in a booted root: the service as its unit starts it, confined as its unit says.
systemctl start tarnlinkd
systemctl show -P StatusText tarnlinkd

show_code() {
  systemd-run --quiet --pipe --wait -p DynamicUser=yes -p User=tarnlinkd \
    -p StateDirectory=tarnlink -p StateDirectoryMode=0700 \
    tarnlinkd --show-pairing-code --preferences /var/lib/tarnlink/preferences.json
}
TARNLINK_CODE=$(show_code)
export TARNLINK_CODE
tarnlinkctl set-interface bus0
tarnlink-ied --interface ied0 --count 200 >/dev/null &
timeout 20 tarnlinkctl subscribe goose --count 2
# The reference is no shell text.
# shellcheck disable=SC2016
tarnlinkctl publish --gocb-ref 'IED1/LLN0$GO$g1' bool:true

# It holds CAP_NET_RAW (bit 13) and nothing else, under a user of its own and a system call filter.
pid=$(systemctl show -P MainPID tarnlinkd)
grep -E '^CapEff:[[:space:]]0000000000002000$' "/proc/$pid/status"
grep -E '^Seccomp:[[:space:]]2$' "/proc/$pid/status"
test "$(stat -c %U "/proc/$pid")" = tarnlinkd

# Web pages from elsewhere are refused.
bash -c 'exec 3<>/dev/tcp/127.0.0.1/8765
  printf "GET / HTTP/1.1\r\nHost: localhost\r\nOrigin: https://elsewhere.example\r\n\r\n" >&3
  head -n 1 <&3' | grep -F 'HTTP/1.1 403'

# D-Bus works from inside: the announcement reaches an independent client.
for try in 1 2 3 4 5 6 7 8 9 10; do
  if avahi-browse --resolve --parsable --terminate _tarnlink._tcp | grep '^=.*;8765;'; then break; fi
  test "$try" -lt 10
  sleep 1
done

systemctl stop tarnlinkd
test "$(systemctl show -P Result tarnlinkd)" = success
journalctl --quiet --output=cat -u tarnlinkd | grep -F '[BridgeServer] Stopped'
