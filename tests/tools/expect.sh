#!/usr/bin/env bash
# Runs one command and checks its exit code and output; prints what did not match, with the
# command's output, and exits 1 in that case.
#
#   expect.sh [--rc N] [--out REGEX]... [--err REGEX]... [--no-out] [--no-err]
#             [--one-err-line] [--save-out FILE] [--interrupt-after SECONDS]
#             [--no-leftovers] -- COMMAND [ARGS...]
#
# REGEX is an extended regular expression (grep -E) that some line must match.
# --interrupt-after sends the command SIGINT after that long. --no-leftovers checks, once the
# command ended, that nothing named after its pid is left: no process (zorvek-serializer,
# redis-server), no shared-memory segment, no directory in /tmp.
set -uo pipefail

rc=0
outs=()
errs=()
no_out=0
no_err=0
one_err_line=0
save_out=""
interrupt_after=""
no_leftovers=0
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  case "$1" in
    --rc) rc="$2"; shift 2 ;;
    --out) outs+=("$2"); shift 2 ;;
    --err) errs+=("$2"); shift 2 ;;
    --no-out) no_out=1; shift ;;
    --no-err) no_err=1; shift ;;
    --one-err-line) one_err_line=1; shift ;;
    --save-out) save_out="$2"; shift 2 ;;
    --interrupt-after) interrupt_after="$2"; shift 2 ;;
    --no-leftovers) no_leftovers=1; shift ;;
    *) echo "expect.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
[ $# -gt 1 ] || { echo "expect.sh: no command after --" >&2; exit 2; }
shift

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$@" >"$tmp/out" 2>"$tmp/err" &
pid=$!
if [ -n "$interrupt_after" ]; then
  sleep "$interrupt_after"
  kill -INT "$pid" 2>/dev/null
fi
wait "$pid"
got=$?

failed=()
[ "$got" -eq "$rc" ] || failed+=("exit code $got, expected $rc")
if [ "$no_leftovers" -eq 1 ]; then
  left=$(pgrep -af "zorvek-$pid-" | grep -v pgrep)
  [ -z "$left" ] || failed+=("processes left behind: $left")
  left=$(ls /dev/shm | grep "^zorvek-$pid-")
  [ -z "$left" ] || failed+=("shared-memory segments left behind: $left")
  left=$(ls -d /tmp/zorvek-"$pid"-* 2>/dev/null)
  [ -z "$left" ] || failed+=("directories left behind: $left")
fi
for re in ${outs[@]+"${outs[@]}"}; do
  grep -Eq -- "$re" "$tmp/out" || failed+=("no stdout line matches: $re")
done
for re in ${errs[@]+"${errs[@]}"}; do
  grep -Eq -- "$re" "$tmp/err" || failed+=("no stderr line matches: $re")
done
[ "$no_out" -eq 0 ] || [ ! -s "$tmp/out" ] || failed+=("stdout is not empty")
[ "$no_err" -eq 0 ] || [ ! -s "$tmp/err" ] || failed+=("stderr is not empty")
[ "$one_err_line" -eq 0 ] || [ "$(wc -l <"$tmp/err")" -eq 1 ] ||
  failed+=("stderr has $(wc -l <"$tmp/err") lines, expected one")
[ -z "$save_out" ] || cp "$tmp/out" "$save_out"

[ ${#failed[@]} -eq 0 ] && exit 0
echo "command: $*"
printf 'FAILED: %s\n' "${failed[@]}"
echo "--- stdout (first 60 lines)"
head -n 60 "$tmp/out"
echo "--- stderr (first 20 lines)"
head -n 20 "$tmp/err"
exit 1
