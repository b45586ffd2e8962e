#!/usr/bin/env python3
"""Check the OPERANDS column of the decode table against the GNU disassembler.

For every row of sve/dispatch/decode_table.txt that has operands, the check
builds words with random operand fields (and a few fixed patterns), has
objdump disassemble them and the assembler assemble the text again (a word
that does not come back as itself is not used), and compares:

  * the value of every token (register numbers, immediates after their
    expansion) with the operand that objdump printed for it, and
  * the size suffix of every register token with the printed qualifier
    (z0.s, p1.b, w2/x2, h3, /m, /z).

A token is matched to the printed operand that agrees with it in every word of
the row; a token that agrees with no printed operand is a failure, and so is a
printed operand that changes from word to word but is produced by no token.
Argument order is not looked at: it is a property of the routines, not of the
encoding.  Words that objdump rejects (reserved encodings) are skipped, and so
are words that it prints in another form than the row's usual one (aliases
such as MOV for ORR with equal registers): the row is checked on the others.

The token values come from one of two sources, which share the comparison:

  * by default this script interprets the tokens itself (see token_value);
  * with --quern PATH it runs `PATH decode --operands WORD...` and reads one
    line per word:

        0xWORD ADAPTER TOKEN=VALUE TOKEN=VALUE ...

    with the tokens spelt as in the table, values in decimal (negative values
    with a minus sign), and in 0x-hexadecimal for `bitmask` (the 64-bit
    expansion) and the `fpimm8` tokens (`fpimm8`: the single-precision bits,
    `fpimm8.h/.s/.d`: the bits of that width).  A token without a field
    (=>NZCV) has no value and may be left out.  --emit prints the script's own
    interpretation in that format.

--self-test checks the check: it feeds it wrong variants of every row's
tokens (a field one bit off, signed for unsigned, another size suffix, stack
pointer for zero register, a token left out, ...) and fails if any of them
gets through.

Exit status 0 if every row passes, 1 otherwise, 77 (a skip for CTest) if the
AArch64 binutils are not installed.  The last line is "N passed, M failed",
counting rows.
"""

import argparse
import collections
import os
import platform
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_TABLE = os.path.join(REPO, "sve", "dispatch", "decode_table.txt")
MASK64 = (1 << 64) - 1


# --------------------------------------------------------------------------
# The table
# --------------------------------------------------------------------------

MAP_RE = re.compile(r"^map\s+(decode_map(?:__\d+_\d+)+)\s+(\d+)\s*$")
ROW_RE = re.compile(r"^(0x[0-9a-fA-F]+)\s+(\S+)\s+(\S+)\s+\|(.*)$")


class Row:
    def __init__(self, map_name, key, adapter, road, tokens):
        self.map_name = map_name
        self.key = key
        self.adapter = adapter
        self.road = road
        self.tokens = tokens
        ranges = [(int(a), int(b)) for a, b in re.findall(r"__(\d+)_(\d+)", map_name)]
        self.mask = self.value = 0
        shift = 0
        for hi, lo in reversed(ranges):
            width = hi - lo + 1
            self.mask |= ((1 << width) - 1) << lo
            self.value |= ((key >> shift) & ((1 << width) - 1)) << lo
            shift += width

    def __str__(self):
        return "%s 0x%x %s %s" % (self.map_name, self.key, self.adapter, self.road)


def read_table(path):
    rows = []
    map_name = None
    for line in open(path):
        m = MAP_RE.match(line)
        if m:
            map_name = m.group(1)
            continue
        m = ROW_RE.match(line.rstrip("\n"))
        if m and map_name:
            rows.append(Row(map_name, int(m.group(1), 16), m.group(2), m.group(3),
                            m.group(4).split()))
    return rows


# --------------------------------------------------------------------------
# Tokens
# --------------------------------------------------------------------------

REG_TOKEN_RE = re.compile(r"^(?P<res>=>)?(?P<head>Zrw|Prw|Rrw|XSP|PV|Z|P|R|S|V|X|W|E)"
                          r"(?P<field>\d+(?::\d+)?(?:,\d+(?::\d+)?)*)"
                          r"(?P<gov>/[mzg])?(?:\.(?P<size>[bhsdqwx]))?$")
IMM_TOKEN_RE = re.compile(r"^(?:(?P<n>\d+)-)?(?P<sign>[us])"
                          r"(?P<field>\d+(?::\d+)?(?:,\d+(?::\d+)?)*)(?P<plus>\+1)?$")
SPECIAL_TOKENS = {"uimm8sh", "simm8sh", "sel5", "bitmask",
                  "fpimm8", "fpimm8.h", "fpimm8.s", "fpimm8.d"}
