# bash completion of lspanctl
_lspanctl() {
  local line=${COMP_LINE:0:COMP_POINT}
  local word=${line##*[[:space:]]}
  mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" completion --of "$line" 2>/dev/null)
  if [[ ${COMPREPLY[0]} == '<file>' ]]; then
    COMPREPLY=()
    compopt -o default 2>/dev/null
  else  # what stands before a colon or an equals sign belongs to the word, but bash breaks words there
    COMPREPLY=("${COMPREPLY[@]#"${word%"${word##*[:=]}"}"}")
  fi
}
complete -F _lspanctl lspanctl
