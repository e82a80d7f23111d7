#!/usr/bin/env bash
# A serializer killed with SIGKILL under load leaves its trace ring in --trace-dir, and
# `zorvek-sim trace` decodes it: its last records are those of the commands it ran, whole.
#
#   postmortem.sh ZORVEK_SIM
set -uo pipefail
zsim=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
out=$("$zsim" run --processes --accesses 20000 --kill l2ser:1 --trace-dir "$dir") ||
  { echo "$out"; echo "FAILED: the run failed"; exit 1; }
file=$(echo "$out" | sed -n 's/^    trace rings of the killed processes: \([^ ]*\).*/\1/p')
[ -n "$file" ] && [ -f "$file" ] ||
  { echo "$out"; echo "FAILED: the report names no trace ring of the killed l2ser"; exit 1; }
decoded=$("$zsim" trace "$file") || { echo "FAILED: zorvek-sim trace $file"; exit 1; }
echo "$decoded" | tail -n 3
echo "$decoded" | tail -n 20 |
  grep -Eq "SimSerializer/9 SimSerializer.cpp:[0-9]+ commandExecute: SimSerializer::commandExecute l2ser (write|free|read|bulkWrite|bulkRead) cmdIndex [0-9]+" ||
  { echo "FAILED: the last records of $file are not the commands l2ser ran"; exit 1; }