HEX_TOKENS = {"bitmask", "fpimm8", "fpimm8.h", "fpimm8.s", "fpimm8.d"}
SPECIAL_FIELDS = {"uimm8sh": "13:5", "simm8sh": "13:5", "sel5": "5", "bitmask": "17:5",
                  "fpimm8": "12:5", "fpimm8.h": "12:5", "fpimm8.s": "12:5",
                  "fpimm8.d": "12:5"}


class Token:
    """A token of the OPERANDS column, with what it reads and how it compares."""

    def __init__(self, text):
        self.text = text
        self.field = None
        self.kind = None        # 'z', 'p', 'r', 'v' (register) or 'imm'
        self.size = None        # size suffix of a register token
        self.result = False     # a result token (=>...)
        self.head = None        # the letters of a register token
        self.gov = None         # '/m', '/z', '/g' of a governing predicate
        self.sp = False         # register 31 is the stack pointer
        m = REG_TOKEN_RE.match(text)
        if m:
            self.field = m.group("field")
            head = m.group("head")
            self.result = bool(m.group("res"))
            self.kind = {"Z": "z", "Zrw": "z", "V": "z", "P": "p", "Prw": "p",
                         "PV": "p", "R": "r", "Rrw": "r", "S": "r", "X": "r",
                         "XSP": "r", "W": "r", "E": "v"}[head]
            self.head = head
            self.size = m.group("size")
            self.gov = m.group("gov")
            self.sp = head in ("S", "XSP")
            return
        m = IMM_TOKEN_RE.match(text)
        if m:
            self.kind = "imm"
            self.field = m.group("field")
            return
        if text in SPECIAL_TOKENS:
            self.kind = "imm"
            return
        if text == "=>NZCV":
            self.kind = None    # no field, no value
            return
        raise ValueError("unknown token %r" % text)


def field_bits(text):
    bits = []
    for part in text.split(","):
        if ":" in part:
            hi, lo = map(int, part.split(":"))
            bits.extend(range(hi, lo - 1, -1))
        else:
            bits.append(int(part))
    return bits


def extract(word, field):
    value = 0
    for b in field_bits(field):
        value = (value << 1) | ((word >> b) & 1)
    return value


def sign_extend(value, width):
    return value - (1 << width) if (value >> (width - 1)) & 1 else value


def decode_bitmask(imm13):
    """Logical immediate (N:immr:imms) to its 64-bit value; None if reserved."""
    n, immr, imms = imm13 >> 12, (imm13 >> 6) & 63, imm13 & 63
    combined = (n << 6) | (~imms & 63)
    if combined == 0:
        return None
    esize = 1 << (combined.bit_length() - 1)
    levels = esize - 1
    s, r = imms & levels, immr & levels
    elem = (1 << (s + 1)) - 1
    for _ in range(r):
        elem = ((elem & 1) << levels) | (elem >> 1)
    width = esize
    while width != 64:
        elem |= elem << width
        width *= 2
    return elem & MASK64


def expand_fpimm8(imm8, size):
    """The 8-bit floating-point immediate as the bits of a half, single or double."""
    s, b, c, d = imm8 >> 7, (imm8 >> 6) & 1, (imm8 >> 4) & 3, imm8 & 15
    nb = b ^ 1
    if size == "h":
        return (s << 15) | (nb << 14) | (0x3000 if b else 0) | (c << 10) | (d << 6)
    if size == "s":
        return (s << 31) | (nb << 30) | (0x3E000000 if b else 0) | (c << 23) | (d << 19)
    return ((s << 63) | (nb << 62) | (0x3FC0000000000000 if b else 0)
            | (c << 52) | (d << 48))


def token_value(tok, word):
    """What the adapter computes from the word for this token (None: no value)."""
    t = tok.text
    if tok.kind is None:
        return None
    if tok.kind != "imm":
        return extract(word, tok.field)
    if t == "uimm8sh" or t == "simm8sh":
        imm = (word >> 5) & 0xFF
        if t == "simm8sh":
            imm = sign_extend(imm, 8)
        return imm << 8 if (word >> 13) & 1 else imm
    if t == "sel5":
        return (word >> 5) & 1
    if t == "bitmask":
        return decode_bitmask((word >> 5) & 0x1FFF)
    if t.startswith("fpimm8"):
        return expand_fpimm8((word >> 5) & 0xFF, t[7:] or "s")
    m = IMM_TOKEN_RE.match(t)
    raw = extract(word, m.group("field"))
    if m.group("sign") == "s":
        raw = sign_extend(raw, len(field_bits(m.group("field"))))
    if m.group("plus"):
        raw += 1
    if m.group("n"):
        raw = int(m.group("n")) - raw
    return raw


def format_value(tok, value):
    return "0x%x" % value if tok.text in HEX_TOKENS else "%d" % value


# --------------------------------------------------------------------------
# The disassembler
# --------------------------------------------------------------------------

SKIP = 77


