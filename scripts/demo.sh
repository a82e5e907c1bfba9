#!/usr/bin/env bash
# The main job: install what is needed, build, then show the tool at work on a
# temporary tree, with our own label manager library keeping its state in a
# temporary directory and every log line going there too. Nothing outside that
# directory is touched.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
work=$(mktemp -d /tmp/zorv-demo.XXXXXX)
trap 'rm -rf "$work"' EXIT

bash scripts/install-deps.sh
# The build's progress would bury the demonstration; it is shown only when the
# build fails.
echo "building (first time: a few minutes)..."
if ! bash scripts/build.sh >"$work/build.log" 2>&1; then
  cat "$work/build.log"
  exit 1
fi
tool=$PWD/${BUILD_DIR:-build}/cli/zorv-label-manager-tool
tree=$work/tree

# A small tree: a program owned by the (pretend) installed package "demo-app",
# its configuration and some data.
mkdir -p "$tree/bin" "$tree/etc" "$tree/data/logs"
printf '#!/bin/sh\necho hello\n' >"$tree/bin/demo-app"
chmod 755 "$tree/bin/demo-app"
echo "colour=blue" >"$tree/etc/demo-app.conf"
echo "notes" >"$tree/data/notes.txt"
echo "started" >"$tree/data/logs/today.log"

# Our library's state, a package database of its own, and the log.
zorv_scratch_state "$work"
printf 'Package: demo-app\nStatus: install ok installed\nVersion: 1.0\n\n' >"$work/dpkg/status"
printf '/.\n%s\n%s\n' "$tree/bin" "$tree/bin/demo-app" >"$work/dpkg/info/demo-app.list"
zorv_log_into "$work/zorv_label_manager.log" INFO PatternLayout '%d{%H:%M:%S.%l} [%p] %m %n'

say() { printf '\n# %s\n' "$*"; }
run() {
  local shown=() arg
  for arg in "$@"; do
    [[ $arg == *[*?\ ]* ]] && arg="\"$arg\""  # quote patterns as one would type them
    shown+=("$arg")
  done
  printf '$ zorv-label-manager-tool %s\n' "${shown[*]}"
  "$tool" "$@"
}

say "Label the whole tree from policy: package id, SM3 of name and path"
run -a -s "$tree"
say "Show every label below the tree (OID:TID:SID:inherit flag:creator OID)"
run -R -g -l "$tree"

say "Set single fields by hand: an OID, a TID, and an inherit flag by pattern"
run -a -o "$tree/etc/demo-app.conf" 1f 2 3
run -a -t "$tree/etc/demo-app.conf" 5
run -P -a -n "$tree/data/*" 5
run -g -o "$tree/etc/demo-app.conf" -t "$tree/etc/demo-app.conf"
run -g -l "$tree/etc/demo-app.conf" "$tree/data/notes.txt"

say "What users have set"
run -g -u -o --all
run -g -u -n --all
run -g -u -n "$tree/data/notes.txt"

say "Package ids: the installed package's id, then the name back from it"
run -g -p demo-app
pkg_id=$("$tool" -g -p demo-app | sed 's/.*pkgid://')
run -g -q "$pkg_id"

say "Remove a label, then restore it from policy and the user-set values"
run -d -l "$tree/data/notes.txt"
run -g -l "$tree/data/notes.txt"
run -r -l "$tree/data/notes.txt"
run -g -l "$tree/data/notes.txt"

say "Give the OID back to policy"
run -d -o "$tree/etc/demo-app.conf"
run -g -o "$tree/etc/demo-app.conf"

say "The SM3 value of a path (the OID path part above)"
run -3 "$tree/bin/demo-app"

printf '\n# Log lines written meanwhile (level INFO and up): %s\n' \
  "$(cat "$work/zorv_label_manager.log" 2>/dev/null | wc -l)"
