# Sourced by the benchmark scripts: the tree they time, its labels, the log,
# the clock.

# make_tree ROOT builds the benchmark tree of $files files under ROOT, 100 files per directory in directories
# d0/s0 .. d0/s99, d1/s0 ... (10 x 100 directories for 100,000 files).
make_tree() {
  local root=$1 per_dir=100 dirs=$(((files + 99) / 100))
  local d
  for ((d = 0; d < dirs; d++)); do printf '%s/d%d/s%d\n' "$root" $((d / 100)) $((d % 100)); done |
    xargs mkdir -p
  for ((d = 0; d < dirs; d++)); do
    printf "$root/d$((d / 100))/s$((d % 100))/file-%d\n" $(seq 0 $((per_dir - 1)))
  done | head -n "$files" | xargs touch
}

# bench_workdir NAME: makes the scratch directory $work (removed on exit),
# where the programs log (INFO and above, to $work/bench.log); the package
# database is $DPKG_DIR when set, else the system's. Needs setfattr.
bench_workdir() {
  command -v setfattr >/dev/null || { echo "setfattr is missing (package attr)" >&2; exit 2; }
  work=$(mktemp -d "${TMPDIR:-/tmp}/zorv-$1-bench-XXXXXX")
  trap 'rm -rf "$work"' EXIT
  if [[ -n ${DPKG_DIR:-} ]]; then export ZORV_LABELMGR_DPKG_DIR="$DPKG_DIR"; fi
  cat >"$work/log.properties" <<PROPERTIES
log4cpp.rootCategory=INFO, B
log4cpp.appender.B=FileAppender
log4cpp.appender.B.fileName=$work/bench.log
log4cpp.appender.B.layout=PatternLayout
log4cpp.appender.B.layout.ConversionPattern=%d [%p] %m%n
PROPERTIES
  export ZORV_LABEL_LOG_PROPERTIES="$work/log.properties"
}

# unlabel ROOT removes every label under ROOT.
unlabel() { find "$1" -print0 | xargs -0 setfattr -x security.zorv 2>/dev/null || true; }

now() { date +%s.%N; }
elapsed() { echo "$2 - $1" | bc -l; }
median() { printf '%s\n' "$@" | sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

# show_time LABEL SECONDS: one measured line, the figures aligned.
show_time() { printf '%-43s %.3f s\n' "$1" "$2"; }
# show_ratio NAME NUMERATOR DENOMINATOR NOTE [DIGITS]: "NAME = value (NOTE)".
show_ratio() { printf '%s = %.*f (%s)\n' "$1" "${5:-2}" "$(echo "$2 / $3" | bc -l)" "$4"; }
