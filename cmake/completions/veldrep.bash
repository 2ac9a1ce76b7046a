# bash completion for veldrep. Commands and options are read from the program's help, so they are always up to date.

# The options of a command and of those above it but the program, which it takes too. Examples don't count.
_veldrep_options() {
  local i
  for ((i = $# > 1 ? 2 : 1; i <= $#; ++i)); do "${@:1:i}" --help 2>/dev/null; done |
    grep -E '^ +-' | grep -oE -- '[ ,]-(-[a-z][a-z-]*|[a-zA-Z])\b' | tr -d ' ,' | sort -u
}

_veldrep_commands() {
  "$@" --help 2>/dev/null | sed -n '/^Subcommands:/,/^[^ ]/s/^  \([a-z][a-z-]*\).*/\1/p'
}

_veldrep() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word
  local -a command=("${COMP_WORDS[0]}")
  COMPREPLY=()

  # The words so far that are commands: "veldrep queues peek".
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word != -* ]] && _veldrep_commands "${command[@]}" | grep -qxF -- "$word" && command+=("$word")
  done

  case $previous in
    --store | --capture)
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    --compress)
      mapfile -t COMPREPLY < <(compgen -W "none gzip zstd" -- "$current")
      return
      ;;
    --listen | --page | --page-token | --url | --from | --status | --threads | --body-limit | --body-memory | --connections | \
      --request-time | --rate | --rate-burst | --remember | --rotate-size | --rotate-every | --consumer | --idle | \
      --packet-limit | --queue-limit | --send-timeout | --to | --trace-level | --wait | -n)
      return
      ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_veldrep_options "${command[@]}")" -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -W "$(_veldrep_commands "${command[@]}")" -- "$current")
    ((${#COMPREPLY[@]})) || mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}

complete -o filenames -F _veldrep veldrep
