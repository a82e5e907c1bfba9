# bash completion for zorv-label-manager-tool                -*- shell-script -*-
#
# Options are read the way the tool reads them (short options may be bundled,
# an argument may be attached), so that the word being completed is known to be
# an option's argument, an operand, or an option.

# Short options that take an argument. -d, -c and -b disagree with their long
# forms: -d and -b take none, --clear takes none, -c takes one.
_zorv_lmt_short_with_arg='svomtnfpqkelcLT3'

_zorv_lmt_long_opts='--add --get --del --restore --init --scan --id --user-set --oid --sid
  --tid --inherit-flag --creator-oid --pkg-id --pkg-name --module --device --label --clear
  --help --batch --recursive --dir-label --no-dereference --pattern-match --subscribe
  --topic --sm3'

_zorv_lmt_short_opts='-a -g -d -r -i -s -v -u -o -m -t -n -f -p -q -k -e -l -c -b -P -R -H
  -L -S -T -3 -h'

_zorv_lmt_clear_words='sid oid tid inherit_flag pkgid'

# Prints the short option name (one character) or long option name that the
# long option word stands for when it takes an argument; nothing otherwise.
_zorv_lmt_long_arg_opt() {
    case $1 in
        --del) echo del ;;
        --batch) echo batch ;;
        --scan) echo s ;;
        --id) echo v ;;
        --oid) echo o ;;
        --sid) echo m ;;
        --tid) echo t ;;
        --inherit-flag) echo n ;;
        --creator-oid) echo f ;;
        --pkg-id) echo p ;;
        --pkg-name) echo q ;;
        --module) echo k ;;
        --device) echo e ;;
        --label) echo l ;;
        --dir-label) echo L ;;
        --topic) echo T ;;
        --sm3) echo 3 ;;
    esac
}

_zorv_lmt_files() {
    local IFS=$'\n'
    compopt -o filenames 2>/dev/null
    COMPREPLY+=($(compgen -f -- "$1"))
}

_zorv_lmt_dirs() {
    local IFS=$'\n'
    compopt -o filenames 2>/dev/null
    COMPREPLY+=($(compgen -d -- "$1"))
}

_zorv_label_manager_tool() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    # After "--oid=" bash hands over "=" as the word; its argument is empty.
    [[ $cur == '=' ]] && cur=''

    # Walk the words before the current one: which option (if any) takes the
    # current word as its argument, and whether the operands are -c words.
    local pending='' clearing='' i=1 word opt rest
    while ((i < COMP_CWORD)); do
        word=${COMP_WORDS[i]}
        pending=''
        if [[ $word == --* ]]; then
            case $word in
                # The tool stops reading at -h and at -3 with its argument:
                # nothing typed after them is used.
                --help) return 0 ;;
                --sm3=*) return 0 ;;
            esac
            opt=$(_zorv_lmt_long_arg_opt "${word%%=*}")
            if [[ -n $opt && $word != *=* ]]; then
                # bash splits "--oid=x" into "--oid", "=", "x".
                if [[ ${COMP_WORDS[i + 1]} == '=' ]] && ((i + 1 < COMP_CWORD)); then
                    ((i++))
                fi
                pending=$opt
            fi
        elif [[ $word == -?* ]]; then
            rest=${word#-}
            while [[ -n $rest ]]; do
                opt=${rest:0:1}
                rest=${rest:1}
                [[ $opt == h ]] && return 0
                if [[ $_zorv_lmt_short_with_arg == *"$opt"* ]]; then
                    [[ $opt == c ]] && clearing=1
                    if [[ -n $rest ]]; then
                        [[ $opt == 3 ]] && return 0
                    else
                        pending=$opt
                    fi
                    break
                fi
            done
        fi
        if [[ -n $pending ]]; then
            # The argument is the next word; if that is the current word, stop.
            ((i + 1 == COMP_CWORD)) && break
            [[ $pending == 3 ]] && return 0
            pending=''
            ((i++))
        fi
        ((i++))
    done

    if [[ -n $pending ]]; then
        case $pending in
            c) COMPREPLY=($(compgen -W "$_zorv_lmt_clear_words" -- "$cur")) ;;
            l | L | f) _zorv_lmt_files "$cur" ;;
            o | m | t | n)
                # "--all" asks for every file with -u.
                [[ $cur == -* ]] && COMPREPLY=($(compgen -W '--all' -- "$cur"))
                _zorv_lmt_files "$cur"
                ;;
            p) [[ $cur == -* ]] && COMPREPLY=($(compgen -W '--all' -- "$cur")) ;;
            s) _zorv_lmt_dirs "$cur" ;;
            # Numbers, names, topics and -3's free text: nothing to offer.
            *) ;;
        esac
        return 0
    fi

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$_zorv_lmt_long_opts $_zorv_lmt_short_opts" -- "$cur"))
        return 0
    fi
    if [[ -n $clearing ]]; then
        COMPREPLY=($(compgen -W "$_zorv_lmt_clear_words" -- "$cur"))
        return 0
    fi
    # Operands are paths or patterns (the values of a set are numbers, for
    # which a file name does no harm).
    _zorv_lmt_files "$cur"
    return 0
}

complete -F _zorv_label_manager_tool zorv-label-manager-tool
