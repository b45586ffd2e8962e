#!/usr/bin/env bash
# End-to-end tests: AArch64 programs with SVE instructions, run by `quern run`
# on a processor without SVE, and wherever the program is an ordinary one,
# also on the reference processor (qemu with SVE at 384 bits); what they print
# and how they end must be the same.
#
#   run_e2e.sh QUERN PROGRAM_DIR [CASE...]   run the cases (default: all)
#   run_e2e.sh --list                        the names of the cases
#
# PROGRAM_DIR holds the programs of the AArch64 build (e2e_*). QUERN_QEMU and
# QUERN_SYSROOT choose the emulator and the sysroot, as for `quern run`;
# E2E_OBJDUMP the disassembler that lists a program's instruction words;
# E2E_QUERN_OPTIONS launcher options given to every `quern run` (e.g. --runs).
# Exit status: 0 when nothing failed, 1 when something did, 77 when the only
# case asked for was skipped.

cases=(
  regs regs-fallback zupper
  flow flow-fallback
  sigill-default sigill-handler sigill-mask sigill-longjmp sigill-restore sigill-ignore sigill-resethand sigill-raise sigill-raise-handler
  threads threads-fallback threads-race threads-race-fallback threads-unwrapped
  fault-segv fault-bus fault-emulated
  options-unknown options-none
  markers markers-repeat markers-fallback markers-default-file
  acle jit jit-fallback random-runs random-runs-fallback
  signals-blocked signals-blocked-fallback signals-handler signals-reentry
  mem-fault-contiguous mem-fault-gather mem-fault-ldff-first mem-ldff-contained mem-inactive
  mem-arrays mem-aos mem-strlen mem-gather vla-loop
  stats stats-file stats-fallback
)

if [ "${1:-}" = --list ]; then
  printf '%s\n' "${cases[@]}"
  exit 0
