#!/usr/bin/env bash
# man_pages_test.sh PROGRAM...: each manual page names exactly the long options and the subcommands
# that the program's --help does, subcommands' options included.
set -euo pipefail
pages=$(dirname "$(readlink -f "$0")")/../man
# The helpers that read a help text are those of the completion.
# shellcheck source=packaging/completion/tarnlink.bash
source "$pages/../completion/tarnlink.bash"

# Options and subcommands of the program $1 behind the subcommands $2...
words_of_help() {
  local help subcommand
  help=$("$@" --help)
  _tarnlink_options <<<"$help"
  for subcommand in $(_tarnlink_subcommands <<<"$help"); do
    echo "$subcommand"
    words_of_help "$@" "$subcommand"
  done
}

# "Fl -name" marks a long option, "Cm name" a subcommand.
words_of_page() {
  grep -oE '(Fl -[[:alnum:]-]+|Cm [[:lower:] -]+)' "$1" |
    sed -E 's/^Fl /-/; s/^Cm //' | tr ' ' '\n' | sed '/^$/d'
}

result=0
for program in "$@"; do
  page=$(ls "$pages/$(basename "$program")".[18])
  words=$(words_of_help "$program" | sort -u)
  [[ $words == *--help* ]] || { echo "$program: no options in its --help"; exit 1; }
  while read -r word; do
    grep -Fqx -- "$word" < <(words_of_page "$page") ||
      { echo "$page lacks $word"; result=1; }
  done <<<"$words"
  while read -r word; do
    grep -Fqx -- "$word" <<<"$words" || { echo "$page has $word, which is gone"; result=1; }
  done < <(words_of_page "$page" | grep -e ^-- | sort -u)
done
exit $result
