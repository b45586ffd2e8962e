#!/usr/bin/env python3
"""Disassembles instruction words with the GNU disassembler.

    disasm.py 0x04a20020 0x2520c020        one line per word
    quern-oracle ... | disasm.py           the oracle's report, each 'word 0x...' annotated
"""
import re
import struct
import subprocess
import sys
import tempfile

OBJDUMP = "aarch64-linux-gnu-objdump"
WORD = re.compile(r"\bword (0x[0-9a-fA-F]{8})\b")


def disassemble(words):
    """Maps each word to its disassembly, in one objdump run."""
    words = list(dict.fromkeys(words))
    if not words:
        return {}
    with tempfile.NamedTemporaryFile(suffix=".bin") as f:
        f.write(b"".join(struct.pack("<I", w) for w in words))
        f.flush()
        out = subprocess.run([OBJDUMP, "-D", "-b", "binary", "-m", "aarch64", f.name],
                             check=True, capture_output=True, text=True).stdout
    text = {}
    for line in out.splitlines():
        m = re.match(r"\s*([0-9a-f]+):\s+([0-9a-f]{8})\s+(.*)", line)
        if m:
            text[int(m.group(2), 16)] = " ".join(m.group(3).split())
    return {w: text.get(w, "?") for w in words}


def main():
    if len(sys.argv) > 1:
        words = [int(a, 0) for a in sys.argv[1:]]
        for w, t in disassemble(words).items():
            print(f"0x{w:08x}  {t}")
        return
    lines = sys.stdin.read().splitlines()
    found = disassemble([int(m.group(1), 16) for l in lines for m in WORD.finditer(l)])
    for line in lines:
        m = WORD.search(line)
        print(f"{line}   ; {found[int(m.group(1), 16)]}" if m else line)


if __name__ == "__main__":
    main()
