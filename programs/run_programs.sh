#!/usr/bin/env bash
# The suite of compiled programs: builds each kernel with GCC for SVE (-O3,
# and -O2 -fno-vect-cost-model) and without SVE (NEON, -O3), runs it on the
# reference processor (qemu with SVE at 384 bits), under `quern run` on a
# processor without SVE (one word per call, and with --runs), and the NEON
# build on qemu without SVE, and prints one line per program and build, with
# the SVE instructions that it emulated most under it (the --stats report of
# the one-word-per-call run, kept in OUTDIR as NAME_BUILD.stats).
#
#   run_programs.sh QUERN OUTDIR [--small | --scale K] [--repeat N] [--check LIST] [PROGRAM...]
#
# --small   the sizes of CI (default: full sizes)
# --scale K K times the sizes of CI
# --repeat N  the reference, the NEON build and the run with runs N times
#           each, timed by the shortest (the machine may be shared)
# --check   fail (status 1) if a program named in LIST (one name a line,
#           '#' comments) does not give the reference's checksum both ways
# A source that does not compile, or a program that is missing or is not an
# AArch64 executable, is reported on its line; the others go on.
# Environment: PROGRAMS_CC, PROGRAMS_CXX (the AArch64 compilers), QUERN_QEMU,
# QUERN_SYSROOT as for `quern run`.
set -u
here=$(cd "$(dirname "$0")" && pwd)
if [ $# -lt 2 ]; then
  echo "usage: run_programs.sh QUERN OUTDIR [--small | --scale K] [--repeat N] [--check LIST] [PROGRAM...]" >&2
  exit 2
fi
quern=$(readlink -f "$1") out=$2
shift 2
small=0 scale=1 check= only=() repeat=1
while [ $# -gt 0 ]; do
  case $1 in
    --small) small=1 ;;
    --repeat) repeat=$2; shift ;;
    --scale) small=1 scale=$2; shift ;;
    --check) check=$2; shift ;;
    *) only+=("$1") ;;
  esac
  shift
done
mkdir -p "$out"
out=$(readlink -f "$out")

if [ "$(uname -m)" = aarch64 ]; then cc_default=gcc cxx_default=g++; else
  cc_default=aarch64-linux-gnu-gcc cxx_default=aarch64-linux-gnu-g++; fi
cc=${PROGRAMS_CC:-$cc_default} cxx=${PROGRAMS_CXX:-$cxx_default}
qemu=${QUERN_QEMU:-qemu-aarch64}
sysroot=${QUERN_SYSROOT:-/usr/aarch64-linux-gnu}

# name  source  small-size  extra flags
programs=(
  "int_stream int_stream.c 3001 -"
  "reduce_int reduce_int.c 3001 -"
  "saturate saturate.c 3001 -"
  "cond cond.c 3001 -"
  "gather gather.c 3001 -"
  "histogram histogram.c 3001 -"
  "spmv spmv.c 301 -"
  "aos aos.cpp 3001 -"
  "strscan strscan.c 40 -"
  "axpy axpy.c 3001 -"
  "dot dot.c 3001 -"
  "dot_fast dot.c 3001 -ffast-math"
  "half half.c 3001 -"
  "convert convert.c 3001 -"
  "rounding rounding.c 3001 -"
  "matmul matmul.cpp 23 -"
  "threads threads.c 3001 -pthread"
)
builds=("o3:-O3 -march=armv8.2-a+sve" "o2:-O2 -fno-vect-cost-model -march=armv8.2-a+sve")

