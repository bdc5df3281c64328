# SPDX-License-Identifier: GPL-2.0-only
# bash completion for zorvctl
_zorvctl_nodes() {
  "${words[@]:0:1}" "${socket[@]}" --json list "$@" 2>/dev/null |
    sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p'
}

_zorvctl_disks() {
  "${words[@]:0:1}" "${socket[@]}" --json disks 2>/dev/null |
    sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p'
}

_zorvctl_proc() {
  local dir=${cur%"${cur##*/}"}
  "${words[@]:0:1}" "${socket[@]}" proc ls "${dir:-zorv}" 2>/dev/null | sed "s|^|$dir|"
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

  local IFS=$'\n' options="" answers=""
  case $prev in
    --socket | -o | --output | --cow-bmp | --cow-data) COMPREPLY=($(compgen -f -- "$cur")) && return ;;
    --bmp-dir | --cow-dir) COMPREPLY=($(compgen -d -- "$cur")) && return ;;
    --valid | --stop-pending | --del-pending) COMPREPLY=($(compgen -W $'0\n1' -- "$cur")) && return ;;
    --extent-size | --chunk-size) COMPREPLY=($(compgen -W $'4K\n64K\n256K\n1M' -- "$cur")) && return ;;
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
    start::0 | info::0 | uri::0)
      answers=$(_zorvctl_nodes)
      options=$'--minor'
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
  COMPREPLY=($(compgen -W "$answers" -- "$cur"))
  case $command:$sub:$at in
    attach:* | add-filter:* | datablock:test:* | bmp:set:2 | bmp:merge:2)
      [[ $cur == -* ]] || COMPREPLY+=($(compgen -f -- "$cur"))
      ;;
  esac
}
complete -o filenames -F _zorvctl zorvctl
