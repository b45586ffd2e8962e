#!/usr/bin/env bash
# ns per emulated ADD Z.D, #1 on each road, in one table (CPU time of the
# program's thread, best of five rounds: the machine may be shared):
#   trap path        emulation from the signal context on every execution (--fallback)
#   one-word (before) the libraries in BEFORE_LIBDIR, if given (an older build)
#   one-word         rewritten code, each word with its own park, call and reload
#   runs             rewritten code with --runs: adjacent words share them
# and the instructions emitted for the block of one word and of four.
#
#   run_emulated_add.sh QUERN PROGRAM [N] [BEFORE_LIBDIR]
set -euo pipefail
quern=$1 prog=$2 n=${3:-1000000} before=${4:-}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# row LABEL N [ENV...] -- [OPTIONS...]: one line of the table.
row() {
  local label=$1 count=$2; shift 2
  local envs=()
  while [ "$1" != -- ]; do envs+=("$1"); shift; done
  shift
  local log=$dir/$RANDOM.log out
  out=$(env "${envs[@]}" "$quern" run --log-level 2 --log "$log" --trace "$dir/t.qtrace" "$@" -- "$prog" "$count")
  local alone runs emitted
  alone=$(sed -n 's/^\([0-9.-]*\) ns per emulated instruction alone.*/\1/p' <<<"$out")
  runs=$(sed -n 's/.*, \([0-9.-]*\) in runs of four.*/\1/p' <<<"$out")
  # Blocks of one word (4 bytes) and of four (16 bytes) as the log gives them;
  # an older build logs no byte count, and a block of one word each time.
  local one four
  one=$(sed -n 's/.* with \([0-9]*\) instructions at [^,]*\(, 4 bytes.*\)\{0,1\}$/\1/p' "$log" | head -1)
  four=$(sed -n 's/.* with \([0-9]*\) instructions at .*, 16 bytes.*/\1/p' "$log" | head -1)
  emitted=${one:-?}/${four:-?}
  printf '%-20s %12s %16s   %s\n' "$label" "${alone:-?}" "${runs:-?}" "${emitted:-?}"
}

printf '%-20s %12s %16s   %s\n' "road" "ns alone" "ns in runs of 4" "emitted per block (1 word / 4 words)"
row "trap path" $((n / 20)) -- --fallback
if [ -n "$before" ]; then row "one-word (before)" "$n" "QUERN_LIBDIR=$before" -- --no-runs; fi
row "one-word" "$n" -- --no-runs
row "runs" "$n" -- --runs
