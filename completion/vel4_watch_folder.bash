# Completion for vel4_watch_folder_service and vel4_watch_folder_check.            -*- shell-script -*-

_vel4_watch_folder()
{
    local cur prev words cword split
    _init_completion -s || return

    case $prev in
        -d | --directory)
            _filedir -d
            return
            ;;
    esac
    $split && return

    if [[ $cur == -* ]]; then
        local options='-? -h --help -d --directory'
        [[ $1 == *vel4_watch_folder_check ]] && options+=' -l --load -n --dry-run'
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [[ $1 == *vel4_watch_folder_check ]]; then
        _filedir toml
    fi
} &&
    complete -F _vel4_watch_folder vel4_watch_folder_service vel4_watch_folder_check