def find_tool(tool):
    """The AArch64 binutils program `tool` ('as', 'objdump'): the cross one,
    or the native one on an AArch64 host."""
    names = ["aarch64-linux-gnu-" + tool]
    if platform.machine() in ("aarch64", "arm64"):
        names.append(tool)
    for name in names:
        if shutil.which(name):
            return name
    print("%s not found in PATH: not checked" % " or ".join(names))
    sys.exit(SKIP)


def disassemble(words, assembler, objdump):
    """One text per word, None where objdump rejects the word."""
    result = [None] * len(words)
    with tempfile.TemporaryDirectory() as tmp:
        src, obj = os.path.join(tmp, "w.s"), os.path.join(tmp, "w.o")
        with open(src, "w") as f:
            f.write("".join(".inst 0x%08x\n" % w for w in words))
        subprocess.run([assembler, "-march=armv8.2-a+sve", "-o", obj, src], check=True)
        out = subprocess.run([objdump, "-d", "-z", obj], check=True,
                             stdout=subprocess.PIPE, universal_newlines=True).stdout
    for line in out.split("\n"):
        m = re.match(r"^\s*([0-9a-f]+):\t([0-9a-f]{8}) \t(.*)$", line)
        if not m:
            continue
        index = int(m.group(1), 16) // 4
        if int(m.group(2), 16) != words[index]:
            raise SystemExit("objdump output out of step at %s" % line)
        text = m.group(3).split("//")[0].strip().replace("\t", " ")
        if not text.startswith(".inst") and "undefined" not in text:
            result[index] = text
    return result


def reassemble(texts, assembler, objdump):
    """The word that the assembler makes of each text (None where it refuses
    the text). Checked words are those that survive the round trip, so that
    every sample is an instruction as the assembler writes it."""
    lines = [(i, t) for i, t in enumerate(texts) if t]
    result = [None] * len(texts)
    with tempfile.TemporaryDirectory() as tmp:
        src, obj = os.path.join(tmp, "a.s"), os.path.join(tmp, "a.o")
        for _ in range(3):   # drop the lines it refuses, and try again
            with open(src, "w") as f:
                f.write("".join(t + "\n" for _, t in lines))
            proc = subprocess.run([assembler, "-march=armv8.2-a+sve", "-o", obj, src],
                                  stderr=subprocess.PIPE, universal_newlines=True)
            if proc.returncode == 0:
                break
            bad = {int(n) for n in re.findall(r":(\d+): Error", proc.stderr)}
            if not bad:
                return result
            lines = [l for n, l in enumerate(lines, 1) if n not in bad]
        else:
            return result
        out = subprocess.run([objdump, "-d", "-z", obj], check=True,
                             stdout=subprocess.PIPE, universal_newlines=True).stdout
    words = [int(m.group(1), 16) for m in re.finditer(r"^\s*[0-9a-f]+:\t([0-9a-f]{8}) ", out, re.M)]
    if len(words) != len(lines):
        raise SystemExit("assembler output out of step")
    for (i, _), w in zip(lines, words):
        result[i] = w
    return result


# --------------------------------------------------------------------------
# Reading the disassembly
# --------------------------------------------------------------------------

PATTERNS = {"pow2": 0, "vl1": 1, "vl2": 2, "vl3": 3, "vl4": 4, "vl5": 5,
            "vl6": 6, "vl7": 7, "vl8": 8, "vl16": 9, "vl32": 10, "vl64": 11,
            "vl128": 12, "vl256": 13, "mul4": 29, "mul3": 30, "all": 31}

# Floating-point immediates of the arithmetic forms: value for bit 5 = 0 and 1.
FP_SELECT = {"fadd": (0.5, 1.0), "fsub": (0.5, 1.0), "fsubr": (0.5, 1.0),
             "fmul": (0.5, 2.0), "fmax": (0.0, 1.0), "fmin": (0.0, 1.0),
             "fmaxnm": (0.0, 1.0), "fminnm": (0.0, 1.0)}

LOGICAL_IMMEDIATE = {"and", "orr", "eor", "dupm", "mov"}
ESIZE_BITS = {"b": 8, "h": 16, "s": 32, "d": 64}

LEX_RE = re.compile(r"""\s*(?:
    (?P<z>z(?P<zn>\d+)(?:\.(?P<zq>[bhsdq]))?(?:\[(?P<zi>\d+)\])?)(?![\w.])
  | (?P<p>p(?P<pn>\d+)(?:/(?P<pg>[mz])|\.(?P<pq>[bhsd]))?)(?!\w)
  | (?P<r>(?P<rw>[wx])(?P<rn>\d+)|(?P<rz>[wx])zr|(?P<rsp>w?sp))(?!\w)
  | (?P<v>(?P<vq>[bhsdq])(?P<vn>\d+))(?!\w)
  | \#(?P<imm>-?0x[0-9a-f]+|-?\d+\.\d+(?:e[-+]\d+)?|-?\d+)
  | (?P<word>[a-z][a-z0-9]*)
  | (?P<punct>[\[\]{},-])
)""", re.X)


