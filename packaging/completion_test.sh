#!/usr/bin/env bash
# Drives the bash completion of zorv-label-manager-tool the way bash does
# (COMP_WORDS/COMP_CWORD) and checks what it offers.
# Usage: completion_test.sh [path/to/zorv-label-manager-tool.bash]
set -u
script=${1:-$(dirname "$0")/zorv-label-manager-tool.bash}
# shellcheck source=/dev/null
source "$script" || exit 1

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/dir one" "$tmp/dir2"
touch "$tmp/file.conf" "$tmp/dir2/x"

passed=0
failed=0

# complete WORD... : the last word is the one being completed.
complete_words() {
    COMP_WORDS=(zorv-label-manager-tool "$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _zorv_label_manager_tool
    printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd' ' -
}

# expect "WANTED" WORD... : the offered words, sorted and joined by blanks.
expect() {
    local wanted=$1 got
    shift
    got=$(complete_words "$@")
    if [[ $got == "$wanted" ]]; then
        ((passed++))
    else
        ((failed++))
        printf 'FAIL: completing [%s]\n  wanted: [%s]\n  got:    [%s]\n' "$*" "$wanted" "$got"
    fi
}

# Options, long and short.
expect '--scan --sid --sm3 --subscribe' '--s'
expect '--no-dereference' '--no'
expect '-P' '-P'
expect '--del --device --dir-label' -g '--d'

# The words of -c, also as later operands, also with -c bundled or attached.
expect 'inherit_flag oid pkgid sid tid' -d -c ''
expect 'inherit_flag' -d -c sid i
expect 'pkgid' -dc sid p
expect 'oid' -d -csid o
# --clear takes no argument: its operands are not read as -c words.
expect "$tmp/file.conf" -d --clear "$tmp/fi"

# Nothing for -3's free text, nor for anything after it (the tool stops there),
# nor after -h.
expect '' -3 ''
expect '' -3 abc ''
expect '' -3 abc '-'
expect '' --sm3 abc -g
expect '' -3abc -g
expect '' -h '--'
expect '' -gh ''

# Files after the path options and for operands; directories after -s.
expect "$tmp/file.conf" -g -l "$tmp/fi"
expect "$tmp/file.conf" -gl "$tmp/fi"
expect "$tmp/file.conf" -g -l "$tmp/dir2" "$tmp/fi"
expect "$tmp/file.conf" -R -d -L "$tmp/f"
expect "$tmp/dir2/x" -a -o "$tmp/dir2/"
expect "$tmp/dir one $tmp/dir2" -a -s "$tmp/dir"
expect "$tmp/dir one" -a -s "$tmp/dir "
expect "$tmp/file.conf" -g --label "$tmp/f"
expect "$tmp/file.conf" -g --label = "$tmp/f"

# "--all" for the user-set selectors; nothing for numbers and names.
expect '--all' -g -u -o '--a'
expect '--all' -g -u -p '--'
expect '' -g -q ''
expect '' -S -T ''
expect '' -g -k ''

# An option's argument that looks like an option is still its argument.
expect "$tmp/file.conf" -g -l -3 "$tmp/fi"

if ! complete -p zorv-label-manager-tool >/dev/null 2>&1; then
    ((failed++))
    echo 'FAIL: the completion is not registered for zorv-label-manager-tool'
else
    ((passed++))
fi

echo "$passed passed, $failed failed"
((failed == 0))
