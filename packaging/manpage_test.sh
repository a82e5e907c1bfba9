#!/usr/bin/env bash
# The man page renders without a single warning and documents every option the
# bash completion offers, the environment variables and the files.
# Usage: manpage_test.sh [path/to/zorv-label-manager-tool.8]   (exit 77: no man)
set -u
here=$(dirname "$0")
page=${1:-$here/zorv-label-manager-tool.8}
command -v man >/dev/null || { echo "man is not installed"; exit 77; }
# shellcheck source=/dev/null
source "$here/zorv-label-manager-tool.bash"
warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[[ -z $warnings ]] || echo "FAIL: renders with warnings: $warnings"
text=$(MANWIDTH=200 man -l "$page" 2>/dev/null | col -b)
missing=$(for word in $_zorv_lmt_long_opts $_zorv_lmt_clear_words ZORV_LABEL_LOG_PROPERTIES \
    ZORV_LABEL_LOG_FALLBACK ZORV_LABELMGR_STATE_DIR ZORV_LABELMGR_DPKG_DIR \
    /etc/zorv/label/zorv-label-log.properties /var/log/zorv/zorv_label_manager.log; do
    grep -qF -- "$word" <<<"$text" || echo "$word"
done
for option in $_zorv_lmt_short_opts; do
    grep -qE "^ +$option[, ]" <<<"$text" || echo "$option"
done)
[[ -z $missing ]] || echo "FAIL: not documented:" $missing
[[ -z $warnings && -z $missing ]]
