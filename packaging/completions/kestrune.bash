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

# Lines become words, those with blanks too: each is quoted as it must be typed. Adds to COMPREPLY.
_kestrune_add_lines() {
  local line
  while IFS= read -r line; do
    if [ "$_kestrune_quoted" = no ]; then printf -v line '%q' "$line"; fi
    COMPREPLY+=("$line")
  done
}

# Folders get no blank behind: their contents may follow.
_kestrune_no_blank() { compopt -o nospace 2>/dev/null; }

_kestrune_remote() {
  local word=$1
  _kestrune_add_lines < <(command kestrune complete-path "$word" 2>/dev/null </dev/null)
  case "${COMPREPLY[*]}" in */) _kestrune_no_blank ;; esac
}

_kestrune_local() {
  local word=$1 kind=$2
  compopt -o filenames 2>/dev/null
  _kestrune_quoted=yes # which readline does for file names
  _kestrune_add_lines < <(compgen "$kind" -- "$word")
}

# What was typed of the word, without its quoting, and whether a quotation is open. A ":" or "=" that splits words does not matter:
# no path of ours is split by readline within COMP_WORDS but at these, and such paths are completed by the shell's own means.
_kestrune() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= index
  local _kestrune_quoted=no
  COMPREPLY=()
  for ((index = 1; index < COMP_CWORD; ++index)); do
    case "${COMP_WORDS[index]}" in
      -*) ;;
      *) command=${COMP_WORDS[index]}; break ;;
    esac
  done
  case "$current" in
    \'* | \"*) _kestrune_quoted=yes; current=${current:1} ;;
    *) current=$(printf '%s' "$current" | sed 's/\\\(.\)/\1/g') ;;
  esac
  if [ -n "$command" ]; then
    case "$previous" in
      --token-file | -o | --output) _kestrune_local "$current" -f; return ;;
      --replica) _kestrune_local "$current" -d; return ;;
      --url | --domain | --refresh | --cache-size | --keep-free | --most | --timeout) return ;;
    esac
  fi
  case "$current" in
    -*) mapfile -t COMPREPLY < <(compgen -W "$(_kestrune_options "$command")" -- "$current"); return ;;
  esac
  case "$command" in
    "") mapfile -t COMPREPLY < <(compgen -W "$_kestrune_commands" -- "$current") ;;
    ls | cat) _kestrune_remote "$current" ;;
    mount) _kestrune_local "$current" -d ;;
    unmount | restart | pending | sync | pin | unpin | evict | download | link | state | why | report) _kestrune_local "$current" -f ;;
  esac
}

complete -F _kestrune kestrune
