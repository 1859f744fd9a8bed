# Completion for quorvelctl and kelvanectl. What they understand they are asked themselves, by --help, so that nothing here gets
# out of date.

# _quorveld_ask: what the command so far in `command` takes. Sets `subcommands`, and adds to `options` and to `valued`, those of
# them that take a value.
_quorveld_ask() {
  local kind name
  subcommands=''
  while read -r kind name; do
    case $kind in
      command) subcommands+=" $name" ;;
      valued) options+=" $name" valued+=" $name" ;;
      option) options+=" $name" ;;
    esac
  done < <("${command[@]}" --help 2>/dev/null | awk '
    /^[^ ]/ { section = tolower($1) }
    section == "subcommands:" && /^  [a-z]/ { print "command", $1 }
    section == "options:" && /^ +-/ {
      gsub(/, +/, ",")
      count = split($1, names, ",")
      for (i = 1; i <= count; i++) print (/^ *[^ ]+ [^ ]/ ? "valued" : "option"), names[i]
    }')
  subcommands+=' '
}

# _quorveld_values: what may come next in place of a subcommand, one a line.
_quorveld_values() {
  local program=("${command[0]}" "${root[@]}") folder=${root[1]:-${QUORVELD_ROOT:-}}/Library/Logs/Faultkeep report
  case "${command[*]:1}" in
    'prefs get' | 'prefs set' | 'prefs unset')
      [ "$given" -gt 0 ] || "${program[@]}" prefs list 2>/dev/null | awk 'NR > 1 { print $1 }'
      ;;
    'reports show' | 'reports symbolicate')
      "${program[@]}" reports list --json 2>/dev/null | sed -n 's/^ *"file": "\(.*\)",$/\1/p'
      ;;
    'memory show' | 'memory diff')
      for report in "$folder"/memory-snapshot-*.ips; do [ ! -e "$report" ] || echo "${report##*/}"; done
      ;;
  esac
}

_quorveld() {
  local current=${COMP_WORDS[COMP_CWORD]} command=("${COMP_WORDS[0]}") root=() subcommands options='' valued=' ' given=0
  local index word values IFS=$' \t\n'
  COMPREPLY=()
  _quorveld_ask
  for ((index = 1; index < COMP_CWORD; index++)); do
    word=${COMP_WORDS[index]}
    if [ "$word" = -- ]; then  # launch: a command line of its own
      if declare -F _command_offset >/dev/null; then
        _command_offset $((index + 1))
      elif [ $((index + 1)) -eq "$COMP_CWORD" ]; then
        mapfile -t COMPREPLY < <(compgen -c -- "$current" | sort -u)
      fi
      return
    elif [[ "$valued " == *" $word "* ]]; then
      index=$((index + 1))
      [ "$word" != --root ] || root=(--root "${COMP_WORDS[index]}")
    elif [[ "$subcommands" == *" $word "* ]]; then
      command+=("$word")
      options=${options/ --version/}
      _quorveld_ask
    elif [[ "$word" != -* ]]; then
      given=$((given + 1))
    fi
  done
  [ "$index" -eq "$COMP_CWORD" ] || return 0  # the value of an option: files
  if [[ "$current" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current" | sort -u)
  elif [ "$subcommands" != ' ' ]; then
    mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current")
  else
    values=$(_quorveld_values)
    IFS=$'\n'
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$current")
    compopt -o filenames 2>/dev/null  # names with blanks are quoted
  fi
}

complete -o default -F _quorveld quorvelctl kelvanectl
