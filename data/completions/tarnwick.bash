# bash completion for tarnwick

_tarnwick() {
    local cur prev words cword
    _init_completion || return

    local commands="status login groups add remove retention open logout quit restart-backend diagnose"
    if ((cword == 1)); then
        COMPREPLY=($(compgen -W "$commands --headless --help --version" -- "$cur"))
        return
    fi
    case ${words[1]} in
        status | groups)
            COMPREPLY=($(compgen -W "--json" -- "$cur"))
            ;;
        login)
            if [[ $prev == --code ]]; then
                return
            fi
            ((cword > 2)) && COMPREPLY=($(compgen -W "--code" -- "$cur"))
            ;;
        add)
            if ((cword == 3)); then
                _filedir -d
            elif ((cword > 3)); then
                COMPREPLY=($(compgen -W "--force" -- "$cur"))
            fi
            ;;
        remove | open)
            ((cword == 2)) && _filedir -d
            ;;
    esac
} &&
    complete -F _tarnwick tarnwick