class Operand:
    """A printed value: a register number or an immediate in its encoded sense."""

    def __init__(self, kind, value, qual=None, sub=None):
        self.kind = kind      # 'z', 'p', 'r', 'v', 'imm'
        self.value = value
        self.qual = qual      # z/p/v element letter, p 'm'/'z', r 'w'/'x'
        self.sub = sub        # r: 'sp' or 'zr' for 31; imm: 'mul', 'fp', ...
        self.printed = str(value)

    def show(self):
        if self.kind == "imm":
            value = "0x%x" % self.value if self.sub == "bitmask" else "%s" % self.value
            if self.sub in ("fp", "fixed"):
                return "#" + self.printed
            if self.printed != value:
                return "#%s (field value %s)" % (self.printed, value)
            return "#" + value
        return "%s%s%s" % (self.kind, self.value, "." + self.qual if self.qual else "")


def memory_size(mnemonic):
    """Bytes per memory element of a load or store mnemonic (16 for LD1RQ)."""
    m = re.match(r"^(?:ld|st)(?:ff|nf|nt)?[1-4]r?(q?)s?([bhwd])$", mnemonic)
    if not m:
        return None
    return 16 if m.group(1) else {"b": 1, "h": 2, "w": 4, "d": 8}[m.group(2)]


def parse(text):
    """(form, operands): the form is the text with every value replaced by a
    placeholder; words of one row that print alike have the same form."""
    mnemonic, _, rest = text.partition(" ")
    ops = []
    form = [mnemonic]
    in_list = list_seen = False
    in_brackets = False
    bracket_base = None
    prev_word = None
    pos = 0
    while pos < len(rest):
        m = LEX_RE.match(rest, pos)
        if not m or m.end() == pos:
            raise ValueError("cannot read %r" % text)
        pos = m.end()
        g = m.groupdict()
        word = None
        if in_list and list_seen and (g["z"] or g["punct"] in (",", "-")):
            # The further registers of a list follow from the first one, and
            # {z31.s, z0.s} prints other than {z3.s-z4.s}: leave them out.
            continue
        if g["z"]:
            list_seen = in_list
            ops.append(Operand("z", int(g["zn"]), g["zq"]))
            form.append("Z")
            if in_brackets and bracket_base is None:
                bracket_base = "z"
            if g["zi"] is not None:
                ops.append(Operand("imm", int(g["zi"]), sub="index"))
                form.append("[I]")
        elif g["p"]:
            ops.append(Operand("p", int(g["pn"]), g["pg"] or g["pq"]))
            form.append("P/" + g["pg"] if g["pg"] else "P.T" if g["pq"] else "P")
        elif g["r"]:
            if g["rsp"]:
                op = Operand("r", 31, "x" if g["rsp"] == "sp" else "w", "sp")
            elif g["rz"]:
                op = Operand("r", 31, g["rz"], "zr")
            else:
                op = Operand("r", int(g["rn"]), g["rw"])
            ops.append(op)
            form.append("R")
            if in_brackets and bracket_base is None:
                bracket_base = "r"
        elif g["v"]:
            ops.append(Operand("v", int(g["vn"]), g["vq"]))
            form.append("V")
        elif g["imm"] is not None:
            s = g["imm"]
            if "x" in s:
                op = Operand("imm", int(s, 16), sub="hex")
            elif "." in s:
                op = Operand("imm", float(s), sub="float")
            else:
                op = Operand("imm", int(s), sub="int")
            op.printed = s
            if prev_word == "mul":
                op.sub = "mul"
            elif prev_word in ("lsl", "sxtw", "uxtw"):
                op.sub = "shift"
            elif in_brackets:
                op.sub = "offset"
                op.base = bracket_base
            ops.append(op)
            form.append("I")
        elif g["word"]:
            word = g["word"]
            if word in PATTERNS:
                ops.append(Operand("imm", PATTERNS[word], sub="pattern"))
                form.append("I")
            else:
                if word == "vl" and prev_word == "mul" and ops[-1].sub == "offset":
                    # [Xn, #imm, mul vl]: the offset counts vector lengths.
                    ops[-1].sub = "mulvl"
                form.append(word)
        else:
            c = g["punct"]
            if c == "{":
                in_list, list_seen = True, False
            elif c == "}":
                in_list = False
            elif c == "[":
                in_brackets, bracket_base = True, None
            elif c == "]":
                in_brackets = False
            form.append(c)
        prev_word = word
    normalise(mnemonic, ops)
    return " ".join(form), ops


