# bash completion for quopa
_quopa() {
  mapfile -t COMPREPLY < <(quopa __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _quopa quopa
