# Completion of boardctl for bash: . <(boardctl completion bash)
_boardctl() {
  local word
  COMPREPLY=()
  while IFS= read -r word; do
    if [[ $word == :files ]]; then
      compopt -o filenames
      while IFS= read -r word; do COMPREPLY+=("$word"); done < <(compgen -f -- "$2")
    else
      COMPREPLY+=("$word")
    fi
  done < <("$1" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _boardctl boardctl