def normalise(mnemonic, ops):
    """Turn printed immediates into the value of their encoding field(s)."""
    zq = next((o.qual for o in ops if o.kind == "z"), None)
    for op in ops:
        if op.kind != "imm":
            continue
        if op.sub == "mulvl":
            # LD2..LD4, ST2..ST4 print the offset in vector lengths: the field
            # times the number of registers.
            m = re.match(r"^(?:ld|st)([234])[bhwd]$", mnemonic)
            count = int(m.group(1)) if m else 1
            if op.value % count == 0:
                op.value //= count
            else:
                op.sub = "bad offset"
        elif op.sub == "offset":
            size = memory_size(mnemonic)
            if op.base == "z" or mnemonic.startswith("ld1r"):
                # Gathers [Zn.T, #imm] and broadcasts [Xn, #imm]: byte offsets.
                if size and op.value % size == 0:
                    op.value //= size
                else:
                    op.sub = "bad offset"
        elif op.sub == "float":
            if mnemonic in FP_SELECT:
                pair = FP_SELECT[mnemonic]
                op.sub = "fixed" if op.value not in pair else "select"
                if op.value in pair:
                    op.value = pair.index(op.value)
            elif mnemonic == "fmov":
                op.sub = "fp"
                op.qual = zq
            else:
                op.sub = "fixed"           # the #0.0 of the compares with zero
        elif mnemonic == "fcmla" and op.sub == "int":
            op.value //= 90                 # rotation 0, 90, 180, 270
        elif mnemonic == "fcadd" and op.sub == "int":
            op.value = (op.value - 90) // 180   # rotation 90, 270
        elif op.sub == "hex" and mnemonic in LOGICAL_IMMEDIATE and zq in ESIZE_BITS:
            # Logical immediates print one element; replicate it to 64 bits.
            width = ESIZE_BITS[zq]
            value = op.value & ((1 << width) - 1)
            while width < 64:
                value |= value << width
                width *= 2
            op.value = value
            op.sub = "bitmask"


# --------------------------------------------------------------------------
# Comparison
# --------------------------------------------------------------------------

def fp_bits(value, size):
    fmt = {"h": "<e", "s": "<f", "d": "<d"}[size]
    return int.from_bytes(struct.pack(fmt, value), "little")


def agrees(tok, value, op, fast):
    """Does the token's value stand for the printed operand?  `fast`: the row
    goes down the fast road."""
    if tok.kind == "imm":
        t = tok.text
        if op.kind == "v":          # u4:0, u9:5: number of a SIMD&FP register
            return t.startswith("u") and value == op.value
        if op.kind != "imm" or op.sub in ("fixed", "bad offset"):
            return False
        if t == "bitmask":
            return op.sub == "bitmask" and value == op.value
        if t.startswith("fpimm8"):
            # Fast rows pass the single-precision bits; generic rows the bits
            # at the element size of the instruction.
            size = t[7:] or "s"
            if op.sub != "fp" or (t == "fpimm8") != fast or t[7:] and size != op.qual:
                return False
            return value == fp_bits(op.value, size)
        if op.sub in ("fp", "bitmask", "float"):
            return False
        if op.sub == "mul":
            # MUL #k prints the multiplier, the field plus one.  The fast road
            # passes it so ("+1" token), the generic road the raw field.
            if t.endswith("+1") != fast:
                return False
            return value == (op.value if fast else op.value - 1)
        return value == op.value
    if tok.kind != op.kind or value != op.value:
        return False
    if tok.kind == "r" and value == 31:
        return op.sub == ("sp" if tok.sp else "zr")
    return True


def adapter_size(adapter):
    m = re.match(r"^Vec[A-Z](\d+)", adapter)
    if m:
        return {"8": "b", "16": "h", "32": "s", "64": "d", "128": "q"}[m.group(1)]
    return "b" if adapter.startswith("VecP") else None


def size_problem(row, tok, op, ops):
    """A message if the token's suffix does not fit the printed operand."""
    if tok.kind in ("z", "p") and tok.gov:
        printed = "/" + op.qual if op.qual in ("m", "z") else "/g"
        return None if printed == tok.gov else "printed as %s" % printed
    if tok.head in ("Z", "Zrw", "P", "Prw") and not tok.result:
        if tok.size is None:
            return "no size suffix"
        if any(t == "bitmask" for t in row.tokens) or op.qual is None:
            # The printed size is that of the logical immediate, or none is
            # printed (LDR, STR, MOVPRFX): the adapter's name gives it.
            expect = adapter_size(row.adapter)
        else:
            expect = op.qual
        return None if tok.size == expect else "size .%s, expected .%s" % (tok.size, expect)
    if tok.kind == "r" and tok.head in ("R", "Rrw"):
        return None if tok.size == op.qual else "size .%s, printed %s" % (tok.size, op.qual)
    if tok.kind == "r" and tok.head == "X" and tok.size:
        # INSR of bytes, halfwords, words: the low bits of a W register.
        esize = next((o.qual for o in ops if o.kind == "z"), None)
        expect = {"b": "b", "h": "h", "s": "w"}.get(esize)
        if tok.size != expect or op.qual != "w":
            return "low bits .%s of %s for elements .%s" % (tok.size, op.qual, esize)
        return None
    if tok.kind == "r" and tok.result:
        want = "w" if tok.head == "W" else "x"
        return None if op.qual == want else "result %s, printed %s" % (tok.head, op.qual)
    if tok.kind == "v":
        return None if tok.size == op.qual else "size .%s, printed %s" % (tok.size, op.qual)
    return None


