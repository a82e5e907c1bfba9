#!/usr/bin/env bash
# The man page renders without a single warning and documents every option the
# bash completion offers, the environment variables and the files.
# Usage: manpage_test.sh [path/to/zorv-label-manager-tool.8]   (exit 77: no man)
set -u
here=$(dirname "$0")
page=${1:-$here/zorv-label-manager-tool.8}
command -v man >/dev/null || { echo "man is not installed"; exit 77; }
failed=0
fail() { ((++failed)); echo "FAIL: $*"; }

warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[[ -z $warnings ]] || fail "renders with warnings: $warnings"
text=$(MANWIDTH=200 man -l "$page" 2>/dev/null | col -b)
# shellcheck source=/dev/null
source "$here/zorv-label-manager-tool.bash"
for word in $_zorv_lmt_long_opts $_zorv_lmt_clear_words ZORV_LABEL_LOG_PROPERTIES \
    ZORV_LABEL_LOG_FALLBACK ZORV_LABELMGR_STATE_DIR ZORV_LABELMGR_DPKG_DIR \
    /etc/zorv/label/zorv-label-log.properties /var/log/zorv/zorv_label_manager.log; do
    grep -qF -- "$word" <<<"$text" || fail "does not mention $word"
done
for option in $_zorv_lmt_short_opts; do
    grep -qE "^ +$option[, ]" <<<"$text" || fail "has no entry for $option"
done
echo "$failed failed"
((failed == 0))
