# Shell helpers for the scripts and benchmarks that run the tool in a scratch
# directory. Source this file; it defines functions only.

# zorv_log_into LOG [LEVEL [LAYOUT [PATTERN]]]
# Sends the tool's and the libraries' log records of LEVEL and above (default
# INFO) to the file LOG with a log4cpp LAYOUT (default SimpleLayout, PATTERN
# for a PatternLayout), through log.properties beside LOG, so that nothing
# goes to the system's log.
zorv_log_into() {
  local log=$1 level=${2:-INFO} layout=${3:-SimpleLayout} pattern=${4:-}
  export ZORV_LABEL_LOG_PROPERTIES
  ZORV_LABEL_LOG_PROPERTIES=$(dirname "$log")/log.properties
  {
    echo "log4cpp.rootCategory=$level, A1"
    echo "log4cpp.appender.A1=FileAppender"
    echo "log4cpp.appender.A1.fileName=$log"
    echo "log4cpp.appender.A1.layout=$layout"
    [[ -z $pattern ]] || echo "log4cpp.appender.A1.layout.ConversionPattern=$pattern"
    echo "log4cpp.category.INFO=$level, A1"
  } >"$ZORV_LABEL_LOG_PROPERTIES"
}

# zorv_scratch_state DIR
# Our label manager library keeps its state in DIR/state and reads the
# package database DIR/dpkg, empty unless the caller fills it.
zorv_scratch_state() {
  export ZORV_LABELMGR_STATE_DIR=$1/state
  export ZORV_LABELMGR_DPKG_DIR=$1/dpkg
  mkdir -p "$ZORV_LABELMGR_DPKG_DIR/info"
  touch "$ZORV_LABELMGR_DPKG_DIR/status"
}
