#!/usr/bin/env bash
# Emulated ADD Z0.D, Z0.D, #1 on rewritten code and on the fallback path, and
# the number of instructions emitted in place of one emulated instruction.
set -euo pipefail
quern=$1 prog=$2 n=${3:-1000000}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
log=$dir/log
rewritten=$("$quern" run --log-level 2 --log "$log" --trace "$dir/1.qtrace" -- "$prog" "$n")
fallback=$("$quern" run --fallback --trace "$dir/2.qtrace" -- "$prog" $((n / 10)))
words=$(grep -o 'rewrote .* with [0-9]* instructions' "$log" | head -1 | grep -o '[0-9]* instructions' || true)
r=$(sed 's/ ns.*//' <<<"$rewritten"); f=$(sed 's/ ns.*//' <<<"$fallback")
echo "rewritten code: $rewritten"
echo "fallback path:  $fallback"
echo "rewritten code is $(awk -v r="$r" -v f="$f" 'BEGIN { printf "%.1f", f / r }') times faster"
echo "emitted per emulated instruction: ${words:-unknown}"
