# Completes boardsim's words in fish. They come from boardsim's own help.

function __boardsim_help
    command boardsim --help 2>/dev/null
end

# The options, and what each is for.
function __boardsim_options
    __boardsim_help | string replace -r -f '^ +(?:-h,)?(--[a-z-]+)(?: [^ ]+)?(?: \.\.\.)?(?: {2,}(.*))?$' '$1\t$2'
end

# The value that an option has, as the help calls it; nothing for one without, and for other words.
function __boardsim_value -a option
    string match -q -- '--*' $option
    and __boardsim_help | string replace -r -f -- "^ +$option ([^ ]+).*" '$1'
end

# The words of the command that have been typed; fails where it has not begun.
function __boardsim_command
    set -l words (commandline -opc)
    set -e words[1]
    while set -q words[1]
        set -l word $words[1]
        set -e words[1]
        if test "$word" = --
            string join \n -- $words
            return 0
        else if string match -q -- '-*' $word
            test -n "$(__boardsim_value $word)"; and set -e words[1]
        else
            string join \n -- $word $words
            return 0
        end
    end
    return 1
end

# What its own completions offer, or else commands.
function __boardsim_of_command
    complete -C (string join ' ' -- (string escape -- (__boardsim_command)) (commandline -ct))
end

function __boardsim_values
    set -l previous (commandline -opc)[-1]
    switch "$(__boardsim_value $previous)"
        case SOCKET FILE
            __fish_complete_path (commandline -ct)
        case KIND
            printf '%s\n' private none host
        case none
            echo none
        case PATH
            printf '%s\n' /dev/watchdog none
        case 'PATH*'
            set -l fars (__boardsim_help | string replace -r -f '^FAR is (.*)\.$' '$1' |
                string replace -r -a '\[[^]]*\]' '' | string replace -r -a ':[A-Z:]*' ':' | string split -n ' ' |
                string trim -c , | string match -v or)
            printf '/dev/ttyS1=%s\n' $fars
        case ''
            __boardsim_options
            string match -q -- '-*' (commandline -ct); or complete -C (commandline -ct)
    end
end

complete -c boardsim -f -n 'not __boardsim_command >/dev/null' -a '(__boardsim_values)'
complete -c boardsim -f -n '__boardsim_command >/dev/null' -a '(__boardsim_of_command)'
