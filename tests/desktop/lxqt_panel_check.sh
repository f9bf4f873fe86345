#!/usr/bin/env bash
# Watches the desktop program in a status bar that people use, LXQt's panel, on a display, a session
# bus and a network of its own. Needs root, and the packages lxqt-panel, openbox, xdotool, xclip,
# xvfb, dbus-daemon, libglib2.0-bin, imagemagick, iproute2 and util-linux.
#
# Usage: lxqt_panel_check.sh FOLDER_OF_THE_PROGRAMS [FOLDER_FOR_SCREENSHOTS]
set -euo pipefail

if [[ ${1:-} != --inside ]]; then
  [[ -x ${1:-}/tarnlink ]] || { echo "usage: ${0##*/} FOLDER_OF_THE_PROGRAMS [SCREENSHOTS]" >&2; exit 2; }
  # Whatever is started inside ends with the process namespace.
  exec timeout --signal=KILL 60 unshare --net --pid --fork --mount-proc --kill-child \
    "$(readlink -f "$0")" --inside "$(readlink -f "$1")" "$(readlink -f "${2:-/nonexistent}")"
fi
programs=$2 screenshots=$3

home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
fail() {
  echo "FAILED: $*" >&2
  screenshot failed
  tail -n 20 "$home"/*.log >&2
  exit 1
}
# Runs the command $2… until it succeeds, for ten seconds at most; $1 says what is awaited.
await() {
  local what=$1
  shift
  for _ in {1..100}; do
    if "$@" >/dev/null 2>&1; then
      echo "ok: $what"
      return
    fi
    sleep 0.1
  done
  fail "$what"
}

export HOME=$home XDG_CONFIG_HOME=$home XDG_CACHE_HOME=$home XDG_RUNTIME_DIR=$home LC_ALL=C.UTF-8
export DBUS_SESSION_BUS_ADDRESS=unix:path=$home/bus
unset WAYLAND_DISPLAY
ip link set lo up
ip link add bus0 type veth peer name ied0
ip link set bus0 up
ip link set ied0 up
dbus-daemon --session --nofork --nopidfile --address="$DBUS_SESSION_BUS_ADDRESS" &>"$home/bus.log" &
Xvfb -displayfd 9 -ac -nolisten tcp -screen 0 800x600x24 9>"$home/display" 2>"$home/xvfb.log" &
await 'display' test -s "$home/display"
DISPLAY=:$(<"$home/display")
export DISPLAY
openbox &>"$home/openbox.log" &

# The icon is the only thing in the panel, so it is in the lower right corner.
cat >"$home/panel.conf" <<'CONF'
panels=panel1

[panel1]
plugins=statusnotifier, tray
position=Bottom
desktop=0
panelSize=40
iconSize=32

[statusnotifier]
alignment=Right
type=statusnotifier

[tray]
alignment=Right
type=tray
CONF
start_panel() {
  lxqt-panel --configfile "$home/panel.conf" &>>"$home/panel.log" &
  panel=$!
}
start_tarnlink() {
  "$programs/tarnlink" &>"$home/tarnlink.log" &
  tarnlink=$!
}

logs() { grep -qF -- "$1" "$home/tarnlink.log"; }
serves() { : 2>/dev/null </dev/tcp/127.0.0.1/8765; }
# The item that the panel's watcher lists: its name on the bus.
item() {
  gdbus call --session --dest org.kde.StatusNotifierWatcher --object-path /StatusNotifierWatcher \
    --method org.freedesktop.DBus.Properties.Get org.kde.StatusNotifierWatcher \
    RegisteredStatusNotifierItems 2>/dev/null | grep -oE ':[0-9]+\.[0-9]+'
}
# The menu as the panel gets it: "x" before what is disabled, "*" before what is checked.
menu() {
  gdbus call --session --dest "$(item)" --object-path /MenuBar \
    --method com.canonical.dbusmenu.GetLayout 0 -- -1 '[]' | sed 's/, <(/\n/g' | sed -nE \
    "s/.*'separator'.*/-/p; /'label'/{s/.*'enabled': <false>/x&/; s/.*'toggle-state': <1>/*&/
     s/^([x*]?).*'label': <'([^>]*)'>.*/\1\2/p}"
}
menu_has() { menu | grep -cxF -- "$1"; }
screenshot() { [[ ! -d $screenshots ]] || import -window root "$screenshots/$1.png"; }
# The icon is drawn in one blue while the bridge serves.
icon_shows() { import -window root -depth 8 -crop 40x40+760+560 txt:- | grep -cF '#2684D8'; }
icon_gone() { ! icon_shows; }
# Clicks with the button $2 on the icon, and sets x, y, width and height of the menu that a window
# of the class $1 then shows.
menu_of() {
  local window
  for window in $(xdotool search --onlyvisible --class "$1" 2>/dev/null); do
    read -r x y width height < <(xdotool getwindowgeometry --shell "$window" 2>/dev/null |
      sed -nE 's/^(X|Y|WIDTH|HEIGHT)=//p' | xargs) || continue
    [[ $height -gt 100 ]] && return
  done
  return 1
}
open_menu() {
  xdotool mousemove 780 580 click "$2"
  await "a click with button $2 opens the menu" menu_of "$1"
  sleep 0.5
  screenshot "menu$2"
}
# Clicks so many hundredths of the open menu's height below its top.
click_at() { xdotool mousemove $((x + width / 2)) $((y + height * $1 / 100)) click 1; }
ended() { [[ ! -d /proc/$1 ]]; }
stopped() { ! serves; }
# The clipboard holds the code that the menu shows.
copied() {
  menu_has "Pairing-Code: $(timeout 1 xclip -o -selection clipboard 2>/dev/null)  (klicken zum Kopieren)"
}

