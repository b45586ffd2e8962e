#!/usr/bin/env python3
"""Check that an emulation call leaves V16-V31 alone, from the client library's code.

Rewritten code keeps only V0-V15 around a call of the emulator (see
sve/dispatch/call_out.h). That is right only if no code that such a call can
reach writes V16-V31. Starting from every entry that rewritten code calls (the
two run entries, every adapter, every carried instruction's entry), this
follows the direct calls and branches through the library's disassembly and
fails on any function reached that

  * names one of V16-V31 (as b, h, s, d, q or v), or
  * calls into the PLT (the C library, the trace sink) or through a register,

except quern_call_out, which keeps V16-V31 around the call it makes, and the
run entries, whose indirect calls are the adapters (roots themselves).

    simd_kept_check.py OBJDUMP LIBRARY
"""
import bisect
import collections
import re
import subprocess
import sys

ROOTS = {
    'run entries': re.compile(r'^_ZN12_GLOBAL__N_1\d+emulate_(run|instruction)I'),
    'adapters': re.compile(r'^_ZN7adapter'),
    'carried entries': re.compile(r'^_ZN12_GLOBAL__N_15entryI'),
}
KEEPER = 'quern_call_out'
HIGH_V = re.compile(r'\b[bhsdqv](?:1[6-9]|2\d|3[01])\b')
TARGET = re.compile(r'^(?:bl|b|b\.\w+|cbn?z|tbn?z)\s.*?\b([0-9a-f]+) <')


def disassemble(objdump, lib):
    out = subprocess.run([objdump, '-d', '--no-show-raw-insn', lib], capture_output=True, text=True, check=True).stdout
    funcs, starts, section, cur = {}, [], None, None
    for line in out.splitlines():
        m = re.match(r'^Disassembly of section (\S+):', line)
        if m:
            section = m.group(1)
            continue
        m = re.match(r'^([0-9a-f]+) <(.*)>:$', line)
        if m:
            cur = m.group(2)
            funcs[cur] = []
            starts.append((int(m.group(1), 16), cur, section))
            continue
        m = re.match(r'^\s+[0-9a-f]+:\s+(\S.*)$', line)
        if m and cur:
            funcs[cur].append(m.group(1).split('//')[0].strip())
    starts.sort()
    return funcs, starts


def main():
    objdump, lib = sys.argv[1], sys.argv[2]
    funcs, starts = disassemble(objdump, lib)
    addrs = [a for a, _, _ in starts]
    section = {name: sec for _, name, sec in starts}

    def function_at(addr):
        i = bisect.bisect_right(addrs, addr) - 1
        return starts[i] if i >= 0 else None

    calls, foreign, indirect, high = collections.defaultdict(set), collections.defaultdict(set), {}, {}
    for name, insns in funcs.items():
        if section[name] != '.text':
            continue
        for text in insns:
            m = TARGET.match(text)
            if m:
                target = function_at(int(m.group(1), 16))
                if target and target[1] != name:
                    (foreign if target[2] != '.text' else calls)[name].add(target[1])
            if text.startswith('blr'):
                indirect[name] = text
            operands = text.split(None, 1)[1] if ' ' in text or '\t' in text else ''
            if HIGH_V.search(operands) and name not in high:
                high[name] = text

    failures = []
    roots = []
    for kind, pattern in ROOTS.items():
        found = [n for n in funcs if section[n] == '.text' and pattern.match(n)]
        if not found:
            failures.append(f'no {kind} found (names changed?)')
        roots += found
    run_entries = {n for n in roots if ROOTS['run entries'].match(n)}

    seen, stack = set(), list(roots)
    while stack:
        name = stack.pop()
        if name in seen:
            continue
        seen.add(name)
        if name != KEEPER:
            stack.extend(calls[name])
    if KEEPER not in funcs:
        failures.append(f'{KEEPER} is missing')
    for name in sorted(seen - {KEEPER}):
        if name in high:
            failures.append(f'{name} uses a register of V16-V31: {high[name]}')
        if foreign[name]:
            failures.append(f'{name} calls {", ".join(sorted(foreign[name]))} outside {KEEPER}')
        if name in indirect and name not in run_entries:
            failures.append(f'{name} calls through a register outside {KEEPER}: {indirect[name]}')

    if failures:
        names = subprocess.run(['c++filt'], input='\n'.join(failures), capture_output=True, text=True)
        print(names.stdout if names.returncode == 0 else '\n'.join(failures))
    print(f'{len(seen)} functions reached from {len(roots)} entries')
    print(f'simd kept: {0 if failures else 1} passed, {1 if failures else 0} failed')
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
