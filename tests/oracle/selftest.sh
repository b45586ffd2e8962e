#!/bin/sh
# Self-test of quern-oracle: it must report planted faults and reject bad
# options. Usage: selftest.sh ORACLE [RUNNER ARGS...]
# The rows are the ADD and SUB rows, which have landed for good.
set -u
oracle=$1
shift
rows='sve_add_*,sve_sub_*'
fail=0

run() {  # run ARGS...: output in $out, exit status in $rc
  out=$("$@" 2>&1)
  rc=$?
}

expect() {  # expect WHAT RC LAST-LINE-PATTERN
  last=$(printf '%s\n' "$out" | tail -n 1)
  if [ "$rc" -ne "$2" ] || ! printf '%s\n' "$last" | grep -Eq "$3"; then
    echo "FAIL: $1: exit $rc (want $2), last line '$last' (want /$3/)"
    printf '%s\n' "$out" | tail -n 20
    fail=1
  else
    echo "ok: $1"
  fi
}

run "$@" "$oracle" --rows "$rows" --trials 8 --seed 11 --quiet
expect "ADD and SUB agree with the reference" 0 '^[1-9][0-9]* agree, 0 differ, 0 pending$'
nrows=$(printf '%s\n' "$out" | tail -n 1 | cut -d' ' -f1)

run "$@" "$oracle" --rows "$rows" --trials 8 --seed 11 --quiet --inject flip
expect "one flipped bit in each emulated result is caught in every row" 1 "^0 agree, $nrows differ, 0 pending$"
compared=$(printf '%s\n' "$out" | grep -Eo '[0-9]+ trials compared' | cut -d' ' -f1)
differing=$(printf '%s\n' "$out" | grep -Eo 'differ [0-9]+' | awk '{s += $2} END {print s + 0}')
if [ "$compared" != "$differing" ]; then
  echo "FAIL: $compared trials compared with a flipped bit, only $differing reported"
  fail=1
else
  echo "ok: every one of the $compared flipped trials differs"
fi

run "$@" "$oracle" --rows "$rows" --trials 8 --seed 11 --quiet --inject skip
expect "the reference really executes the word (an emulator that does nothing differs)" 1 "^0 agree, $nrows differ, 0 pending$"

run "$@" "$oracle" --rows "$rows" --trials 8 --seed 11 --quiet --inject crash
expect "a crash of the emulator is caught in every trial and the run goes on" 1 "^0 agree, $nrows differ, 0 pending$"
if ! printf '%s\n' "$out" | grep -q 'signal.*raised signal 11'; then
  echo "FAIL: the crash is not reported as a signal"
  fail=1
fi

run "$@" "$oracle" --rows VecNoSuchRow --trials 1
expect "an unknown row name is a usage error" 2 'usage|Run under'
run "$@" "$oracle" --trials many
expect "a malformed number is a usage error" 2 'usage|Run under'
run "$@" "$oracle" --no-such-option
expect "an unknown option is a usage error" 2 'usage|Run under'
bad=$(mktemp)
echo 'VecU8AddVVM | z9 | always' > "$bad"
run "$@" "$oracle" --rows VecU8AddVVM --trials 1 --departures "$bad"
rm -f "$bad"
expect "a malformed allowlist stops the run" 2 'expected'

exit $fail