class RowResult:
    def __init__(self, row):
        self.row = row
        self.words = 0
        self.skipped = 0
        self.failures = []

    def fail(self, word, text, message):
        self.failures.append((word, text, message))


def check_fields(result, tokens):
    """The tokens must read exactly the bits that the row leaves free."""
    row = result.row
    read = 0
    for tok in tokens:
        field = tok.field or SPECIAL_FIELDS.get(tok.text)
        if field:
            read |= sum(1 << b for b in field_bits(field))
    free = ~row.mask & 0xFFFFFFFF
    where = "(the row's fixed bits)"
    if read & row.mask:
        result.fail(row.value, where, "tokens read bits fixed by the key: 0x%08x"
                    % (read & row.mask))
    if free & ~read:
        result.fail(row.value, where, "operand bits read by no token: 0x%08x"
                    % (free & ~read))


def check_row(result, samples):
    """samples: list of (word, text, operands, {token: value}) in one form."""
    row = result.row
    fast = row.road.startswith("sve_")
    tokens = [Token(t) for t in row.tokens]
    check_fields(result, tokens)
    n_ops = len(samples[0][2])
    matched = set()
    for tok in tokens:
        if tok.kind is None:
            continue
        values = [vals.get(tok.text) for _, _, _, vals in samples]
        missing = [s for s, v in zip(samples, values) if v is None]
        if missing:
            w, text, _, _ = missing[0]
            result.fail(w, text, "%s: no value" % tok.text)
            continue
        good = [k for k in range(n_ops)
                if all(agrees(tok, v, s[2][k], fast) for s, v in zip(samples, values))]
        if not good:
            # Name the operand that agrees most often, and a word where it does not.
            score = [(sum(agrees(tok, v, s[2][k], fast) for s, v in zip(samples, values)), k)
                     for k in range(n_ops)
                     if samples[0][2][k].kind == tok.kind
                     or tok.kind == "imm" and samples[0][2][k].kind == "v"]
            if not score:
                w, text, _, _ = samples[0]
                result.fail(w, text, "%s: no printed operand of its kind" % tok.text)
                continue
            _, k = max(score)
            for (w, text, ops, _), v in zip(samples, values):
                if not agrees(tok, v, ops[k], fast):
                    result.fail(w, text, "%s: got %s, printed operand %d is %s"
                                % (tok.text, format_value(tok, v) if v is not None
                                   else "none", k + 1, ops[k].show()))
                    break
            continue
        matched.update(good)
        # A register printed twice (Zdn, or X and W of SQINCP) needs to fit once;
        # a result goes to the destination, the first printed operand.
        if tok.result:
            good = good[:1]
        problems = [size_problem(row, tok, samples[0][2][k], samples[0][2])
                    for k in good]
        if all(problems):
            w, text, _, _ = samples[0]
            result.fail(w, text, "%s: %s" % (tok.text, problems[0]))
    # Every printed value that changes with the word must come from a token.
    for k in range(n_ops):
        if k in matched:
            continue
        seen = {(s[2][k].value, s[2][k].qual if s[2][k].kind != "imm" else None)
                for s in samples}
        if len(seen) > 1:
            w, text, ops, _ = samples[0]
            result.fail(w, text, "printed operand %d (%s) comes from no token"
                        % (k + 1, ops[k].show()))


# --------------------------------------------------------------------------
# Token values from quern
# --------------------------------------------------------------------------

def quern_values(path, words, chunk=256):
    """{word: (adapter, {token: value})} from `quern decode --operands`."""
    out = {}
    for i in range(0, len(words), chunk):
        part = words[i:i + chunk]
        proc = subprocess.run([path, "decode", "--operands"] + ["0x%08x" % w for w in part],
                              stdout=subprocess.PIPE, universal_newlines=True)
        if proc.returncode != 0:
            raise SystemExit("%s decode --operands failed with status %d"
                             % (path, proc.returncode))
        for line in proc.stdout.split("\n"):
            fields = line.split()
            if len(fields) < 2:
                continue
            word = int(fields[0], 16)
            values = {}
            for item in fields[2:]:
                tok, _, val = item.rpartition("=")
                values[tok] = int(val, 0)
            out[word] = (fields[1], values)
    return out