start_tarnlink
await 'without a status bar the program says so' logs 'No status bar yet'
await 'and its bridge serves' serves
[[ $(grep -cF 'No status bar' "$home/tarnlink.log") == 1 ]] || fail 'one line about it'

start_panel
await 'a panel that starts later lists the item' item
await 'and shows the icon' icon_shows
screenshot icon
version=$("$programs/tarnlink" --version | grep -oE '[0-9]+(\.[0-9]+)+')
code=$(menu | grep -oE 'Pairing-Code: [0-9]{6}' | grep -oE '[0-9]+$') || fail 'a pairing code'
expected="xKorvel 61850 Tarnlink $version
-
x● Läuft  ·  Port 8765
Pairing-Code: $code  (klicken zum Kopieren)
-
xNetzwerk-Interface:
  bus0 — bus0
  ied0 — ied0
-
x✓ BPF-Zugriff aktiv
-
Beenden"
diff <(echo "$expected") <(menu) || fail 'the menu over the bus'

# The left button opens the program's own menu, the right one the panel's copy of it.
open_menu tarnlink 1
click_at 67
await 'the second interface is marked' menu_has '*  ied0 — ied0'
menu_has '  bus0 — bus0' >/dev/null || fail 'the first one is not'
open_menu lxqt-panel 3
click_at 55
await 'the mark moves' menu_has '*  bus0 — bus0'
menu_has '  ied0 — ied0' >/dev/null || fail 'the second one lost it'
open_menu tarnlink 1
click_at 31
await 'the code is copied' copied

kill "$panel"
await 'the panel ends' ended "$panel"
start_panel
await 'a panel that starts anew lists the item' item
await 'and shows the icon again' icon_shows

open_menu lxqt-panel 3
click_at 94
await 'Beenden ends the program' ended "$tarnlink"
wait "$tarnlink" || fail "exit code $?"
await 'the port is closed' stopped
await 'the icon is gone' icon_gone
echo 'All as it should be.'
