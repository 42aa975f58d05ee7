# Completion of vrnx in bash: commands, their options, and the files that each takes.

_vrnx() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} options
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'info list check diff map export --help --version' -- "$word")
        return
    fi
    case $before in
        --password-file | --salvage | --check | --svg | --from)
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            compopt -o filenames 2> /dev/null
            return
            ;;
        --jobs)
            mapfile -t COMPREPLY < <(compgen -W '1 2 4 8' -- "$word")
            return
            ;;
        --part) return ;;
    esac
    case $command in
        info | list | diff) options='--json --help' ;;
        check) options='--password-file --jobs --part --json --help' ;;
        map) options='--check --svg --help' ;;
        export) options='--password-file --salvage --from --help' ;;
        *) return ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
    fi
    case $command in
        list) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        export) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        *)
            # Images, and the folders that they may lie in.
            mapfile -t COMPREPLY < <(
                compgen -d -- "$word"
                compgen -f -X '!*.[Vv][Rr][Nn][Xx]' -- "$word"
                compgen -f -X '!*.[Pp][Aa][Rr][Tt][Ii][Aa][Ll]' -- "$word"
            )
            ;;
    esac
    compopt -o filenames 2> /dev/null
}

complete -F _vrnx vrnx
