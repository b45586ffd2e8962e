#!/usr/bin/env bash
# The quern command as a user meets it: answers, and errors on bad input.
quern=$1
fails=0
total=0
check() {   # check NAME EXPECTED_STATUS PATTERN -- ARGS...
  local name=$1 want=$2 pattern=$3; shift 4
  total=$((total + 1))
  local out status
  out=$("$quern" "$@" 2>&1); status=$?
  if [ "$status" -ne "$want" ] || ! grep -Eq -- "$pattern" <<<"$out"; then
    echo "FAIL $name: status $status (want $want), output:"; echo "$out"; fails=$((fails + 1))
  else
    echo "ok   $name"
  fi
}
check add-decodes        0 '^0x04a20020 decode_map__31_21__15_10 +key=0x940 +VecU32AddVVX +sve_add_zzz$' -- decode 0x04a20020
check no-prefix          0 'VecU8AddVIX +sve_add_zi'        -- decode 2520c020
check not-sve            0 '^0x8b020020 not an emulated instruction$' -- decode 8b020020
check generic-road       0 'VecS8AbsVM +G1'                 -- decode 0x0416a000
check fpsr-bracket       0 'sve_fadd_zpz\+'                 -- decode 0x65808000
check prefetch-noop      0 'VecU8Prefetch1SI +N$'            -- decode 0x85c00000
check operands           0 '^0x04a20020 VecU32AddVVX Z4:0.s=0 Z9:5.s=1 Z20:16.s=2$' -- decode --operands 0x04a20020
check coverage-line      0 '^[0-9]+ of 1483 rows implemented$' -- decode --coverage
check no-command         2 'usage: quern'                    --
check unknown-command    2 'unknown command: frobnicate'     -- frobnicate
check no-words           2 'no instruction word'             -- decode
check bad-word           2 'not a hexadecimal instruction word: 0xZZ' -- decode 0xZZ
check word-too-long      2 'not a hexadecimal instruction word: 123456789' -- decode 123456789
check bad-among-good     2 'not a hexadecimal instruction word: x' -- decode 04a20020 x
check coverage-extra     2 'usage'                           -- decode --coverage 1234
check unknown-option     2 'unknown option: --frob'          -- decode --frob
check run-no-program     2 'quern run: no program given after --' -- run
check run-no-program2    2 'no program given after --'       -- run --log-level 1 --
check run-bad-level      2 '--log-level takes a number'      -- run --log-level x -- /bin/true
check run-missing-value  2 '--trace takes a file name'       -- run --trace -- /bin/true
check run-not-found      127 'quern: no-such-program-here: No such file or directory' -- run -- no-such-program-here
# Files that are not AArch64 programs stop `quern run` with one line before
# anything starts (the ELF headers are written here, so the host does not matter).
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo 'just text, not a program' >"$tmp/text"
byte() { printf "\\$(printf '%03o' "$1")"; }
elf() {   # elf FILE CLASS MACHINE_LO MACHINE_HI: a 64-byte ELF header, little-endian, ET_EXEC
  { printf '\177ELF'; byte "$2"; byte 1; byte 1; head -c 9 /dev/zero; byte 2; byte 0; byte "$3"; byte "$4"
    head -c 44 /dev/zero; } >"$1"
  chmod +x "$1"
}
elf "$tmp/x86" 2 62 0
elf "$tmp/arm32" 1 40 0
head -c 10 "$tmp/x86" >"$tmp/short"
check run-text           126 "^quern: $tmp/text: not an executable \\(no ELF header\\)$" -- run -- "$tmp/text"
check run-x86            126 "^quern: $tmp/x86: not an AArch64 executable \\(ELF machine 62, x86-64\\)$" -- run -- "$tmp/x86"
check run-arm32          126 'not an AArch64 executable \(ELF machine 40\)$' -- run -- "$tmp/arm32"
check run-truncated      126 'not an executable \(no ELF header\)$' -- run -- "$tmp/short"
check run-directory      126 'not an executable' -- run -- "$tmp"
for f in text x86 arm32; do   # exactly one line each
  total=$((total + 1))
  if [ "$("$quern" run -- "$tmp/$f" 2>&1 | wc -l)" -ne 1 ]; then echo "FAIL run-$f-one-line"; fails=$((fails + 1)); fi
done
echo "$((total - fails)) passed, $fails failed"
[ "$fails" -eq 0 ]
