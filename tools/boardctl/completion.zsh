#compdef boardctl
# Completion of boardctl for zsh: as _boardctl in a folder of $fpath, or . <(boardctl completion zsh)
_boardctl() {
  local -a found
  found=("${(@f)$("${words[1]}" __complete "${(@)words[2,CURRENT]}" 2>/dev/null)}")
  if (( ${found[(I):files]} )); then
    found=("${(@)found:#:files}")
    _files
  fi
  compadd -- "${(@)found:#}"
}
if [[ ${funcstack[1]} == _boardctl ]]; then _boardctl "$@"; else compdef _boardctl boardctl; fi
