# shellcheck shell=bash
# shellcheck disable=SC2154  # The options are set by the script that sources this file.
# The cast of ./run: bridge, client and simulated IED, each a child that ends with this shell.

bin=build/release/bin
bus=bus0  # The ends of the cable of scripts/on_process_bus.sh.
ied=ied0
start_limit=10  # Seconds.

work=''
code=''  # The client's.
declare -A children=()

# start NAME COMMAND...: output goes to a log. A session of its own keeps the terminal's Ctrl-C for
# the client, so that the bridge does not go first; the kernel ends the child if this shell is killed.
start() {
  local name=$1
  shift
  setsid setpriv --pdeathsig TERM -- "$@" >"$work/$name.log" 2>&1 &
  children[$name]=$!
}

# Also of processes that belong to somebody else, which kill -0 would not see.
is_running() { [[ -d /proc/$1 ]]; }

# end NAME: asks the child to end, and insists after a while.
end() {
  local child=${children[$1]:-} target tries=0
  [[ -n $child ]] || return 0
  unset "children[$1]"
  target=$child
  # Behind sudo, which only its owner may signal, the bridge has left its own id.
  [[ ! -s $work/$1.id ]] || target=$(<"$work/$1.id")
  kill -TERM "$target" 2>/dev/null || true
  while is_running "$target"; do
    ((++tries <= 50)) || kill -KILL "$target" 2>/dev/null || true
    sleep 0.1
  done
  wait "$child" 2>/dev/null || true
}

clean_up() {
  trap '' INT TERM HUP
  end client
  end ied
  end bridge
  [[ -z $work ]] || rm -rf "$work"
}

# fail_with_log NAME TEXT: with the last lines that the child wrote.
fail_with_log() {
  say "$2"
  [[ ! -s $work/$1.log ]] || tail -n 15 "$work/$1.log" >&2
  exit 1
}

# await_line NAME LOG TEXT: until that log has the text; fails when child NAME ends before.
await_line() {
  local deadline=$((SECONDS + start_limit))
  until grep -qsF "$3" "$work/$2.log"; do
    is_running "${children[$1]}" || fail_with_log "$2" "the $1 ended"
    ((SECONDS < deadline)) || fail_with_log "$2" "no '$3' from the $2 in $start_limit seconds"
    sleep 0.05
  done
}

has_net_raw() {
  local effective
  effective=$(sed -n 's/^CapEff:\s*//p' /proc/self/status)
  (((16#$effective >> 13) & 1))
}

# start_bridge INTERFACE: on the machine's network it may need sudo, which then gives it CAP_NET_RAW
# and nothing else: the bridge itself runs as the user, and this shell may end it.
start_bridge() {
  local bridge=("$bin/tarnlinkd" --interface "$1" --low-latency --no-advertise
    --preferences "$work/preferences.json" ${port:+--port "$port"})
  if has_net_raw; then
    start bridge "${bridge[@]}"
  else
    command -v sudo >/dev/null || fail "capturing on $1 needs CAP_NET_RAW: run as root"
    say "capturing on $1 needs CAP_NET_RAW; sudo may ask for your password"
    sudo -v
    # shellcheck disable=SC2016,SC2024  # $$ is the inner shell's, which becomes the bridge.
    sudo -n setpriv --reuid "$UID" --regid "$(id -g)" --init-groups --inh-caps +net_raw \
      --ambient-caps +net_raw -- setsid --wait sh -c 'echo $$ >"$0"; exec "$@"' "$work/bridge.id" \
      "${bridge[@]}" >"$work/bridge.log" 2>&1 &
    children[bridge]=$!
    until [[ -s $work/bridge.id ]]; do
      is_running "$!" || fail_with_log bridge "sudo did not start the bridge"
      sleep 0.05
    done
  fi
  await_line bridge bridge "[BridgeServer] Listening on port"
}

# Subscribes; returns when the bridge captures, so that no frame comes too early.
start_client() {
  code=$("$bin/tarnlinkd" --show-pairing-code --preferences "$work/preferences.json")
  TARNLINK_CODE=$code setpriv --pdeathsig TERM -- "$bin/tarnlinkctl" ${json:+--json} \
    ${port:+--port "$port"} subscribe goose ${count:+--count "$count"} &
  children[client]=$!
  await_line client bridge "capture started"
}

start_ied() {
  local ied_command=("$bin/tarnlink-ied" --interface "$ied")
  if [[ -n $replay ]]; then
    ied_command+=(--replay "$replay")
  else
    ied_command+=(--listen)
  fi
  [[ -z $speed ]] || ied_command+=(--speed "$speed")
  start ied "${ied_command[@]}"
}

# The other direction: one message from a client through the bridge to the IED, which shows it.
show_publishing() {
  # shellcheck disable=SC2016  # These are no variables.
  local reference='TARNLINK/LLN0$GO$hello'
  # One frame alone, so that the messages of the IED stay in the foreground.
  local rest=(--profile single bool:true string:hello)
  await_line ied ied "listening on $ied"
  say "publishing through the bridge: tarnlinkctl publish --gocb-ref '$reference' ${rest[*]}"
  TARNLINK_CODE=$code "$bin/tarnlinkctl" ${port:+--port "$port"} publish \
    --gocb-ref "$reference" "${rest[@]}" >"$work/publish.log" 2>&1 || fail_with_log publish "publishing failed"
  await_line ied ied "$reference"
  say "the IED says: $(grep -m 1 -F "$reference" "$work/ied.log")"
}

# Until the client has enough, the recording is over, or something breaks.
await_end() {
  local ended='' status=0 child
  # wait -n knows no child that has ended while this shell waited for something else.
  for child in "${children[@]}"; do
    is_running "$child" || ended=$child
  done
  if [[ -n $ended ]]; then
    wait "$ended" || status=$?
  else
    wait -n -p ended "${children[@]}" || status=$?
  fi
  case $ended in
    "${children[client]}")
      # 141: nobody reads on (./run | head), which is no failure.
      ((status == 0 || status == 141)) ||
        fail_with_log bridge "the client ended with exit code $status"
      ;;
    "${children[ied]:-}")
      ((status == 0)) || fail_with_log ied "the IED ended with exit code $status"
      sleep 1  # The last messages are on their way.
      end client
      say "$(tail -n 1 "$work/ied.log")"
      ;;
    *) fail_with_log bridge "the bridge ended with exit code $status" ;;
  esac
}

show_bridge_at_work() {
  work=$(mktemp -d --tmpdir tarnlink-run.XXXXXX)
  trap clean_up EXIT
  trap 'exit 0' INT TERM HUP
  if [[ -n $interface ]]; then
    start_bridge "$interface"
    say "messages on $interface; Ctrl-C ends"
    start_client
  else
    start_bridge "$bus"
    say "messages on a virtual process bus; Ctrl-C ends"
    start_client
    start_ied
    [[ -n $replay ]] || show_publishing
  fi
  await_end
}
