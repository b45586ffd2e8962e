#!/usr/bin/env bash
# `quern trace` as a user meets it, on trace files written by the real sink
# (the TraceFixture test of trace_test writes them), on damaged copies of them,
# and on bad usage; and the symbols the companion libraries export.
#
#   quern_trace_test.sh QUERN TRACE_TEST NM SG_SVE_UTILS_LIB VADR2PADR_LIB
#
# QUERN_RUN, if set, is the launcher of the two programs (the emulator, in the
# cross build).
quern=$1 trace_test=$2 nm=$3 sg_lib=$4 vadr_lib=$5
read -r -a run <<<"${QUERN_RUN:-}"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
passes=0 fails=0
ok() { echo "ok   $1"; passes=$((passes + 1)); }
bad() { echo "FAIL $1: $2"; fails=$((fails + 1)); }

if ! QUERN_TRACE_FIXTURE_DIR=$tmp "${run[@]}" "$trace_test" --gtest_filter='TraceFixture.*' >"$tmp/gen.log" 2>&1; then
  cat "$tmp/gen.log"
  echo "0 passed, 1 failed (could not write the fixture traces)"
  exit 1
fi
known=$tmp/known.qtrace

q() { "${run[@]}" "$quern" "$@" >"$tmp/out" 2>"$tmp/err"; }

# A damaged or odd copy of the known trace: copy NAME, then run the rest on it.
variant() {
  local name=$1; shift
  cp "$known" "$tmp/$name"
  "$@" "$tmp/$name"
}
append_zeros() { head -c "$1" /dev/zero >>"$2"; }
patch_u32() { printf "$2" | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }  # patch_u32 OFFSET BYTES FILE
zero_bytes() { head -c "$2" /dev/zero | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }
cut_to() { truncate -s "$1" "$2"; }

# expect_file_error NAME MESSAGE -- ARGS: status 1, no output, one line on stderr.
expect_file_error() {
  local name=$1 want=$2; shift 3
  q "$@"; local status=$?
  if [ "$status" -ne 1 ]; then bad "$name" "status $status, want 1"
  elif [ -s "$tmp/out" ]; then bad "$name" "output on stdout: $(head -2 "$tmp/out")"
  elif [ "$(cat "$tmp/err")" != "$want" ]; then bad "$name" "stderr '$(cat "$tmp/err")', want '$want'"
  else ok "$name"; fi
}

# expect_usage NAME PATTERN -- ARGS: status 2, the message and the usage text.
expect_usage() {
  local name=$1 pattern=$2; shift 3
  q "$@"; local status=$?
  if [ "$status" -ne 2 ]; then bad "$name" "status $status, want 2"
  elif ! grep -Eq -- "$pattern" "$tmp/err" || ! grep -q 'usage: quern trace dump FILE' "$tmp/err"; then
    bad "$name" "stderr: $(cat "$tmp/err")"
  else ok "$name"; fi
}

# expect_output NAME EXPECTED_TEXT -- ARGS: status 0 and exactly this stdout
# (with FILTER, if set, applied to it first).
expect_output() {
  local name=$1 want=$2; shift 3
  q "$@"; local status=$?
  local got
  got=$(${FILTER:-cat} <"$tmp/out")
  if [ "$status" -ne 0 ]; then bad "$name" "status $status: $(cat "$tmp/err")"
  elif [ "$got" != "$want" ]; then bad "$name" "output:"; diff <(echo "$want") <(echo "$got")
  else ok "$name"; fi
}

known_csv='count,tid,position,access,size,vaddr,paddr,pc
1,-1,0,0,0,0x0,0x0,0x0
2,4660,3,1,4,0x1000,0x81000,0x400100
3,4660,2,1,4,0x1040,0x81040,0x400100
4,4660,6,1,4,0x2ffe,0x82ffe,0x400100
5,-559038737,3,0,8,0x1008,0x81008,0x400200
6,-559038737,6,0,8,0x8000,0x88000,0x400200
7,4660,7,1,1,0x1000,0x81000,0x400100
8,-2,0,0,0,0x0,0x0,0x0'
known_stats='records: 8
loads: 4
stores: 2
start markers: 1
stop markers: 1
empty slots skipped: 0
unused slots at end: 0
threads: 2
distinct 64-byte lines: 5
distinct 4 KiB pages: 4
distinct pcs: 2
records per pc (top 2):
  0x400100 4
  0x400200 2'

expect_output dump-known "$known_csv" -- trace dump "$known"
FILTER="tail -n +2" expect_output stats-known "$known_stats" -- trace stats "$known"
q trace stats "$known"
if head -1 "$tmp/out" | grep -Eq '^program: fixture_app \(pid [0-9]+\)$'; then ok stats-program; else bad stats-program "$(head -1 "$tmp/out")"; fi

q trace stats "$tmp/many_pcs.qtrace"
top=$(sed -n '/^records per pc/,$p' "$tmp/out")
if grep -qx 'records: 325' "$tmp/out" && grep -qx 'distinct pcs: 25' "$tmp/out" &&
   [ "$(echo "$top" | head -1)" = "records per pc (top 20):" ] && [ "$(echo "$top" | wc -l)" -eq 21 ] &&
   [ "$(echo "$top" | sed -n 2p)" = "  0x500064 25" ] && [ "$(echo "$top" | tail -1)" = "  0x500018 6" ]; then
  ok stats-top-20
else
  bad stats-top-20 "$(cat "$tmp/out")"
fi

