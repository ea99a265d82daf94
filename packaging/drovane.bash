# Completion of drovane for bash.

_drovane_subcommands='run check try cmd send get status watch trace replay log-level reload'

# The options of a subcommand, --help apart.
_drovane_options() {
  case $1 in
    run) echo --root --plugins --control --log-level --log-file --log-journal --strict \
      --restart-hung ;;
    check) echo --root --plugins ;;
    try) echo --root --plugins --log-level --json --for ;;
    cmd | log-level | reload) echo --control ;;
    send) echo --control --to --actuator ;;
    get) echo --control --to ;;
    status) echo --control --json ;;
    watch) echo --control --json --rovik --kind --key ;;
    trace) echo --control --hex --record --force ;;
    replay) echo --port --link --speed ;;
  esac
}

# What stands behind a subcommand, place by place.
_drovane_places() {
  case $1 in
    run | check | replay) echo file ;;
    try) echo file named ;;
    cmd) echo rovik ;;
    send) echo any type ;;
    get) echo any type ;;
    status | trace) echo rovik ;;
    log-level) echo level ;;
  esac
}

# What the value of an option is; nothing for one without a value.
_drovane_value_of() {
  case $1 in
    --root | --plugins) echo folder ;;
    --control | --log-file | --record | --link) echo file ;;
    --log-level) echo level ;;
    --to | --rovik) echo rovik ;;
    --kind) echo kind ;;
    --key | --restart-hung | --for | --port | --speed) echo any ;;
  esac
}

# The names in the house that runs, if one does.
_drovane_roviks() {
  "$1" status --json ${2:+--control "$2"} 2>/dev/null |
    sed -n 's/^{"id":[0-9]*,"name":"\([^"]*\)".*/\1/p'
}

# The names in a configuration.
_drovane_named() {
  sed -n 's/^[[:blank:]]*rovik[[:blank:]]\+[0-9]\+[[:blank:]]\+\([^[:blank:]]\+\).*/\1/p' "$1" \
    2>/dev/null
}

_drovane() {
  local word=${COMP_WORDS[COMP_CWORD]} subcommand=${COMP_WORDS[1]} control='' kind='' first='' i
  local -a places
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "$_drovane_subcommands --help --version" -- "$word")
    return
  fi

  # Takes the words before this one as the program does, to know what comes next.
  local place=0
  read -ra places < <(_drovane_places "$subcommand")
  for ((i = 2; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == --* && -n $(_drovane_value_of "${COMP_WORDS[i]}") ]]; then
      if ((i + 1 == COMP_CWORD)); then kind=$(_drovane_value_of "${COMP_WORDS[i]}"); fi
      if [[ ${COMP_WORDS[i]} == --control ]]; then control=${COMP_WORDS[i + 1]}; fi
      ((++i))
    elif [[ ${COMP_WORDS[i]} != --* ]]; then
      first=${first:-${COMP_WORDS[i]}}
      ((++place))
    fi
  done
  if [[ -z $kind && $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_drovane_options "$subcommand") --help" -- "$word")
    return
  fi

  if [[ -z $kind ]]; then kind=${places[place]-}; fi
  case $kind in
    file) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    folder) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    rovik) mapfile -t COMPREPLY < <(
      compgen -W "$(_drovane_roviks "${COMP_WORDS[0]}" "$control")" -- "$word"
    ) ;;
    named) mapfile -t COMPREPLY < <(compgen -W "$(_drovane_named "$first")" -- "$word") ;;
    level) mapfile -t COMPREPLY < <(compgen -W '2 3 4' -- "$word") ;;
    type) mapfile -t COMPREPLY < <(compgen -W 'int float string' -- "$word") ;;
    kind) mapfile -t COMPREPLY < <(
      compgen -W 'data data-request actuator command response text empty' -- "$word"
    ) ;;
  esac
  if [[ $kind == file || $kind == folder ]]; then compopt -o filenames 2>/dev/null; fi
}

complete -F _drovane drovane
