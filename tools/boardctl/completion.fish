# Completion of boardctl for fish: boardctl completion fish | source
function __boardctl_complete
  set -l words (commandline -opc)
  set -l current (commandline -ct)
  for word in ($words[1] __complete $words[2..-1] "$current" 2>/dev/null)
    if test "$word" = :files
      __fish_complete_path "$current"
    else
      echo $word
    end
  end
end
complete -c boardctl -f -a '(__boardctl_complete)'
