# bash completion for zorv-label-audit                      -*- shell-script -*-
#
# Self-contained (no bash-completion helpers): the command first, then its
# options, --root's directory, and paths.

_zorv_label_audit() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local IFS=$'\n'
    if ((COMP_CWORD == 1)); then
        COMPREPLY=($(compgen -W $'check\nexplain\n--help' -- "$cur"))
        return
    fi
    case $prev in
        --root)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -d -- "$cur"))
            return
            ;;
        --exclude) return ;;
    esac
    local options
    case ${COMP_WORDS[1]} in
        check) options=$'--json\n--summary\n--exclude\n--no-cache\n--root\n--help' ;;
        explain) options=$'--json\n--root\n-0\n--help' ;;
        *) return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
    fi
    compopt -o filenames 2>/dev/null
    COMPREPLY=($(compgen -f -- "$cur"))
}
complete -F _zorv_label_audit zorv-label-audit
