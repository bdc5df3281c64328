# SPDX-License-Identifier: GPL-2.0-only
# bash completion for zorvctl
#
# Names of nodes, disks and files are other people's words: they are compared and inserted, never
# expanded, so compgen -W is not for them.

# The "name"s of a JSON document.
_zorvctl_names() {
  sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p' | sed 's/\\\(["\\]\)/\1/g'
}

_zorvctl_nodes() {
  "${words[@]:0:1}" "${socket[@]}" --json list "$@" 2>/dev/null | _zorvctl_names
}

_zorvctl_disks() {
  "${words[@]:0:1}" "${socket[@]}" --json disks 2>/dev/null | _zorvctl_names
}

# Those of the lines that begin with the word, which may be quoted by backslashes; quoted.
_zorvctl_reply() {
  local word=${cur//\\/} line
  while IFS= read -r line; do
    [[ -n $line && ${line:0:${#word}} == "$word" ]] || continue
    printf -v line %q "$line"
    COMPREPLY+=("$line")
  done <<<"$1"
}

# Files or, with -d, directories; readline quotes them.
_zorvctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen "$1" -- "$cur")
}

_zorvctl_proc() {
  local dir=${cur%"${cur##*/}"} entry
  "${words[@]:0:1}" "${socket[@]}" proc ls "${dir:-zorv}" 2>/dev/null |
    while IFS= read -r entry; do printf '%s\n' "$dir$entry"; done
}

_zorvctl() {
  local cur prev words cword i
  _get_comp_words_by_ref -n : cur prev words cword 2>/dev/null || {
    words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
  }
  local socket=() command="" sub="" at=0
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --socket) socket=(--socket "${words[++i]}") ;;
      --minor | --name | --uuid | --extent-size | --chunk-size | --limit | -o | --output) ((i++)) ;;
      --bmp-dir | --cow-dir | --cow-bmp | --cow-data | --valid | --stop-pending | --del-pending) ((i++)) ;;
      -*) ;;
      *)
        if [ -z "$command" ]; then
          command=${words[i]}
        elif [ -z "$sub" ] && [[ $command == @(bmp|datablock|proc) ]]; then
          sub=${words[i]}
        else
          ((at++))
        fi
        ;;
    esac
  done

  local options="" answers=""
  COMPREPLY=()
  case $prev in
    --socket | -o | --output | --cow-bmp | --cow-data) _zorvctl_files -f && return ;;
    --bmp-dir | --cow-dir) _zorvctl_files -d && return ;;
    --valid | --stop-pending | --del-pending) _zorvctl_reply $'0\n1' && return ;;
    --extent-size | --chunk-size) _zorvctl_reply $'4K\n64K\n256K\n1M' && return ;;
    --minor | --name | --uuid | --limit) return ;;
  esac
  case $command:$sub:$at in
    ::*)
      answers=$'attach\ndetach\ndisks\nadd-filter\nadd-snap\nstart\nstop\ndel\nresume\nlist\ninfo\nuri\nbmp\ndatablock\nproc'
      options=$'--socket\n--limit\n--json\n--help\n--version'
      ;;
    attach::*) options=$'--name\n--read-only' ;;
    detach::0) answers=$(_zorvctl_disks) ;;
    add-filter::*)
      answers=$(_zorvctl_disks)
      options=$'--extent-size\n--bmp-dir\n--minor\n--name\n--uuid'
      ;;
    add-snap::*)
      answers=$(_zorvctl_nodes filter)
      options=$'--chunk-size\n--cow-dir\n--cow-bmp\n--cow-data\n--minor\n--name\n--uuid'
      ;;
    resume::*)
      answers=$(_zorvctl_nodes snap)
      options=$'--minor\n--valid\n--stop-pending\n--del-pending'
      ;;
    list::0) answers=$'filter\nsnap' ;;
    stop::* | del::*)
      ((at)) || answers=$(_zorvctl_nodes)
      options=$'--minor\n--wait'
      [ "$command" = del ] && options+=$'\n--yes'
      ;;
    start::* | info::0 | uri::0)
      ((at)) || answers=$(_zorvctl_nodes)
      options=$'--minor'
      [ "$command" = start ] && options+=$'\n--yes'
      ;;
    bmp::*) answers=$'get\nget-clear\nset\nmerge\nclear\nsave\nload\nshow' ;;
    bmp:*:0) answers=$(_zorvctl_nodes filter) ;;
    bmp:*:1) answers=$'incr\ndiff' ;;
    bmp:get*:*) options=$'--output' ;;
    datablock::*) answers=$'get\nshow\ntest' ;;
    datablock:test:*) answers=$(_zorvctl_disks) ;;
    datablock:*:*)
      answers=$(_zorvctl_nodes snap)
      options=$'--extent-size\n--output'
      ;;
    proc::*) answers=$'ls\ncat\nwrite' ;;
    proc:*:0) answers=$(_zorvctl_proc) ;;
  esac
  [[ $cur == -* ]] && answers=$options$'\n--help'
  _zorvctl_reply "$answers"
  case $command:$sub:$at in
    attach:* | add-filter:* | datablock:test:* | bmp:set:2 | bmp:merge:2)
      [[ $cur == -* ]] || ((${#COMPREPLY[@]})) || _zorvctl_files -f
      ;;
  esac
}
complete -F _zorvctl zorvctl
