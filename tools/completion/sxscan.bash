# bash completion for sxscan
_sxscan() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    cword=$COMP_CWORD
  }
  local commands="sources select info caps get set scan doctor serve help version"
  if ((cword == 1)); then
    COMPREPLY=($(compgen -W "$commands --help --version -V" -- "$cur"))
    return
  fi
  case $prev in
    --mode) COMPREPLY=($(compgen -W "color gray lineart" -- "$cur")); return ;;
    --source) COMPREPLY=($(compgen -W "flatbed feeder auto" -- "$cur")); return ;;
    --units) COMPREPLY=($(compgen -W "inches cm 300ths" -- "$cur")); return ;;
    --pages) COMPREPLY=($(compgen -W "all" -- "$cur")); return ;;
    --filter) COMPREPLY=($(compgen -W "red green blue none" -- "$cur")); return ;;
    --output) COMPREPLY=($(compgen -f -- "$cur")); return ;;
  esac
  case ${COMP_WORDS[1]} in
    scan) COMPREPLY=($(compgen -W "--resolution --mode --area --units --source --filter --pages --output
      --quality --buffered --buffer --set --progress --stats --help" -- "$cur")) ;;
    serve) COMPREPLY=($(compgen -W "--listen --port --source --name --no-announce --help" -- "$cur")) ;;
  esac
}
complete -F _sxscan sxscan
