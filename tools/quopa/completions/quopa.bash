# bash completion for quopa
_quopa() {
  # The words as they were typed: bash takes = and : for words of their own.
  local typed=${COMP_LINE:0:COMP_POINT} words last own
  read -ra words <<<"$typed"
  [[ $typed == *[[:blank:]] ]] && words+=('')
  last=${words[-1]} own=${COMP_WORDS[COMP_CWORD]}
  [[ $own == [=:] ]] && own=
  mapfile -t COMPREPLY < <(quopa __complete "${words[@]:1}" 2>/dev/null)
  if [[ ${COMPREPLY[0]-} == :files ]]; then
    COMPREPLY=()
    compopt -o default
    return
  fi
  [[ ${COMPREPLY[0]-} == *[=.] ]] && compopt -o nospace
  COMPREPLY=("${COMPREPLY[@]#"${last%"$own"}"}")
}
complete -F _quopa quopa
