#!/usr/bin/env bash
# The speed figures in one run:
#   1. ns per emulated ADD on each road (trap path, one-word sequence, runs;
#      the one-word sequence of an older build too with --before DIR);
#   2. ns per word of a streaming loop's words (FMLA, FADD, FADDA, LD1W, ST1W,
#      WHILELO) under quern with runs, and on the reference processor; and the
#      emulator's own part of the words of compiled loops (bench/word_costs);
#   3. each compiled program under quern (one word per call, and runs)
#      against the reference processor, at K times the sizes of CI.
#
#   speed_table.sh QUERN AARCH64_BUILD OUTDIR [--scale K] [--before DIR] [PROGRAM...]
#
# K defaults to 20 (about a quarter of an hour on a small machine). Environment as for
# run_programs.sh (QUERN_QEMU, QUERN_SYSROOT).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
if [ $# -lt 3 ]; then
  echo "usage: speed_table.sh QUERN AARCH64_BUILD OUTDIR [--scale K] [--before DIR] [PROGRAM...]" >&2
  exit 2
fi
quern=$1 build=$2 out=$3
shift 3
scale=20 before= only=()
while [ $# -gt 0 ]; do
  case $1 in
    --scale) scale=$2; shift ;;
    --before) before=$2; shift ;;
    *) only+=("$1") ;;
  esac
  shift
done
quern=$(readlink -f "$quern") build=$(readlink -f "$build")
[ -z "$before" ] || before=$(readlink -f "$before")
mkdir -p "$out"
# Whatever the runs leave in the working directory (trace files) goes there.
cd "$out"
qemu=${QUERN_QEMU:-qemu-aarch64}
sysroot=${QUERN_SYSROOT:-/usr/aarch64-linux-gnu}

echo "== ns per emulated instruction (ADD Z.D, #1)"
"$here/run_emulated_add.sh" "$quern" "$build/bench/emulated_add" 1000000 $before
echo
echo "== ns per word of a streaming loop, each word alone in a loop"
words() { sed 's/ ns per word$//' | sort; }
paste <(QUERN_QEMU="$qemu" "$quern" run --runs -- "$build/bench/emulated_words" | words) \
      <("$qemu" -cpu max,sve-max-vq=3 -L "$sysroot" "$build/bench/emulated_words" | words) |
  awk -F'\t' 'BEGIN { printf "%-20s %10s %10s %8s\n", "word", "quern_ns", "ref_ns", "ratio" }
              { q = substr($1, 21) + 0; r = substr($2, 21) + 0;
                printf "%-20s %10.1f %10.1f %7.1fx\n", substr($1, 1, 20), q, r, (r > 0 ? q / r : 0) }'
echo
echo "== ns per word of the emulator's own part (dispatch, adapter, handler), eight in a row, under qemu without SVE"
QEMU_LD_PREFIX="$sysroot" "$qemu" -cpu max,sve=off "$build/bench/word_costs" 1000000
echo
echo "== compiled programs, $scale times the sizes of CI (seconds of kernel time; the reference, NEON and runs best of 3)"
"$here/../programs/run_programs.sh" "$quern" . --scale "$scale" --repeat 3 "${only[@]}" | tee table.txt
# The median of the runs_ref column over every program build that ran.
awk 'NR > 1 && $1 ~ /\// && $9 ~ /x$/ { print $9 + 0 }' table.txt | sort -n |
  awk '{ r[++n] = $1 } END { if (n) printf "median runs_ref over %d program builds: %.1fx\n", n,
                                           n % 2 ? r[(n + 1) / 2] : (r[n / 2] + r[n / 2 + 1]) / 2 }'
