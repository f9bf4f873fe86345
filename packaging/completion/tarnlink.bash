# Bash completion for tarnlinkd, tarnlinkctl, tarnlink-ied and tarnlink. Options and subcommands are
# read from the programs' own --help, so that there is no second list of them to keep.

# The long options in the help text on standard input.
_tarnlink_options() {
  sed -nE 's/^  (-[[:alpha:]],)?(--[[:alnum:]-]+).*/\2/p'
}

# Those that take a value: a name in capitals follows.
_tarnlink_value_options() {
  sed -nE 's/^  (-[[:alpha:]],)?(--[[:alnum:]-]+) [A-Z]+([ =:].*)?$/\2/p'
}

# The choices of the option $1, where the help text on standard input names them: {fast,single}.
_tarnlink_choices() {
  sed -nE "s/^  $1 [A-Z]+:\\{([^}]*)\\}.*/\\1/p" | tr , '\n'
}

_tarnlink_subcommands() {
  sed -nE '/^(Subc|SUBC)/,/^$/s/^  ([[:lower:]][[:alnum:]-]*).*/\1/p'
}

_tarnlink() {
  local program=$1 current=$2 previous=$3
  local help all_help words path=() i
  COMPREPLY=()

  case $previous in
    --interface | set-interface)
      mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$current")
      return
      ;;
    --preferences | --replay | --file | --tls-cert | --tls-key)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
  esac

  help=$("$program" --help 2>/dev/null </dev/null) || return
  all_help=$help
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if _tarnlink_subcommands <<<"$help" | grep -Fqx -- "${COMP_WORDS[i]}"; then
      path+=("${COMP_WORDS[i]}")
      help=$("$program" "${path[@]}" --help 2>/dev/null </dev/null) || return
      all_help+=$'\n'$help # Options of the outer levels are taken behind a subcommand too.
    fi
  done

  if _tarnlink_value_options <<<"$all_help" | grep -Fqx -- "$previous"; then
    words=$(_tarnlink_choices "$previous" <<<"$all_help")
  elif [[ $current == -* ]]; then
    words=$(_tarnlink_options <<<"$all_help" | sort -u)
  else
    words=$(_tarnlink_subcommands <<<"$help")
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _tarnlink tarnlink tarnlinkd tarnlinkctl tarnlink-ied
