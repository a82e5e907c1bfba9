#!/usr/bin/env bash
# Checks the man page: it renders without a single warning, and it documents
# every option the bash completion offers, the environment variables and the
# files the tool and its libraries read.
# Usage: manpage_test.sh [path/to/zorv-label-manager-tool.8]   (exit 77: no man)
set -u
here=$(dirname "$0")
page=${1:-$here/zorv-label-manager-tool.8}
command -v man >/dev/null || { echo "man is not installed"; exit 77; }

passed=0
failed=0
check() {  # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then
        ((passed++))
    else
        ((failed++))
        echo "FAIL: $what"
    fi
}

warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
check "renders without warnings: $warnings" test -z "$warnings"

text=$(MANWIDTH=200 man -l "$page" 2>/dev/null | col -b)
check "renders to text" test -n "$text"
has() { grep -qF -- "$1" <<<"$text"; }

# The options as the completion knows them; both must stay in step.
# shellcheck source=/dev/null
source "$here/zorv-label-manager-tool.bash"
for option in $_zorv_lmt_long_opts; do
    check "documents $option" has "$option"
done
for option in $_zorv_lmt_short_opts; do
    check "has an entry for $option" grep -qE "^ +$option[, ]" <<<"$text"
done
for word in $_zorv_lmt_clear_words; do
    check "documents the -c word $word" has "$word"
done

for name in ZORV_LABEL_LOG_PROPERTIES ZORV_LABEL_LOG_FALLBACK ZORV_LABELMGR_STATE_DIR \
    ZORV_LABELMGR_DPKG_DIR /etc/zorv/label/zorv-label-log.properties \
    /var/log/zorv/zorv_label_manager.log /var/lib/zorv/label security.zorv; do
    check "documents $name" has "$name"
done
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" ENVIRONMENT FILES; do
    check "has the section $section" grep -qx "$section" <<<"$text"
done

echo "$passed passed, $failed failed"
((failed == 0))
