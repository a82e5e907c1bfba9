# bash completion for zorv-label-audit                      -*- shell-script -*-

_zorv_label_audit() {
    local cur prev words cword
    _init_completion || return

    case $prev in
        --root)
            _filedir -d
            return
            ;;
        --exclude)
            return
            ;;
    esac

    if ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W 'check explain --help' -- "$cur")
        return
    fi

    local options
    case ${words[1]} in
        check) options='--json --summary --exclude --no-cache --root --help' ;;
        explain) options='--json --root -0 --help' ;;
        *) return ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    _filedir
} &&
    complete -F _zorv_label_audit zorv-label-audit