# --------------------------------------------------------------------------
# Self-test: the check must notice a wrong token
# --------------------------------------------------------------------------

def shifted_field(field, by):
    bits = [b + by for b in field_bits(field)]
    if min(bits) < 0 or max(bits) > 31:
        return None
    parts = []
    i = 0
    while i < len(bits):
        j = i
        while j + 1 < len(bits) and bits[j + 1] == bits[j] - 1:
            j += 1
        parts.append(str(bits[i]) if i == j else "%d:%d" % (bits[i], bits[j]))
        i = j + 1
    return ",".join(parts)


def mutants(tokens, samples):
    """Plausible mistakes in a row's tokens, one at a time: (what, tokens).
    Stack pointer and zero register differ only in number 31, so those
    mistakes are made only where a sample has 31 in the field; encodings with
    31 there are reserved for some instructions."""
    def has31(field):
        return any(extract(w, field) == 31 for w, _, _, _ in samples)
    others = {}
    for i, t in enumerate(tokens):
        f = Token(t).field
        if f:
            others.setdefault(f, []).append(i)
    swaps = [("u", "s"), ("s", "u"), (".b", ".h"), (".h", ".b"), (".s", ".d"),
             (".d", ".s"), (".q", ".d"), (".w", ".x"), (".x", ".w"), ("/m", "/z"),
             ("/z", "/m"), ("/g", "/m"), ("=>X", "=>W"),
             ("=>W", "=>X"), ("+1", ""), ("uimm8sh", "simm8sh"),
             ("simm8sh", "uimm8sh"), ("fpimm8.h", "fpimm8.s"), ("fpimm8.s", "fpimm8.d"),
             ("fpimm8.d", "fpimm8.h"), ("fpimm8", "fpimm8.d"), ("sel5", "u6")]
    for i, t in enumerate(tokens):
        tok = Token(t)
        variants = []
        if tok.field:
            for by in (1, -1):
                f = shifted_field(tok.field, by)
                if f:
                    variants.append(t.replace(tok.field, f, 1))
        for a, b in swaps:
            if a in ("u", "s"):
                if re.match(r"^(\d+-)?%s\d" % a, t):
                    variants.append(re.sub(r"^(\d+-)?%s" % a, r"\g<1>%s" % b, t))
            elif t.startswith(a) or t.endswith(a):
                variants.append(t.replace(a, b))
        if re.match(r"^S\d", t) and has31(tok.field):
            variants.append("R" + t[1:] + ".x")
        m = re.match(r"^(\d+)-(u.*)$", t)
        if m:
            variants += [m.group(2), "%d-%s" % (int(m.group(1)) * 2, m.group(2))]
        if t == "X" + (tok.field or "") and tok.head == "X" and has31(tok.field):
            variants.append("XSP" + tok.field)
        if t.startswith("XSP") and has31(tok.field):
            variants.append("X" + t[3:])
        for v in variants:
            if v != t:
                yield "%s -> %s" % (t, v), tokens[:i] + [v] + tokens[i + 1:]
        if tok.field and len(others[tok.field]) == 1:
            yield "%s dropped" % t, tokens[:i] + tokens[i + 1:]


def self_test(row, samples, counter):
    """Returns the mutants of the row's tokens that the check lets through."""
    missed = []
    for what, tokens in mutants(row.tokens, samples):
        try:
            parsed = [Token(t) for t in tokens]
        except ValueError:
            continue
        counter[0] += 1
        mutant = Row(row.map_name, row.key, row.adapter, row.road, tokens)
        result = RowResult(mutant)
        mutated = [(w, text, ops, {t.text: token_value(t, w) for t in parsed if t.kind})
                   for w, text, ops, _ in samples]
        check_row(result, mutated)
        if not result.failures:
            missed.append(what)
    return missed


# --------------------------------------------------------------------------