wanted() {
  [ ${#only[@]} -eq 0 ] && return 0
  local o
  for o in "${only[@]}"; do [ "$o" = "$1" ] && return 0; done
  return 1
}
must_agree() {
  [ -n "$check" ] && grep -v '^#' "$check" | grep -qxF "$1"
}

# compile NAME SOURCE FLAGS... -> $bin, or a reason in $why
compile() {
  local name=$1 src=$here/$2; shift 2
  bin=$out/$name
  local c=$cc std=-std=gnu17
  case $src in *.cpp) c=$cxx std=-std=gnu++17 ;; esac
  if [ ! -f "$src" ]; then why="source $src is missing"; return 1; fi
  if ! "$c" $std "$@" -I"$here" -o "$bin" "$src" -lm >"$out/$name.cc.log" 2>&1; then
    why="does not compile: $(grep -m1 'error' "$out/$name.cc.log")"
    return 1
  fi
}

# An AArch64 executable: the ELF magic, class 64, machine 183.
is_aarch64_elf() {
  [ -f "$1" ] && [ "$(head -c 4 "$1" | od -An -c | tr -d ' ')" = '177ELF' ] &&
    [ "$(od -An -j18 -N2 -tu2 "$1" | tr -d ' ')" = 183 ]
}

# run_one TAG CMD... -> $sum (checksum) $secs (kernel time) $rc
run_one() {
  local tag=$1; shift
  timeout -k 5 600 "$@" >"$out/$tag.out" 2>"$out/$tag.err"
  rc=$?
  sum=$(sed -n 's/^checksum //p' "$out/$tag.out")
  secs=$(sed -n 's/^kernel time \([0-9.]*\) s$/\1/p' "$out/$tag.err")
  [ -n "$sum" ] || sum="(status $rc)"
  [ -n "$secs" ] || secs=-
}
# The same, --repeat times: the shortest kernel time, and the checksum only if
# every run gave the same one.
run_best() {
  local tag=$1 i first_sum best=-; shift
  for ((i = 0; i < repeat; ++i)); do
    run_one "$tag" "$@"
    [ $i -eq 0 ] && first_sum=$sum
    [ "$sum" = "$first_sum" ] || first_sum="(differs from run to run)"
    best=$(awk -v a="$best" -v b="$secs" 'BEGIN { print (a == "-" || (b != "-" && b + 0 < a + 0)) ? b : a }')
  done
  sum=$first_sum secs=$best
}
# The total and the five mnemonics most emulated, from a --stats report.
top_mnemonics() {
  [ -s "$1" ] || return 0
  awk '/SVE instructions emulated/ && !total {total = $4}
       $2 ~ /%$/ && n < 5 {top = top sprintf("%s%s %s", n ? ", " : "", $3, $2); ++n}
       END {if (total) printf "    %s SVE words: %s\n", total, top}' "$1"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "-" || b == "-" || b <= 0) print "-"; else printf "%.1fx", a / b }'; }

fails=0
printf '%-18s %-6s %-6s %9s %9s %9s %9s %8s %8s %8s\n' program same runs quern_s runs_s ref_s neon_s vs_ref runs_ref vs_neon
for entry in "${programs[@]}"; do
  read -r name src size extra <<<"$entry"
  wanted "$name" || continue
  [ "$extra" = - ] && extra=
  args=()
  [ $small -eq 1 ] && args=("$((size * scale))")
  # NEON build of the same source, on qemu without SVE.
  neon_secs=-
  # shellcheck disable=SC2086
  if compile "${name}_neon" "$src" -O3 -march=armv8.2-a $extra; then
    run_best "${name}_neon" "$qemu" -cpu max,sve=off -L "$sysroot" "$bin" "${args[@]}"
    neon_secs=$secs
  fi
  for b in "${builds[@]}"; do
    tag=${b%%:*} flags=${b#*:}
    label="$name/$tag"
    # shellcheck disable=SC2086
    if ! compile "${name}_$tag" "$src" $flags $extra; then
      printf '%-18s %s\n' "$label" "NOT BUILT: $why"
      must_agree "$name" && fails=$((fails + 1))
      continue
    fi
    if ! is_aarch64_elf "$bin"; then
      printf '%-18s %s\n' "$label" "NOT RUN: $bin is missing or not an AArch64 executable"
      must_agree "$name" && fails=$((fails + 1))
      continue
    fi
    run_best "${name}_$tag.ref" "$qemu" -cpu max,sve-max-vq=3 -L "$sysroot" "$bin" "${args[@]}"
    ref_sum=$sum ref_secs=$secs ref_rc=$rc
    stats=$out/${name}_$tag.stats
    rm -f "$stats"
    run_one "${name}_$tag.quern" "$quern" run --no-runs --stats-file "$stats" -- "$bin" "${args[@]}"
    q_sum=$sum q_secs=$secs
    run_best "${name}_$tag.runs" "$quern" run --runs -- "$bin" "${args[@]}"
    r_sum=$sum r_secs=$secs
    same=no runs=no
    [ "$ref_rc" -eq 0 ] && [ "$q_sum" = "$ref_sum" ] && same=yes
    [ "$ref_rc" -eq 0 ] && [ "$r_sum" = "$ref_sum" ] && runs=yes
    printf '%-18s %-6s %-6s %9s %9s %9s %9s %8s %8s %8s\n' "$label" $same $runs "$q_secs" "$r_secs" "$ref_secs" \
      "$neon_secs" "$(ratio "$q_secs" "$ref_secs")" "$(ratio "$r_secs" "$ref_secs")" "$(ratio "$q_secs" "$neon_secs")"
    top_mnemonics "$stats"
    if [ $same = no ] || [ $runs = no ]; then
      [ "$ref_rc" -ne 0 ] && echo "    reference: status $ref_rc: $(head -c 300 "$out/${name}_$tag.ref.err")"
      [ $same = no ] && echo "    quern: $q_sum, reference: $ref_sum; $(grep -m2 -v '^kernel time' "$out/${name}_$tag.quern.err" | tr '\n' ' ')"
      must_agree "$name" && fails=$((fails + 1))
    fi
  done
done
if [ -n "$check" ]; then
  echo "$fails program build(s) that must agree did not"
  [ $fails -eq 0 ]
fi
