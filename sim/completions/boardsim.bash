# Completes boardsim's words in bash. They come from boardsim's own help.

_boardsim_after_options() {
  # The first word that is neither an option nor the value of one begins the command; "--" may stand before it.
  local word i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == -- ]]; then
      echo $((i + 1))
      return
    elif [[ $word == -* ]]; then
      grep -q -E "^ +$word [A-Z]|^ +$word none" <<<"$1" && i=$((i + 1))
      # Bash has split PATH=FAR and the like into words.
      while [[ ${COMP_WORDS[i + 1]-} == [=:]* && $((i + 1)) -lt $COMP_CWORD ]]; do
        i=$((i + 2))
      done
    else
      echo "$i"
      return
    fi
  done
}

_boardsim() {
  local help current previous start fars
  help=$("$1" --help 2>/dev/null)
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()

  start=$(_boardsim_after_options "$help")
  if [[ $start ]]; then
    if ((COMP_CWORD == start)); then
      mapfile -t COMPREPLY < <(compgen -c -- "$current"; compgen -f -- "$current")
    elif declare -F _command_offset >/dev/null; then
      _command_offset "$start"
    else
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
    return
  fi

  if [[ $current == "=" || $previous == "=" ]]; then
    fars=$(sed -n 's/^FAR is \(.*\)\.$/\1/p' <<<"$help" | sed 's/\[[^]]*\]//g; s/:[A-Z:]*/:/g; s/,//g; s/ or / /')
    mapfile -t COMPREPLY < <(compgen -W "$fars" -- "${current#=}")
    compopt -o nospace
    return
  fi
  [[ $previous == --* ]] || previous=-
  case $(sed -n "s/^ *$previous \([^ ]*\).*/\1/p" <<<"$help" | head -n 1) in
    SOCKET | FILE) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    KIND) mapfile -t COMPREPLY < <(compgen -W "private none host" -- "$current") ;;
    none) mapfile -t COMPREPLY < <(compgen -W "none" -- "$current") ;;
    "PATH[=FAR]")
      mapfile -t COMPREPLY < <(compgen -W "/dev/ttyS1=" -- "$current")
      compopt -o nospace
      ;;
    PATH) mapfile -t COMPREPLY < <(compgen -W "/dev/watchdog none" -- "$current") ;;
    [A-Z]*) ;;
    *)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(grep -E '^ +-' <<<"$help" | grep -o -E -e '--[a-z-]+') --" -- "$current")
      else
        mapfile -t COMPREPLY < <(compgen -c -- "$current"; compgen -f -- "$current")
      fi
      ;;
  esac
}

complete -F _boardsim boardsim
