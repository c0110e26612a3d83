#!/usr/bin/env bash
# Runs Windows test programs under wine64 in a throw-away Wine prefix.
#
#   wine_run.sh init  PREFIX    make a fresh prefix (wineboot, crash debugger off)
#   wine_run.sh run   PREFIX [--reg HIVE KEY LINE]... -- PROGRAM [ARG]...
#   wine_run.sh expect PREFIX STATUS OUT ERR [--reg HIVE KEY LINE]... -- PROGRAM [ARG]...
#                               run a command-line program: it must exit with
#                               STATUS, print a line matching the extended
#                               regular expression OUT ("" for no check), and
#                               write nothing to stderr, or ("" ERR otherwise)
#                               exactly one line, matching ERR
#   wine_run.sh clean PREFIX    stop the prefix's Wine processes, delete it
#
# A program passes only when it exits with status 0 AND its last line of
# output is "GLIDEWELL-WINE-RESULT: PASS": Wine exits 0 without a word when it
# cannot load an EXE at all. "--reg HIVE KEY LINE" also requires, once Wine has
# written the registry to disk, a line matching the extended regular
# expression LINE (a value line such as '"Drive Map"=dword:[0-9a-f]{8}') in
# the section of KEY ('Software\quorvane\x', any case) of the prefix's
# HIVE.reg (user or system).
# Exit status 77 means skipped (no Wine, no prefix, program not built).
set -uo pipefail

LOADER="${GLIDEWELL_WINE_LOADER:-/usr/lib/wine/wine64}"
SERVER="${GLIDEWELL_WINESERVER:-/usr/lib/wine/wineserver}"
RUN_TIMEOUT="${GLIDEWELL_WINE_TIMEOUT:-120}"
SENTINEL="GLIDEWELL-WINE-RESULT: PASS"