EDGE_PATTERNS = (0xFFFFFFFF, 0x55555555, 0xAAAAAAAA)


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--table", default=DEFAULT_TABLE)
    ap.add_argument("--words", type=int, default=8,
                    help="random words per row, besides three fixed patterns (default 8)")
    ap.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    ap.add_argument("--quern", metavar="PATH",
                    help="take the token values from PATH decode --operands")
    ap.add_argument("--rows", metavar="REGEX", help="only rows whose adapter matches")
    ap.add_argument("--emit", action="store_true",
                    help="print the TOKEN=VALUE lines of all checked words, in the "
                         "format of quern decode --operands")
    ap.add_argument("--verbose", action="store_true", help="one line per row")
    ap.add_argument("--self-test", action="store_true",
                    help="check the check: feed it wrong variants of every row's "
                         "tokens and fail unless it rejects them all")
    args = ap.parse_args()

    assembler = find_tool("as")
    objdump = find_tool("objdump")
    rng = random.Random(args.seed)
    rows = read_table(args.table)
    if args.rows:
        rows = [r for r in rows if re.search(args.rows, r.adapter)]

    results = []
    mutants_tried = [0]
    bad_tokens = []
    plan = []
    words = []
    no_operands = 0
    for row in rows:
        try:
            parsed = [Token(t) for t in row.tokens]
        except ValueError as e:
            bad_tokens.append((row, str(e)))
            continue
        if not any(t.kind for t in parsed):
            no_operands += 1
            continue
        free = ~row.mask & 0xFFFFFFFF
        candidates = [row.value | (rng.getrandbits(32) & free) for _ in range(args.words)]
        candidates += [row.value | (p & free) for p in EDGE_PATTERNS]
        # Each field at its extremes: register 31 (zero register or stack
        # pointer), immediates all ones and with only the sign bit set.
        for tok in parsed:
            if not tok.field or tok.result:
                continue
            ones = sum(1 << b for b in field_bits(tok.field)) & free
            top = (1 << field_bits(tok.field)[0]) & free
            base = row.value | (rng.getrandbits(32) & free)
            candidates.append(base | ones)
            if tok.kind == "imm":
                candidates.append((base & ~ones) | top)
        plan.append((row, len(words), len(candidates)))
        words.extend(candidates)
    texts = disassemble(words, assembler, objdump)
    # Keep the words that the assembler itself writes for their text.
    round_trip = reassemble(texts, assembler, objdump)
    texts = [t if r == w else None for w, t, r in zip(words, texts, round_trip)]

    accepted = sorted({w for w, t in zip(words, texts) if t})
    if args.quern:
        decoded = quern_values(args.quern, accepted)

    for row, start, count in plan:
        result = RowResult(row)
        results.append(result)
        tokens = [Token(t) for t in row.tokens]
        entries = []
        for w, text in zip(words[start:start + count], texts[start:start + count]):
            if text is None:
                result.skipped += 1
                continue
            form, ops = parse(text)
            if args.quern:
                if w not in decoded:
                    result.fail(w, text, "quern prints no line for it")
                    continue
                adapter, values = decoded[w]
                if adapter != row.adapter:
                    result.fail(w, text, "quern decodes it as %s" % adapter)
                    continue
                extra = set(values) - set(row.tokens)
                if extra:
                    result.fail(w, text, "quern prints tokens that the row does not "
                                "have: %s" % " ".join(sorted(extra)))
            else:
                values = {t.text: token_value(t, w) for t in tokens if t.kind}
            entries.append((form, w, text, ops, values))
        forms = collections.Counter(e[0] for e in entries)
        if not forms:
            continue
        usual = forms.most_common(1)[0][0]
        samples = [(w, text, ops, values) for form, w, text, ops, values in entries
                   if form == usual]
        result.skipped += len(entries) - len(samples)
        result.words = len(samples)
        if args.emit:
            for w, _, _, values in samples:
                print("0x%08x %s %s" % (w, row.adapter, " ".join(
                    "%s=%s" % (t.text, format_value(t, values[t.text]))
                    for t in tokens if t.kind and values.get(t.text) is not None)))
        check_row(result, samples)
        if args.self_test and not result.failures and samples:
            for what in self_test(row, samples, mutants_tried):
                result.fail(samples[0][0], samples[0][1], "self-test: %s passes" % what)

    failed = [r for r in results if r.failures] + [None] * len(bad_tokens)
    unchecked = [r for r in results if not r.words and not r.failures]
    for row, message in bad_tokens:
        print("FAIL %s\n    %s" % (row, message))
    for r in results:
        if r.failures:
            print("FAIL %s" % r.row)
            for w, text, message in r.failures:
                print("    0x%08x  %-44s  %s" % (w, text, message))
        elif args.verbose:
            print("ok   %s  (%d words, %d skipped)" % (r.row, r.words, r.skipped))
    for r in unchecked:
        print("NOT CHECKED %s: objdump rejects every word tried" % r.row)
    passed = len(results) - len([r for r in results if r.failures]) - len(unchecked)
    print("%d rows without operands not checked, %d rows not checkable, "
          "%d words skipped (rejected or printed in another form)"
          % (no_operands, len(unchecked), sum(r.skipped for r in results)))
    if args.self_test:
        print("self-test: %d wrong variants of the tokens tried, %d let through"
              % (mutants_tried[0], sum(1 for r in results for f in r.failures
                                       if "self-test" in f[2])))
    print("%d passed, %d failed" % (passed, len(failed) + len(unchecked)))
    return 1 if failed or unchecked else 0


if __name__ == "__main__":
    sys.exit(main())