# Files that are still traces.
variant zero-tail append_zeros $((3 * 56))
expect_output dump-zero-tail "$known_csv" -- trace dump "$tmp/zero-tail"
# A trace its program did not close keeps the unused tail of its last window:
# read, and said to be cut short; a closed one is not.
for verb in dump stats; do
  q trace $verb "$tmp/zero-tail"
  if [ "$(cat "$tmp/err")" = "quern: $tmp/zero-tail: trace cut short: the program did not close it (killed?); 8 record(s) read" ]
  then ok "$verb-cut-short-reported"; else bad "$verb-cut-short-reported" "$(cat "$tmp/err")"; fi
  q trace $verb "$known"
  if [ ! -s "$tmp/err" ]; then ok "$verb-closed-not-cut-short"; else bad "$verb-closed-not-cut-short" "$(cat "$tmp/err")"; fi
done
q trace stats "$tmp/zero-tail"
if grep -qx 'records: 8' "$tmp/out" && grep -qx 'unused slots at end: 3' "$tmp/out"; then ok stats-zero-tail
else bad stats-zero-tail "$(cat "$tmp/out")"; fi
variant zero-part-slot append_zeros 20
expect_output dump-zero-part-slot "$known_csv" -- trace dump "$tmp/zero-part-slot"
variant hole zero_bytes $((112 + 2 * 56)) 8    # record 3 never got its count
expect_output dump-hole "$(echo "$known_csv" | grep -v '^3,')" -- trace dump "$tmp/hole"
if grep -q "quern: $tmp/hole: skipped 1 empty slot" "$tmp/err"; then ok dump-hole-reported; else bad dump-hole-reported "$(cat "$tmp/err")"; fi
q trace stats "$tmp/hole"
if grep -qx 'records: 7' "$tmp/out" && grep -qx 'empty slots skipped: 1' "$tmp/out" && grep -qx 'loads: 3' "$tmp/out"; then
  ok stats-hole
else
  bad stats-hole "$(cat "$tmp/out")"
fi
variant header-only cut_to 112
expect_output dump-header-only 'count,tid,position,access,size,vaddr,paddr,pc' -- trace dump "$tmp/header-only"
q trace stats "$tmp/header-only"
if grep -qx 'records: 0' "$tmp/out" && ! grep -q 'records per pc' "$tmp/out"; then ok stats-header-only
else bad stats-header-only "$(cat "$tmp/out")"; fi

# Files that are not, or no longer, traces.
size=$(stat -c %s "$known")
variant cut-record cut_to $((size - 10))
variant cut-header cut_to 50
variant empty cut_to 0
variant version patch_u32 8 '\002\000\000\000'
variant recsize patch_u32 12 '\100\000\000\000'
cp "$0" "$tmp/foreign"
mkdir "$tmp/dir"
for verb in dump stats; do
  expect_file_error "$verb-cut-record" "quern: $tmp/cut-record: truncated: the last record has 46 of 56 bytes" -- trace $verb "$tmp/cut-record"
  expect_file_error "$verb-cut-header" "quern: $tmp/cut-header: truncated header: 50 of 112 bytes" -- trace $verb "$tmp/cut-header"
  expect_file_error "$verb-empty" "quern: $tmp/empty: empty file, not a quern trace" -- trace $verb "$tmp/empty"
  expect_file_error "$verb-foreign" "quern: $tmp/foreign: not a quern trace file (bad magic)" -- trace $verb "$tmp/foreign"
  expect_file_error "$verb-version" "quern: $tmp/version: unsupported trace version 2 (expected 1)" -- trace $verb "$tmp/version"
  expect_file_error "$verb-record-size" "quern: $tmp/recsize: unsupported record size 64 (expected 56)" -- trace $verb "$tmp/recsize"
  expect_file_error "$verb-missing" "quern: $tmp/absent: No such file or directory" -- trace $verb "$tmp/absent"
  expect_file_error "$verb-directory" "quern: $tmp/dir: is a directory" -- trace $verb "$tmp/dir"
done

# Bad usage.
expect_usage no-trace-command 'no trace command given' -- trace
expect_usage unknown-trace-command 'unknown trace command: frob' -- trace frob "$known"
expect_usage dump-no-file 'trace dump: no FILE given' -- trace dump
expect_usage stats-two-files 'trace stats takes one FILE' -- trace stats "$known" "$known"
expect_usage unknown-option 'unknown option: --top' -- trace stats --top
q trace --help
if [ $? -eq 0 ] && grep -q 'quern trace stats FILE' "$tmp/out"; then ok trace-help; else bad trace-help "$(cat "$tmp/out" "$tmp/err")"; fi
q --help
if grep -q 'quern trace dump FILE' "$tmp/out"; then ok quern-help-lists-trace; else bad quern-help-lists-trace "$(cat "$tmp/out")"; fi

# The libraries export their operations and nothing else (but for the
# sanitizer's own markers, in a sanitizer build).
exports() { "$nm" -D --defined-only "$1" | awk '$3 !~ /^__(odr_)?asan/ {print $3}' | sort | tr '\n' ' '; }
want_sg='_Z10incr_countv _Z8sve_exitv _Z8sve_initPKcS0_ _Z9trace_memRK13sve_mem_ref_t our_stderr '
want_vadr='_Z16virtual2physicalm '
got=$(exports "$sg_lib")
if [ "$got" = "$want_sg" ]; then ok exports-sg-sve-utils; else bad exports-sg-sve-utils "$got"; fi
got=$(exports "$vadr_lib")
if [ "$got" = "$want_vadr" ]; then ok exports-vadr2padr; else bad exports-vadr2padr "$got"; fi

echo "$passes passed, $fails failed"
[ "$fails" -eq 0 ]