usage() { echo "usage: $0 init|run|clean PREFIX ..." >&2; exit 2; }
[ $# -ge 2 ] || usage
cmd="$1"
export WINEPREFIX="$2"
shift 2
case "$WINEPREFIX" in /*) ;; *) echo "wine_run: the prefix must be an absolute path" >&2; exit 2 ;; esac

# Quiet, headless, 64-bit only; no Mono or Gecko installer prompts during wineboot.
export WINEARCH=win64 WINEDEBUG="${WINEDEBUG:--all}" WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

if [ ! -x "$LOADER" ] || [ ! -x "$SERVER" ]; then
  echo "wine_run: skipped, no Wine loader at $LOADER (Debian package wine64)"
  exit 77
fi

# Waits until every process of the prefix has ended; the server writes its
# registry files (*.reg) as it goes down, so they are complete afterwards.
wait_server() { timeout 60 "$SERVER" -w || { echo "wine_run: wineserver did not go down" >&2; "$SERVER" -k 2>/dev/null; return 1; }; }

# Prints the value lines of one key of a .reg file. Key headers there read
# [Software\\quorvane\\x] 1795380007, with doubled backslashes and a time stamp.
reg_section() {
  local key="${2//\\/\\\\}"
  KEY="[${key,,}]" awk '
    BEGIN { key = ENVIRON["KEY"] }
    /^\[/ { inside = (tolower(substr($0, 1, length(key))) == key && substr($0, length(key) + 1, 1) ~ /^( |$)/); next }
    inside { print }' "$1"
}

case "$cmd" in
init)
  "$SERVER" -k 2>/dev/null || true
  rm -rf "$WINEPREFIX"
  mkdir -p "$(dirname "$WINEPREFIX")"
  start=$(date +%s)
  if ! timeout 180 "$LOADER" wineboot --init >"$WINEPREFIX.boot.log" 2>&1; then
    cat "$WINEPREFIX.boot.log" >&2
    echo "wine_run: wineboot failed" >&2
    exit 1
  fi
  # An empty debugger makes a crashing program exit at once instead of
  # starting winedbg and waiting.
  key='HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug'
  "$LOADER" reg add "$key" /v Debugger /t REG_SZ /d "" /f >/dev/null 2>&1 || { echo "wine_run: reg add failed" >&2; exit 1; }
  wait_server || exit 1
  if ! reg_section "$WINEPREFIX/system.reg" "${key#HKLM\\}" | grep -qx '"Debugger"=""'; then
    echo "wine_run: the AeDebug debugger is not switched off in $WINEPREFIX/system.reg" >&2
    exit 1
  fi
  rm -f "$WINEPREFIX.boot.log"
  echo "wine_run: prefix $WINEPREFIX ready in $(( $(date +%s) - start )) s"
  ;;
run|expect)
  if [ "$cmd" = expect ]; then
    [ $# -ge 3 ] || usage
    want_status="$1" want_out="$2" want_err="$3"
    shift 3
  fi
  regs=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    case "$1" in
      --reg) [ $# -ge 4 ] || usage; regs+=("$2" "$3" "$4"); shift 4 ;;
      *) usage ;;
    esac
  done
  [ "${1:-}" = "--" ] || usage
  shift
  [ $# -ge 1 ] || usage
  program="$1"
  shift
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    echo "wine_run: skipped, no Wine prefix at $WINEPREFIX (the init step did not run)"
    exit 77
  fi
  if [ ! -f "$program" ]; then
    echo "wine_run: skipped, $program is not built (cmake --preset win64 && cmake --build --preset win64)"
    exit 77
  fi
  out="$(mktemp)" err="$(mktemp)"
  trap 'rm -f "$out" "$err"' EXIT
  if [ "$cmd" = expect ]; then
    timeout "$RUN_TIMEOUT" "$LOADER" "$program" "$@" >"$out" 2>"$err"
  else
    timeout "$RUN_TIMEOUT" "$LOADER" "$program" "$@" >"$out" 2>&1
  fi
  status=$?
  tr -d '\r' <"$out"
  tr -d '\r' <"$err" >&2
  last="$(tr -d '\r' <"$out" | grep -v '^[[:space:]]*$' | tail -n 1)"
  if [ "$status" -eq 124 ]; then
    echo "wine_run: FAILED, $program did not finish within $RUN_TIMEOUT s" >&2
    "$SERVER" -k 2>/dev/null
    exit 1
  fi
  if [ "$cmd" = expect ]; then
    failed=0
    [ "$status" -eq "$want_status" ] || { echo "wine_run: FAILED, exit status $status, expected $want_status" >&2; failed=1; }
    if [ -n "$want_out" ] && ! tr -d '\r' <"$out" | grep -Eq -- "$want_out"; then
      echo "wine_run: FAILED, no output line matches $want_out" >&2
      failed=1
    fi
    errors="$(tr -d '\r' <"$err")"
    if [ -z "$want_err" ] && [ -n "$errors" ]; then
      echo "wine_run: FAILED, unexpected output on stderr" >&2
      failed=1
    elif [ -n "$want_err" ] && { [ "$(grep -c '' <<<"$errors")" -ne 1 ] || ! grep -Eq -- "$want_err" <<<"$errors"; }; then
      echo "wine_run: FAILED, stderr is not one line matching $want_err" >&2
      failed=1
    fi
    [ "$failed" -eq 0 ] || exit 1
  elif [ "$status" -ne 0 ]; then
    echo "wine_run: FAILED, $program exited with status $status" >&2
    exit 1
  fi
  if [ "$cmd" = run ] && [ "$last" != "$SENTINEL" ]; then
    echo "wine_run: FAILED, $program exited 0 but did not report \"$SENTINEL\" last (did it run at all?)" >&2
    exit 1
  fi
  if [ ${#regs[@]} -gt 0 ]; then
    wait_server || exit 1
    failed=0
    for ((i = 0; i < ${#regs[@]}; i += 3)); do
      hive="$WINEPREFIX/${regs[i]}.reg"
      if ! reg_section "$hive" "${regs[i + 1]}" | grep -Eqx -- "${regs[i + 2]}"; then
        echo "wine_run: FAILED, no line matching ${regs[i + 2]} in [${regs[i + 1]}] of $hive" >&2
        failed=1
      fi
    done
    [ "$failed" -eq 0 ] || exit 1
  fi
  echo "wine_run: $program passed"
  ;;
clean)
  "$SERVER" -k 2>/dev/null || true
  rm -rf "$WINEPREFIX" "$WINEPREFIX.boot.log"
  ;;
*)
  usage
  ;;
esac
