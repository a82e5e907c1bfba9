#!/usr/bin/env bash
# Drives the bash completion the way bash does (COMP_WORDS/COMP_CWORD) and
# checks what it offers.
# Usage: completion_test.sh [path/to/zorv-label-manager-tool.bash]
set -u
# shellcheck source=/dev/null
source "${1:-$(dirname "$0")/zorv-label-manager-tool.bash}" || exit 1
complete -p zorv-label-manager-tool >/dev/null || { echo "FAIL: not registered"; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/dir one" "$tmp/dir2"
touch "$tmp/file.conf"
failed=0
# expect "WANTED" WORD... : the words offered for the last WORD, sorted.
expect() {
    COMP_WORDS=(zorv-label-manager-tool "${@:2}") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _zorv_label_manager_tool
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd' ' -)
    [[ $got == "$1" ]] || { ((++failed)); printf 'FAIL: [%s]: [%s]\n' "${*:2}" "$got"; }
}

expect '--scan --sid --sm3 --subscribe' '--s'
expect 'inherit_flag oid pkgid sid tid' -d -c ''
expect 'pkgid' -dc sid p
# --clear takes no argument: its operands are files, not -c words.
expect "$tmp/file.conf" -d --clear "$tmp/fi"
# The tool stops reading at -3's text.
expect '' -3 abc '-'
expect "$tmp/file.conf" -gl "$tmp/fi"
expect "$tmp/dir one" -a -s "$tmp/dir "
expect '--all' -g -u -o '--a'
# An option's argument that looks like an option is still its argument.
expect "$tmp/file.conf" -g -l -3 "$tmp/fi"
echo "$failed failed"
((failed == 0))
