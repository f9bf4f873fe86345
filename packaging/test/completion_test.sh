#!/usr/bin/env bash
# completion_test.sh FOLDER: completes command lines with the programs in FOLDER.
set -euo pipefail
PATH=$1:$PATH
# shellcheck source=packaging/completion/tarnlink.bash
source "$(dirname "$(readlink -f "$0")")/../completion/tarnlink.bash"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
touch 'two words.pcap'

# What is offered for the last word of "$@", on one line.
complete_line() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  local function
  function=$(complete -p "$1" | sed -E 's/.*-F ([^ ]+).*/\1/')
  "$function" "$1" "${@: -1}" "${COMP_WORDS[COMP_CWORD - 1]}" || true
  (IFS='|' && echo "|${COMPREPLY[*]-}|")
}

failures=0
# expect WANTED UNWANTED LINE...: WANTED "none": nothing is offered; UNWANTED "-": whatever else is.
expect() {
  local wanted=$1 unwanted=$2 offered
  shift 2
  offered=$(complete_line "$@")
  if [[ $wanted == none && $offered != '||' ]] ||
    [[ $wanted != none && $offered != *"|$wanted|"* ]] ||
    [[ $unwanted != - && $offered == *"|$unwanted|"* ]]; then
    echo "$*: offered $offered, wanted $wanted, not $unwanted"
    failures=$((failures + 1))
  fi
}

expect --low-latency - tarnlinkd --
expect lo - tarnlinkd --interface ''
expect 'two words.pcap' - tarnlink-ied --interface lo --replay tw
expect none - tarnlinkd --port ''
expect none - tarnlinkd --allow-origin ''
expect set-interface goose tarnlinkctl ''
expect goose ping tarnlinkctl --host bridge subscribe ''
# Options of the outer command stand behind the subcommand too; those of another one do not.
expect --json --needs-commission tarnlinkctl subscribe goose --
expect --gocb-ref - tarnlinkctl subscribe goose --g
expect single - tarnlinkctl publish --profile ''
expect none - tarnlinkctl publish --gocb-ref ''
exit $((failures > 0))