fi
if [ $# -lt 2 ]; then
  echo "usage: run_e2e.sh QUERN PROGRAM_DIR [CASE...] | --list" >&2
  exit 2
fi
quern=$(readlink -f "$1") progdir=$(readlink -f "$2")
shift 2
[ $# -gt 0 ] && cases=("$@")

qemu=${QUERN_QEMU:-qemu-aarch64}
sysroot=${QUERN_SYSROOT:-/usr/aarch64-linux-gnu}
objdump=${E2E_OBJDUMP:-}
read -r -a extra_options <<<"${E2E_QUERN_OPTIONS:-}"
if [ -z "$objdump" ]; then
  if command -v aarch64-linux-gnu-objdump >/dev/null; then objdump=aarch64-linux-gnu-objdump
  elif [ "$(uname -m)" = aarch64 ]; then objdump=objdump; fi
fi

top=$(mktemp -d)
trap 'rm -rf "$top"' EXIT
ulimit -c 0   # programs that die by a signal leave no core files behind

passes=0 fails=0 skips=0
status=0   # of the last run
out= err=  # its output files

# ---- running programs -------------------------------------------------------------

# need NAME: $p := the path of program e2e_NAME, or a failure if it was not
# built (the same for any further FILES of its own it needs).
need() {
  p=$progdir/e2e_$1
  shift
  local f
  for f in "$p" "$@"; do
    if [ ! -e "$f" ]; then
      fail_reason="$f is missing: build the AArch64 tree first (make aarch64)"
      return 1
    fi
  done
}

# run TAG CMD...: runs CMD in the case's directory, output in $out and $err.
run() {
  local tag=$1; shift
  out=$dir/$tag.out err=$dir/$tag.err
  # The subshell reports a death by signal on $err and exits with 128 + signal.
  (cd "$dir" && timeout -k 5 60 "$@"; exit $?) >"$out" 2>"$err"
  status=$?
}
# The framework's log (level 1) goes to $log: it tells whether the rewritten
# code or the fallback from the signal context carried out the words.
on_quern() {
  local tag=$1; shift
  log=$dir/$tag.log
  run "$tag" "$quern" run --log "$log" --log-level 1 "${extra_options[@]}" "$@"
}
on_reference() { local tag=$1; shift; run "$tag" "$qemu" -cpu max,sve-max-vq=3 -L "$sysroot" "$@"; }

describe_status() {
  local s=$1
  if [ "$s" -gt 128 ] && [ "$s" -lt 160 ]; then echo "$s (signal $((s - 128)))"; else echo "$s"; fi
}

# ---- the instruction words of a program --------------------------------------

# Lists the SVE words of the given files that the emulator has no operation
# for yet (`quern decode` marks them "not implemented yet"). Words that are
# not emulated instructions at all (ordinary A64, or reserved SVE words that
# a program executes on purpose) are not listed.
unimplemented_words() {
  if [ -z "$objdump" ]; then
    echo "no disassembler for AArch64 (set E2E_OBJDUMP)"
    return 1
  fi
  local words
  words=$("$objdump" -d "$@" | awk '$1 ~ /^[0-9a-f]+:$/ && length($2) == 8 && $2 ~ /^[0-9a-f]+$/ {print "0x" $2}' | sort -u)
  if [ -z "$words" ]; then
    echo "no instruction words found in $*"
    return 1
  fi
  local decoded
  # shellcheck disable=SC2086
  if ! decoded=$("$quern" decode $words 2>&1) ||
     [ "$(echo "$decoded" | wc -l)" -ne "$(echo "$words" | wc -l)" ]; then
    echo "quern decode of the program's words failed: $(echo "$decoded" | head -3)"
    return 1
  fi
  echo "$decoded" | grep 'not implemented yet' | awk '{print $1, $4}' | sort -u
}

# Fails the case if a program uses an SVE word without an operation.
all_implemented() {
  local missing
  missing=$(unimplemented_words "$@") || { fail_reason=$missing; return 1; }
  if [ -n "$missing" ]; then
    fail_reason="SVE words without an operation in the emulator: $(echo "$missing" | tr '\n' ' ')"
    return 1
  fi
}

# ---- comparisons -------------------------------------------------------------

# check_road OPTIONS...: with --fallback among the launcher OPTIONS, the run
# must have emulated from the signal context; without it, never.
check_road() {
  local want_fallback=0 o
  for o in "$@"; do [ "$o" = --fallback ] && want_fallback=1; done
  local line='emulating from the signal context'
  if [ $want_fallback -eq 1 ] && ! grep -q "$line" "$log"; then
    fail_reason="--fallback: the log does not say '$line'"
  elif [ $want_fallback -eq 0 ] && grep -q "$line" "$log"; then
    fail_reason="no rewritten code: $(grep "$line" "$log")"
  else
    return 0
  fi
  details+="log:"$'\n'$(head -20 "$log")$'\n'
  return 1
}

# same_as_reference WANT_STATUS [LAUNCHER OPTIONS] -- PROGRAM ARGS...
# Runs the program both ways; the statuses must be WANT_STATUS and the
# standard outputs equal.
same_as_reference() {
  local want=$1; shift
  local opts=()
  while [ "$1" != -- ]; do opts+=("$1"); shift; done
  shift
  on_reference ref "$@"
  local ref_status=$status ref_out=$out ref_err=$err
  if [ "$ref_status" -ne "$want" ]; then
    fail_reason="on the reference processor: status $(describe_status "$ref_status"), want $(describe_status "$want")"
    detail "$ref_out" "$ref_err"
    return 1
  fi
  on_quern quern "${opts[@]}" -- "$@"
  if [ "$status" -ne "$want" ]; then
    fail_reason="under quern: status $(describe_status "$status"), want $(describe_status "$want")"
    detail "$out" "$err"
    return 1
  fi
  if ! cmp -s "$ref_out" "$out"; then
    fail_reason="output differs from the reference processor's (< reference, > quern)"
    details+=$(diff "$ref_out" "$out" | head -40)$'\n'
    [ -s "$err" ] && details+="quern's standard error:"$'\n'$(head -20 "$err")$'\n'
    return 1
  fi
  check_road "${opts[@]}"
}

detail() {
  details+="standard output:"$'\n'$(head -40 "$1")$'\n'
  [ -s "$2" ] && details+="standard error:"$'\n'$(head -20 "$2")$'\n'
}

# The records of trace FILE as CSV lines without the header, or a failure.
trace_records() {
  local csv
  if ! csv=$("$quern" trace dump "$1" 2>&1); then
    fail_reason="quern trace dump $1: $csv"
    return 1
  fi
  echo "$csv" | tail -n +2
}

# check_marker_trace FILE PAIRS: the trace holds PAIRS start and stop markers
# alternating, in file order, from one thread: strictly increasing counts.
check_marker_trace() {
  local file=$1 pairs=$2 records
  records=$(trace_records "$file") || return 1
  local got
  got=$(echo "$records" | awk -F, -v pairs="$pairs" '
    NF != 8 { print "malformed record: " $0; exit }
    $3 != 0 || $4 != 0 || $5 != 0 || $6 != "0x0" || $7 != "0x0" || $8 != "0x0" { print "marker record with fields set: " $0; exit }
    $2 != ((NR % 2) ? -1 : -2) { print "record " NR " has tid " $2 ", want " ((NR % 2) ? -1 : -2); exit }
    NR > 1 && $1 + 0 <= last { print "count " $1 " after " last; exit }
    { last = $1 + 0 }
    END { if (NR != 2 * pairs) print NR " record(s), want " 2 * pairs }')
  if [ -n "$got" ]; then
    fail_reason="trace: $got"
    details+="quern trace dump:"$'\n'$records$'\n'
    return 1
  fi
}

# ---- the cases -------------------------------------------------------------------

case_regs() { need regs && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_regs-fallback() { need regs && all_implemented "$p" && same_as_reference 0 --fallback -- "$p"; }

# The upper bytes of Z can only be read back by instructions that have not all
# landed yet: skipped until they have.
case_zupper() {
  local missing
  need zupper || return 1
  missing=$(unimplemented_words "$p") || { fail_reason=$missing; return 1; }
  if [ -n "$missing" ]; then
    skip_reason="needs SVE words without an operation yet: $(echo "$missing" | tr '\n' ' ')"
    return 2
  fi
  same_as_reference 0 -- "$p"
}

flow_case() {
  local libs=("$progdir/libe2e_flowlib.so" "$progdir/libe2e_flowdl.so")
  need flow "${libs[@]}" && all_implemented "$p" "${libs[@]}" && same_as_reference 0 "$@" -- "$p"
}
case_flow() { flow_case; }
case_flow-fallback() { flow_case --fallback; }

sigill_case() {
  local mode=$1 want=$2
  need sigill && all_implemented "$p" && same_as_reference "$want" -- "$p" "$mode"
}
case_sigill-default() { sigill_case default 132; }
case_sigill-handler() { sigill_case handler 0; }
case_sigill-mask() { sigill_case mask 0; }
case_sigill-longjmp() { sigill_case longjmp 0; }
case_sigill-restore() { sigill_case restore 132; }
case_sigill-ignore() { sigill_case ignore 132; }
case_sigill-resethand() { sigill_case resethand 132; }
case_sigill-raise() { sigill_case raise 132; }
case_sigill-raise-handler() { sigill_case raise-handler 0; }

# Per-thread results as on the reference, and in the trace exactly the
# markers of the threads that execute them: 1 + 1 + 2 + 3 pairs.
threads_case() {
  local turns=$1; shift
  need threads && all_implemented "$p" || return 1
  on_reference ref "$p" "$turns"
  local ref_out=$out
  if [ "$status" -ne 0 ]; then
    fail_reason="on the reference processor: status $(describe_status "$status")"
    detail "$out" "$err"
    return 1
  fi
  on_quern quern --trace "$dir/threads.qtrace" "$@" -- "$p" --markers "$turns"
  if [ "$status" -ne 0 ]; then
    fail_reason="under quern: status $(describe_status "$status")"
    detail "$out" "$err"
    return 1
  fi
  if ! cmp -s "$ref_out" "$out"; then
    fail_reason="output differs from the reference processor's (< reference, > quern)"
    details+=$(diff "$ref_out" "$out" | head -40)$'\n'
    return 1
  fi
  check_road "$@" || return 1
  local records got
  records=$(trace_records "$dir/threads.qtrace") || return 1
  got=$(echo "$records" | awk -F, '
    NF != 8 { bad = "malformed record: " $0 }
    $3 != 0 || $4 != 0 || $5 != 0 || $6 != "0x0" || $7 != "0x0" || $8 != "0x0" { bad = "marker record with fields set: " $0 }
    $2 == -1 { ++starts } $2 == -2 { ++stops } $2 != -1 && $2 != -2 { ++others }
    seen[$1]++ { bad = "count " $1 " twice" }
    END {
      if (bad) print bad
      else if (starts != 7 || stops != 7 || others) print starts + 0 " start, " stops + 0 " stop, " others + 0 " other record(s); want 7, 7, 0"
    }')
  if [ -n "$got" ]; then
    fail_reason="trace: $got"
    details+="quern trace dump:"$'\n'$records$'\n'
    return 1
  fi
}
case_threads() { threads_case 2000; }
case_threads-fallback() { threads_case 300 --fallback; }

# Threads that execute the same words for the first time at the same moment.
# Whether they do meet is up to the scheduler: three processes, each with
# eight chances.
race_case() {
  need threads && all_implemented "$p" || return 1
  local i
  for i in 1 2 3; do
    same_as_reference 0 "$@" -- "$p" --race || { fail_reason="run $i: $fail_reason"; return 1; }
  done
}
case_threads-race() { race_case; }
case_threads-race-fallback() { race_case --fallback; }

fault_case() {
  local mode=$1 want=$2 name=$3
  need fault && all_implemented "$p" && same_as_reference "$want" -- "$p" "$mode" && message_once "$name"
}
# message_once SIGNAL: the fault handler's line is on standard error exactly once.
message_once() {
  local line="quern's SVESigHandler caught signal $1 from the process being emulated, passing it to the default signal handler."
  local n
  n=$(grep -cxF "$line" "$err")
  if [ "$n" -ne 1 ]; then
    fail_reason="the $1 message appears $n time(s) on standard error, want once"
    detail "$out" "$err"
    return 1
  fi
}
case_fault-segv() { fault_case segv 139 SIGSEGV; }
case_fault-bus() { fault_case bus 135 SIGBUS; }
case_fault-emulated() { fault_case emulated 139 SIGSEGV; }

# Emulated loads at an unmapped page: a fault of an active lane is the
# program's own (status 139 and the handler's line once, as for fault-emulated);
# a first-fault load past its first element and a load with no active lane
# are not faults.
mem_fault_case() {
  local mode=$1 want=$2
  need mem_fault && all_implemented "$p" && same_as_reference "$want" -- "$p" "$mode" || return 1
  [ "$want" -eq 0 ] || message_once SIGSEGV
}
case_mem-fault-contiguous() { mem_fault_case contiguous 139; }
case_mem-fault-gather() { mem_fault_case gather 139; }
case_mem-fault-ldff-first() { mem_fault_case ldff-first 139; }
case_mem-ldff-contained() { mem_fault_case ldff-contained 0; }
case_mem-inactive() { mem_fault_case inactive 0; }

# The compiled loop: it must really be the WHILELO/LD1W/ADD/ST1W/INCW loop.
case_vla-loop() {
  need vla_loop && all_implemented "$p" || return 1
  local m
  for m in 'whilelo\s' 'ld1w\s' 'add\s+z' 'st1w\s' 'incw\s+z' 'b\.any'; do
    if ! "$objdump" -d "$p" | grep -qE "$m"; then
      fail_reason="the compiler did not emit $m"
      return 1
    fi
  done
  same_as_reference 0 -- "$p"
}

# Programs that GCC vectorises for SVE at -O3. mem-gather compares the trace's load and store
# records with the active lanes that the program counted itself.
case_mem-arrays() { need mem_arrays && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_mem-aos() { need mem_aos && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_mem-strlen() { need mem_strlen && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_mem-gather() {
  need mem_gather && all_implemented "$p" || return 1
  on_reference ref "$p"
  local ref_out=$out
  if [ "$status" -ne 0 ]; then
    fail_reason="on the reference processor: status $(describe_status "$status")"
    detail "$out" "$err"
    return 1
  fi
  on_quern quern --trace "$dir/gather.qtrace" -- "$p" --markers
  if [ "$status" -ne 0 ] || ! cmp -s "$ref_out" "$out"; then
    fail_reason="under quern: status $(describe_status "$status"), or output differs (< reference, > quern)"
    details+=$(diff "$ref_out" "$out" | head -20)$'\n'
    return 1
  fi
  local stats want got
  if ! stats=$("$quern" trace stats "$dir/gather.qtrace" 2>&1); then
    fail_reason="quern trace stats: $stats"
    return 1
  fi
  want=$(sed -n 's/^active lanes: //p' "$out")
  got=$(echo "$stats" | awk '/^loads:/ {l = $2} /^stores:/ {s = $2} /^threads:/ {t = $2} END {print l + s, t}')
  if [ "$got" != "$want 4" ]; then
    fail_reason="trace: $got (records, threads), want $want 4"
    details+="quern trace stats:"$'\n'$stats$'\n'
    return 1
  fi
}

# An option before `--` that is not the launcher's goes to the client, which
# has none: it stops the process before the program's main.
case_options-unknown() {
  local opt
  need args || return 1
  for opt in --bogus -x; do
    on_quern "opt$opt" "$opt" -- "$p" hello
    local line="SVE emulation client usage error: Unknown option: $opt"
    if [ "$status" -eq 0 ]; then
      fail_reason="quern run $opt: status 0"
    elif ! grep -qxF "$line" "$err"; then
      fail_reason="quern run $opt: no line '$line' on standard error"
    elif [ -s "$out" ]; then
      fail_reason="quern run $opt: the program ran"
    else
      continue
    fi
    detail "$out" "$err"
    return 1
  done
}

# Without client options the program runs; options behind the program's name
# are the program's.
case_options-none() {
  need args && all_implemented "$p" || return 1
  same_as_reference 0 -- "$p" || return 1
  same_as_reference 0 -- "$p" --bogus -x -- last || return 1
  if grep -q 'usage error' "$err"; then
    fail_reason="the program's own arguments reached the client"
    detail "$out" "$err"
    return 1
  fi
}

# Marker words are not instructions of the reference processor: the program
# checks its registers itself, the trace gives the records.
markers_case() {
  local reps=$1; shift
  need markers && all_implemented "$p" || return 1
  on_quern quern --trace "$dir/m.qtrace" "$@" -- "$p" "$reps"
  if [ "$status" -ne 0 ] || grep -qv ': ok$' "$out" || [ "$(wc -l <"$out")" -ne 4 ]; then
    fail_reason="under quern: status $(describe_status "$status"), want 0 and four register checks ok"
    detail "$out" "$err"
    return 1
  fi
  check_road "$@" && check_marker_trace "$dir/m.qtrace" "$reps"
}
case_markers() { markers_case 1; }
case_markers-repeat() { markers_case 3; }
case_markers-fallback() { markers_case 3 --fallback; }

# Without --trace the trace goes to PROGRAM.PID.qtrace in the working directory.
case_markers-default-file() {
  need markers || return 1
  on_quern quern -- "$p" 1
  if [ "$status" -ne 0 ]; then
    fail_reason="under quern: status $(describe_status "$status")"
    detail "$out" "$err"
    return 1
  fi
  local files=("$dir"/e2e_markers.*.qtrace)
  if [ ${#files[@]} -ne 1 ] || [ ! -f "${files[0]}" ]; then
    fail_reason="want one file e2e_markers.PID.qtrace in the working directory, found: $(ls "$dir")"
    return 1
  fi
  check_marker_trace "${files[0]}" 1
}

# Random runs of adjacent words (written at run time, so the words of the
# program's file say nothing: the rows they come from have landed).
case_random-runs() { need runs && same_as_reference 0 -- "$p"; }
case_random-runs-fallback() { need runs && same_as_reference 0 --fallback -- "$p"; }

case_acle() { need acle && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_jit() { need jit && all_implemented "$p" && same_as_reference 0 -- "$p"; }
case_jit-fallback() { need jit && all_implemented "$p" && same_as_reference 0 --fallback -- "$p"; }
case_threads-unwrapped() {
  need unwrapped && all_implemented "$p" && same_as_reference 0 --log-level 2 -- "$p" || return 1
  # The thread must have come through the way in of rewritten code.
  if ! grep -q 'given its block in rewritten code' "$log"; then
    fail_reason="the unannounced thread never reached rewritten code without a block"
    return 1
  fi
}

signals_case() {
  local mode=$1; shift
  need signals && all_implemented "$p" && same_as_reference 0 "$@" -- "$p" "$mode"
}
case_signals-blocked() { signals_case blocked; }
case_signals-blocked-fallback() { signals_case blocked --fallback; }
case_signals-handler() { signals_case handler; }
case_signals-reentry() { signals_case reentry; }

# quern run --stats counts e2e_stats's words exactly: a thread that ended
# early and one still running at the exit are in the report too, however the
# program leaves, whichever road carried the words out.
stats_case() {
  local form=$1 how=$2 turns=$3; shift 3
  need stats || return 1
  local report=$dir/report opts=(--stats)
  [ "$form" = file ] && opts=(--stats-file "$report")
  on_quern quern "${opts[@]}" "$@" -- "$p" "$turns" "$how"
  [ "$form" = stderr ] && report=$err
  local n=$((3 * turns)) placed=some interpreted=none carried=$((3 * turns))
  for o in "$@"; do [ "$o" = --fallback ] && placed=none interpreted=some; done
  # The ADD of X4 between the kernel's words is carried only inside runs.
  for o in "${extra_options[@]}"; do [ "$o" = --no-runs ] && carried=0; done
  local want got
  want=$(printf '%s\n' "emulated $((3 * n + 3)) (fast $((n + 3)), generic $n, no-op $n)" "failed 0" \
    "carried $carried" "rewritten $placed" "interpreted $interpreted" "add fast $n" "ptrue fast 3" \
    "uqincw generic $n" "prfb no-op $n" "reports 1" | sort)
  got=$(awk '/^quern stats: e2e_stats/ {++reports}
    /SVE instructions emulated/ {print "emulated", $4, $5, $6, $7, $8, $9, $10}
    /emulations failed/ {print "failed", $3}
    /other instructions carried/ {print "carried", $4}
    /blocks (rewritten|interpreted)/ {print $2, ($3 > 0 ? "some" : "none")}
    $2 ~ /%$/ {print $3, $4, $1}
    END {print "reports", reports + 0}' "$report" 2>/dev/null | sort)
  if [ "$status" -ne 0 ] || [ "$(cat "$out")" != "$((12 * turns))" ]; then
    fail_reason="under quern: status $(describe_status "$status"), want 0 and the output $((12 * turns))"
  elif [ "$got" != "$want" ]; then
    fail_reason="the --stats report differs (< want, > got)"
    details+=$(diff <(echo "$want") <(echo "$got"))$'\n'
  elif [ "$form" = file ] && grep -q 'quern stats' "$err"; then
    fail_reason="--stats-file: the report is on standard error too"
  else
    return 0
  fi
  detail "$out" "$err"
  return 1
}
case_stats() { stats_case stderr exit 1000; }
case_stats-file() { stats_case file _exit 1000; }
case_stats-fallback() { stats_case file exit 50 --fallback; }

# ---- driver ---------------------------------------------------------------------------

start=$SECONDS
for c in "${cases[@]}"; do
  if ! declare -F "case_$c" >/dev/null; then
    echo "FAIL $c: no such case (run_e2e.sh --list)"
    fails=$((fails + 1))
    continue
  fi
  dir=$top/$c
  mkdir -p "$dir"
  fail_reason= skip_reason= details=
  t0=$SECONDS
  "case_$c"
  rc=$?
  if [ $rc -eq 0 ]; then
    echo "ok   $c ($((SECONDS - t0)) s)"
    passes=$((passes + 1))
  elif [ $rc -eq 2 ] && [ -n "$skip_reason" ]; then
    echo "skip $c: $skip_reason"
    skips=$((skips + 1))
  else
    echo "FAIL $c: ${fail_reason:-failed}"
    [ -n "$details" ] && printf '%s' "$details" | sed 's/^/     | /'
    fails=$((fails + 1))
  fi
done
echo "$passes passed, $fails failed$([ $skips -gt 0 ] && echo ", $skips skipped") in $((SECONDS - start)) s"
if [ $fails -gt 0 ]; then exit 1; fi
if [ $skips -gt 0 ] && [ $passes -eq 0 ]; then exit 77; fi
exit 0
