# Completes kestrune's commands, options and paths in bash.

_kestrune_commands="configure invalidate mount unmount restart status pending sync pin unpin evict download link state why \
allow-deletions keep-deleted ls cat console doctor report"

# The options of a command.
_kestrune_options() {
  local common="-h --help"
  case "$1" in
    configure) echo "$common --url --token-file --no-check --json" ;;
    invalidate | pin | unpin | evict | download | link | state | why) echo "$common --json" ;;
    mount) echo "$common --replica --domain --refresh --cache-size --keep-free --in-one-process --json --allow-other" ;;
    unmount) echo "$common --domain --force --json" ;;
    restart | allow-deletions | keep-deleted) echo "$common --domain --json" ;;
    status) echo "$common --domain --json -w --watch" ;;
    pending) echo "$common --domain --json --most" ;;
    sync) echo "$common --json --wait --timeout" ;;
    ls) echo "$common -l --json" ;;
    cat) echo "$common" ;;
    console) echo "$common --domain --show-private" ;;
    doctor) echo "$common --domain --replica --json" ;;
    report) echo "$common --domain --replica -o --output --with-names --print --json" ;;
    *) echo "$common --version" ;;
  esac
}

# What was typed of the last word before the cursor: `typed` without quoting, `quote` a quotation that is open, and `ahead` the part that
# bash has cut off at a ":" or "=", which is not to be repeated in COMPREPLY.
_kestrune_parse() {
  local line=${COMP_LINE:0:COMP_POINT} index character raw=
  typed= quote= ahead=
  for ((index = 0; index < ${#line}; ++index)); do
    character=${line:index:1}
    raw+=$character
    if [ -n "$quote" ]; then
      if [ "$character" = "$quote" ]; then quote=; else typed+=$character; fi
    else
      case "$character" in
        \\) index=$((index + 1)); raw+=${line:index:1}; typed+=${line:index:1} ;;
        \' | \") quote=$character ;;
        [[:space:]]) typed= raw= ;;
        *) typed+=$character ;;
      esac
    fi
  done
  case "${COMP_WORDS[COMP_CWORD]}" in
    : | =) ahead=$typed ;;
    *) case "$raw" in *[:=]*) [ -n "$quote" ] || ahead=${typed%"${typed##*[:=]}"} ;; esac ;;
  esac
}

_kestrune_remote() {
  local line
  while IFS= read -r line; do
    case "$line" in */) compopt -o nospace 2>/dev/null ;; esac # what is in a folder may follow
    line=${line#"$ahead"}
    if [ -z "$quote" ]; then printf -v line '%q' "$line"; fi
    COMPREPLY+=("$line")
  done < <(command kestrune complete-path "$typed" 2>/dev/null </dev/null)
}

_kestrune_local() {
  compopt -o filenames 2>/dev/null # readline quotes
  mapfile -t COMPREPLY < <(compgen "$1" -- "$typed")
  COMPREPLY=("${COMPREPLY[@]#"$ahead"}")
}

_kestrune() {
  local previous=${COMP_WORDS[COMP_CWORD - 1]} command= index typed quote ahead
  COMPREPLY=()
  _kestrune_parse
  for ((index = 1; index < COMP_CWORD; ++index)); do
    case "${COMP_WORDS[index]}" in
      -*) ;;
      *) command=${COMP_WORDS[index]}; break ;;
    esac
  done
  if [ -n "$command" ]; then
    case "$previous" in
      --token-file | -o | --output) _kestrune_local -f; return ;;
      --replica) _kestrune_local -d; return ;;
      --url | --domain | --refresh | --cache-size | --keep-free | --most | --timeout) return ;;
    esac
  fi
  case "$typed" in
    -*) mapfile -t COMPREPLY < <(compgen -W "$(_kestrune_options "$command")" -- "$typed"); return ;;
  esac
  case "$command" in
    "") mapfile -t COMPREPLY < <(compgen -W "$_kestrune_commands" -- "$typed") ;;
    ls | cat) _kestrune_remote ;;
    mount) _kestrune_local -d ;;
    status | unmount | restart | pending | sync | pin | unpin | evict | download | link | state | why | report) _kestrune_local -f ;;
  esac
}

complete -F _kestrune kestrune
