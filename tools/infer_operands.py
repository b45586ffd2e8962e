#!/usr/bin/env python3
"""Propose the OPERANDS column of the decode table from the GNU disassembler.

Each row of sve/dispatch/decode_table.txt stands for a (mask, value) pair over
the instruction word; the bits outside the mask are operand fields.  This tool
finds out where those fields are and what they mean by experiment:

  1. For every row it builds a few words with random operand bits that print
     in the row's usual form, and for each of them every word that differs in
     exactly one operand bit.
  2. The words of all rows are disassembled together (objdump runs three
     times in all: candidates, neighbours, and words with register 31).
  3. Comparing the disassembly of a word with that of its one-bit neighbours
     tells which printed operand each free bit belongs to, and for register
     numbers also the weight of the bit.  Immediates are matched against a few
     interpretations (unsigned, signed, scaled, N minus the field, ...).
  4. From the fields found, it writes the tokens of docs/decode_table.md:
       - fast rows take the operand form of their handler (a file of
         "handler<TAB>tokens" lines) and get size suffixes and the expanded
         `dupidx`, `lslimm`, `asrimm` fields;
       - generic rows get their arguments in the order of their shape, by the
         conventions written down above generic_tokens();
       - no-op rows (prefetches) get nothing.

Every proposal is cross-checked against the experiment: a fast token whose
field was not seen in the disassembly, an immediate that fits no
interpretation, and the like are reported as notes.  Rows that already carry
operands are compared with the proposal and differences are reported.

Every operand bit of a row must be read by some token, and no token may read a
bit that the row's key fixes; rows where that fails are noted too.

Usage:
    tools/infer_operands.py --fast-forms FORMS [--write] [--quiet] [--rows REGEX]

Without --write the table is left alone and the proposals are printed, one
line per row (adapter, road, printed form, tokens) followed by its notes.
tests/asm_operands_check.py checks the written table independently.
"""

import argparse
import collections
import os
import platform
import random
import re
import shutil
import subprocess
import sys
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_TABLE = os.path.join(REPO, "sve", "dispatch", "decode_table.txt")


# --------------------------------------------------------------------------
# The table
# --------------------------------------------------------------------------

MAP_RE = re.compile(r"^map\s+(decode_map(?:__\d+_\d+)+)\s+(\d+)\s*$")
ROW_RE = re.compile(r"^(0x[0-9a-fA-F]+)(\s+)(\S+)(\s+)(\S+)(\s+)\|(.*)$")


class Row:
    """One row of the table, with its place in the file kept for rewriting."""

    def __init__(self, line_no, map_name, ranges, key, adapter, road, operands):
        self.line_no = line_no
        self.map_name = map_name
        self.key = key
        self.adapter = adapter
        self.road = road
        self.operands = operands.strip()
        self.mask, self.value = key_to_mask_value(ranges, key)

    @property
    def handler(self):
        return self.road.rstrip("+")

    @property
    def is_fast(self):
        return self.road.startswith("sve_")

    @property
    def shape(self):
        return int(self.road[1:]) if re.match(r"^G\d+$", self.road) else None


def map_ranges(map_name):
    """decode_map__31_21__15_10 -> [(31, 21), (15, 10)]."""
    return [(int(a), int(b)) for a, b in re.findall(r"__(\d+)_(\d+)", map_name)]


def key_to_mask_value(ranges, key):
    """Spread a map key over the word: the first range is the most significant."""
    mask = value = 0
    shift = 0
    for hi, lo in reversed(ranges):
        width = hi - lo + 1
        bits = (key >> shift) & ((1 << width) - 1)
        shift += width
        mask |= ((1 << width) - 1) << lo
        value |= bits << lo
    return mask, value


def read_table(path):
    lines = open(path).read().split("\n")
    rows = []
    current = None
    for no, line in enumerate(lines):
        m = MAP_RE.match(line)
        if m:
            current = (m.group(1), map_ranges(m.group(1)))
            continue
        m = ROW_RE.match(line)
        if m and current:
            rows.append(Row(no, current[0], current[1], int(m.group(1), 16),
                            m.group(3), m.group(5), m.group(7)))
    return lines, rows


def write_table(path, lines, rows, proposals):
    for row in rows:
        tokens = proposals.get(row.line_no)
        if tokens is None:
            continue
        prefix = lines[row.line_no].split("|", 1)[0]
        lines[row.line_no] = (prefix + "| " + " ".join(tokens)).rstrip()
    with open(path, "w") as f:
        f.write("\n".join(lines))


def read_fast_forms(path):
    """handler -> list of alternative token lists."""
    forms = collections.defaultdict(list)
    for line in open(path):
        line = line.rstrip("\n")
        if not line.strip() or line.startswith("#"):
            continue
        parts = line.split("\t")
        tokens = parts[1].split() if len(parts) > 1 else []
        if tokens == ["(none)"]:
            tokens = []
        forms[parts[0]].append(tokens)
    return forms


# --------------------------------------------------------------------------
# The disassembler
# --------------------------------------------------------------------------

def find_tool(tool):
    """The AArch64 binutils program `tool` ('as', 'objdump'): the cross one,
    or the native one on an AArch64 host."""
    names = ["aarch64-linux-gnu-" + tool]
    if platform.machine() in ("aarch64", "arm64"):
        names.append(tool)
    for name in names:
        if shutil.which(name):
            return name
    raise SystemExit("%s not found in PATH" % " or ".join(names))


def disassemble(words, assembler, objdump):
    """Disassemble the words; returns one text per word, None if rejected."""
    result = [None] * len(words)
    if not words:
        return result
    with tempfile.TemporaryDirectory() as tmp:
        src = os.path.join(tmp, "w.s")
        obj = os.path.join(tmp, "w.o")
        with open(src, "w") as f:
            f.write("".join(".inst 0x%08x\n" % w for w in words))
        subprocess.run([assembler, "-march=armv8.2-a+sve", "-o", obj, src],
                       check=True)
        out = subprocess.run([objdump, "-d", "-z", obj], check=True,
                             stdout=subprocess.PIPE, universal_newlines=True).stdout
    for line in out.split("\n"):
        m = re.match(r"^\s*([0-9a-f]+):\t[0-9a-f]{8} \t(.*)$", line)
        if not m:
            continue
        index = int(m.group(1), 16) // 4
        text = m.group(2).split("//")[0].split("<")[0].strip().replace("\t", " ")
        if text.startswith(".inst") or "undefined" in text:
            continue
        result[index] = text
    return result


# --------------------------------------------------------------------------
# Reading the disassembly
# --------------------------------------------------------------------------

# The predicate-constraint names of the element-count instructions and PTRUE.
PATTERNS = {"pow2": 0, "vl1": 1, "vl2": 2, "vl3": 3, "vl4": 4, "vl5": 5,
            "vl6": 6, "vl7": 7, "vl8": 8, "vl16": 9, "vl32": 10, "vl64": 11,
            "vl128": 12, "vl256": 13, "mul4": 29, "mul3": 30, "all": 31}

LEX_RE = re.compile(r"""\s*(?:
    (?P<z>z(?P<zn>\d+)(?:\.(?P<zq>[bhsdq]))?(?:\[(?P<zi>\d+)\])?)(?![\w.])
  | (?P<p>p(?P<pn>\d+)(?:/(?P<pg>[mz])|\.(?P<pq>[bhsd]))?)(?![\w])
  | (?P<r>(?P<rw>[wx])(?P<rn>\d+)|(?P<rz>[wx])zr|(?P<rsp>w?sp))(?![\w])
  | (?P<v>(?P<vq>[bhsdq])(?P<vn>\d+))(?![\w])
  | \#(?P<imm>-?0x[0-9a-f]+|-?\d+\.\d+(?:e[-+]\d+)?|-?\d+)
  | (?P<word>[a-z][a-z0-9]*)
  | (?P<punct>[\[\]{},-])
)""", re.X)


class Atom:
    """One value in the printed operands: a register number or an immediate."""

    def __init__(self, kind, value, qual=None, sub=None):
        self.kind = kind      # 'z', 'p', 'r', 'v' or 'imm'
        self.value = value    # register number, or the immediate
        self.qual = qual      # z/p/v: element letter, p: 'm'/'z'; r: 'w'/'x'
        self.sub = sub        # r: 'sp'/'zr' for number 31; imm: kind of immediate
        self.field = None     # filled in by the experiment

    def __repr__(self):
        return "%s%s%s" % (self.kind, self.value, "." + self.qual if self.qual else "")


def parse_disassembly(text):
    """Returns (template, atoms).  The template is the text with every value
    replaced by a placeholder, so that words of one form compare equal."""
    mnemonic, _, rest = text.partition(" ")
    atoms = []
    template = [mnemonic]
    in_list = False
    list_seen = False
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
            # Later registers of a list follow from the first; leave them out,
            # also because {z31.s, z0.s} prints other than {z3.s-z4.s}.
            continue
        if g["z"]:
            list_seen = in_list
            atoms.append(Atom("z", int(g["zn"]), g["zq"]))
            template.append("Z")
            if g["zi"] is not None:
                atoms.append(Atom("imm", int(g["zi"]), sub="index"))
                template.append("[I]")
        elif g["p"]:
            qual = g["pg"] or g["pq"]
            atoms.append(Atom("p", int(g["pn"]), qual))
            template.append("P/" + g["pg"] if g["pg"] else "P.T" if g["pq"] else "P")
        elif g["r"]:
            if g["rsp"]:
                atoms.append(Atom("r", 31, "x" if g["rsp"] == "sp" else "w", "sp"))
            elif g["rz"]:
                atoms.append(Atom("r", 31, g["rz"], "zr"))
            else:
                atoms.append(Atom("r", int(g["rn"]), g["rw"]))
            template.append("R")
        elif g["v"]:
            atoms.append(Atom("v", int(g["vn"]), g["vq"]))
            template.append("V")
        elif g["imm"] is not None:
            s = g["imm"]
            if "x" in s:
                value, sub = int(s, 16), "hex"
            elif "." in s:
                value, sub = float(s), "float"
            else:
                value, sub = int(s), "int"
            if prev_word == "mul":
                sub = "mul"
            elif prev_word in ("lsl", "sxtw", "uxtw"):
                sub = "shift"
            atoms.append(Atom("imm", value, sub=sub))
            template.append("I")
        elif g["word"]:
            word = g["word"]
            if word in PATTERNS:
                atoms.append(Atom("imm", PATTERNS[word], sub="pattern"))
                template.append("I")
            else:
                template.append(word)
        else:
            c = g["punct"]
            if c == "{":
                in_list, list_seen = True, False
            elif c == "}":
                in_list = False
            template.append(c)
        prev_word = word
    return " ".join(template), atoms


# --------------------------------------------------------------------------
# The experiment
# --------------------------------------------------------------------------

def field_text(bits):
    """A set of bit positions as a field: {22, 9, 8, 7, 6, 5} -> '22,9:5'."""
    bits = sorted(bits, reverse=True)
    parts = []
    start = prev = bits[0]
    for b in bits[1:] + [None]:
        if b is not None and b == prev - 1:
            prev = b
            continue
        parts.append(str(start) if start == prev else "%d:%d" % (start, prev))
        if b is not None:
            start = prev = b
    return ",".join(parts)


def field_bits(text):
    """'22,9:5' -> [22, 9, 8, 7, 6, 5], most significant first."""
    bits = []
    for part in text.split(","):
        if ":" in part:
            hi, lo = map(int, part.split(":"))
            bits.extend(range(hi, lo - 1, -1))
        else:
            bits.append(int(part))
    return bits


def extract(word, text):
    value = 0
    for b in field_bits(text):
        value = (value << 1) | ((word >> b) & 1)
    return value


class Probe:
    """What the experiment found out about one row."""

    def __init__(self, row):
        self.row = row
        self.template = None   # the form most words of the row print in
        self.atoms = []        # atoms of that form, with their fields
        self.samples = []      # (word, atoms) of words printed in that form
        self.notes = []


def plan_bases(row, rng, count):
    """Random candidate base words of the row: random operand bits."""
    return [row.value | (rng.getrandbits(32) & ~row.mask & 0xFFFFFFFF)
            for _ in range(count)]


def pick_bases(candidates, texts, count):
    """Keep up to `count` candidates that print in the most common form, so
    that reserved operand values and aliases do not spoil the experiment."""
    forms = [parse_disassembly(t)[0] if t else None for t in texts]
    counts = collections.Counter(f for f in forms if f)
    if not counts:
        return []
    best = counts.most_common(1)[0][0]
    return [w for w, f in zip(candidates, forms) if f == best][:count]


def plan_words(row, bases):
    """The base words and their one-bit neighbours."""
    free = [b for b in range(32) if not (row.mask >> b) & 1]
    words = []
    for base in bases:
        words.append(base)
        words.extend(base ^ (1 << b) for b in free)
    return free, words


def analyse(row, free, words, texts):
    probe = Probe(row)
    parsed = []
    for w, t in zip(words, texts):
        parsed.append(parse_disassembly(t) if t else None)
    counts = collections.Counter(p[0] for p in parsed if p)
    if not counts:
        probe.notes.append("the disassembler rejects every word of the row")
        return probe
    probe.template = counts.most_common(1)[0][0]
    probe.samples = [(w, p[1]) for w, p in zip(words, parsed)
                     if p and p[0] == probe.template]
    n_atoms = len(probe.samples[0][1])
    bits = [set() for _ in range(n_atoms)]
    weight = [dict() for _ in range(n_atoms)]
    stride = len(free) + 1
    for start in range(0, len(words), stride):
        base = parsed[start]
        if not base or base[0] != probe.template:
            continue
        for i, b in enumerate(free):
            flip = parsed[start + 1 + i]
            if not flip or flip[0] != probe.template:
                continue
            for k, (a0, a1) in enumerate(zip(base[1], flip[1])):
                if a0.value == a1.value:
                    continue
                bits[k].add(b)
                if a0.kind != "imm":
                    delta = a0.value ^ a1.value
                    if delta & (delta - 1) == 0:
                        weight[k][b] = delta.bit_length() - 1
    probe.atoms = probe.samples[0][1]
    for k, atom in enumerate(probe.atoms):
        quals = {atoms[k].qual for _, atoms in probe.samples}
        if len(quals) > 1 and atom.kind in ("z", "p", "v"):
            # The printed size follows another operand (the element size of a
            # logical immediate): it is not the register's own.
            atom.qual = None
            atom.sub = "size varies"
    for k, atom in enumerate(probe.atoms):
        if not bits[k]:
            continue
        atom.field = field_text(bits[k])
        if atom.kind != "imm":
            ordered = sorted(bits[k], reverse=True)
            expect = {b: len(ordered) - 1 - j for j, b in enumerate(ordered)}
            if weight[k] != expect:
                probe.notes.append("register %r: bit weights %s do not follow the "
                                   "bit order" % (atom, weight[k]))
    return probe


def probe_stack_pointer(probes, assembler, objdump):
    """Number 31 of a general register field prints as sp or as xzr/wzr:
    disassemble a few words of each row with the field set to all ones.  The
    atom's `sub` becomes 'sp', 'zr', or 'unknown' where 31 is reserved."""
    jobs = []
    for probe in probes:
        for k, atom in enumerate(probe.atoms):
            if atom.kind == "r" and atom.field:
                atom.sub = "unknown"
                ones = sum(1 << b for b in field_bits(atom.field))
                for word, _ in probe.samples[:8]:
                    jobs.append((probe, k, word | ones))
    texts = disassemble([w for _, _, w in jobs], assembler, objdump)
    for (probe, k, word), text in zip(jobs, texts):
        if not text:
            continue
        template, atoms = parse_disassembly(text)
        if template == probe.template and atoms[k].sub in ("sp", "zr"):
            probe.atoms[k].sub = atoms[k].sub


# --------------------------------------------------------------------------
# Immediates
# --------------------------------------------------------------------------

def sign_extend(value, width):
    return value - (1 << width) if value >> (width - 1) & 1 else value


def fit_immediate(probe, k):
    """Find how the printed immediate k follows from its field.  Returns a
    token body ('u20:16', 's19:16', '16-u8:5', 'uimm8sh', ...) or None."""
    atom = probe.atoms[k]
    if not atom.field:
        return None
    bits = field_bits(atom.field)
    width = len(bits)
    pairs = [(extract(w, atom.field), atoms[k].value) for w, atoms in probe.samples]
    if atom.sub == "mul":
        # MUL #k prints the multiplier, one more than the field.
        if all(p == f + 1 for f, p in pairs):
            return "u%s" % atom.field
        return None
    field = atom.field
    if (field == "12:5" and not (probe.row.mask >> 13) & 1
            and probe.template.split()[0] in ADD_IMMEDIATE):
        # The shifted byte form is reserved, so bit 13 never prints; the
        # adapter reads it all the same, as for the other element sizes.
        return "uimm8sh"
    if field == "13:5" and atom.sub == "int":
        def shifted(f, signed):
            imm = sign_extend(f & 0xFF, 8) if signed else f & 0xFF
            return imm << 8 if f >> 8 else imm
        if all(p == shifted(f, False) for f, p in pairs):
            return "uimm8sh"
        if all(p == shifted(f, True) for f, p in pairs):
            return "simm8sh"
        return None
    if atom.sub == "float":
        return None                    # FP immediates are named by the caller
    for scale in (1, 2, 4, 8, 16, 32):
        if all(p == f * scale for f, p in pairs):
            return "u%s" % atom.field
        if all(p == sign_extend(f, width) * scale for f, p in pairs):
            return "s%s" % atom.field
    totals = {p + f for f, p in pairs}
    if len(totals) == 1:
        return "%d-u%s" % (totals.pop(), atom.field)
    return None


# Instructions with an 8-bit unsigned immediate and an optional LSL #8.
ADD_IMMEDIATE = {"add", "sub", "subr", "sqadd", "uqadd", "sqsub", "uqsub"}


# Floating-point immediates of the arithmetic forms: bit 5 selects one of two.
FP_SELECT = {"fadd": (0.5, 1.0), "fsub": (0.5, 1.0), "fsubr": (0.5, 1.0),
             "fmul": (0.5, 2.0), "fmax": (0.0, 1.0), "fmin": (0.0, 1.0),
             "fmaxnm": (0.0, 1.0), "fminnm": (0.0, 1.0)}


def fit_float(probe, k):
    atom = probe.atoms[k]
    mnemonic = probe.template.split()[0]
    if not atom.field:
        return None
    if mnemonic in FP_SELECT:
        pair = FP_SELECT[mnemonic]
        if all(atoms[k].value == pair[extract(w, atom.field)]
               for w, atoms in probe.samples):
            return "u%s" % atom.field
        return None
    if mnemonic == "fmov" and atom.field == "12:5":
        return "fpimm8"
    return None


def fit_rotation(probe, k):
    """FCMLA prints 0, 90, 180, 270 for the field 0..3; FCADD 90, 270 for 0, 1."""
    atom = probe.atoms[k]
    mnemonic = probe.template.split()[0]
    if not atom.field:
        return None
    if mnemonic == "fcmla":
        ok = all(atoms[k].value == 90 * extract(w, atom.field) for w, atoms in probe.samples)
    elif mnemonic == "fcadd":
        ok = all(atoms[k].value == 90 + 180 * extract(w, atom.field)
                 for w, atoms in probe.samples)
    else:
        return None
    return "u%s" % atom.field if ok else None


def immediate_token(probe, k):
    atom = probe.atoms[k]
    mnemonic = probe.template.split()[0]
    if atom.sub == "float":
        return fit_float(probe, k)
    if mnemonic in ("fcmla", "fcadd") and atom.sub == "int":
        return fit_rotation(probe, k)
    return fit_immediate(probe, k)


# --------------------------------------------------------------------------
# Element sizes
# --------------------------------------------------------------------------

WIDTH_LETTER = {"8": "b", "16": "h", "32": "s", "64": "d", "128": "q"}
ESIZE_BITS = {"b": 8, "h": 16, "s": 32, "d": 64}


def adapter_size(adapter):
    """VecU16... -> 'h', VecF32... -> 's', VecD64 -> 'd', VecP... -> 'b'."""
    m = re.match(r"^Vec[A-Z](\d+)", adapter)
    if m:
        return WIDTH_LETTER[m.group(1)]
    if adapter.startswith("VecP"):
        return "b"
    return None


# Per element size: the field of DUP (indexed), and the shift fields of the
# predicated (zpi) and unpredicated (zzi) immediate shifts.
DUPIDX = {"b": "u23:22,20:17", "h": "u23:22,20:18", "s": "u23:22,20:19",
          "d": "u23:22,20", "q": "u23:22"}
SHIFT_ZPI = {"b": "7:5", "h": "8:5", "s": "9:5", "d": "22,9:5"}
SHIFT_ZZI = {"b": "18:16", "h": "19:16", "s": "20:16", "d": "22,20:16"}


# --------------------------------------------------------------------------
# Fast rows
# --------------------------------------------------------------------------

REG_TOKEN_RE = re.compile(r"^(Zrw|Prw|Rrw|Z|P|R|S)([\d:,]+)(/[mzg])?$")


def choose_form(probe, alternatives):
    """A handler with two forms (merging or zeroing governing predicate, the
    quadword DUP) takes the one that matches the printed instruction."""
    if len(alternatives) == 1:
        return alternatives[0]
    for tokens in alternatives:
        ok = True
        for tok in tokens:
            m = REG_TOKEN_RE.match(tok)
            if m and m.group(3) in ("/m", "/z"):
                atom = find_atom(probe, "p", m.group(2))
                ok = ok and atom is not None and atom.qual == m.group(3)[1]
            if tok == "u23:22":
                atom = find_atom(probe, "z", "4:0")
                ok = ok and atom is not None and atom.qual == "q"
            if tok == "dupidx":
                atom = find_atom(probe, "z", "4:0")
                ok = ok and atom is not None and atom.qual != "q"
        if ok:
            return tokens
    return alternatives[0]


def find_atom(probe, kind, field):
    for atom in probe.atoms:
        if atom.kind == kind and atom.field == field:
            return atom
    return None


def imm_fields(probe):
    return {atom.field for atom in probe.atoms if atom.kind == "imm" and atom.field}


def element_size(probe):
    """The element size of the instruction: that of its first Z or P operand."""
    for atom in probe.atoms:
        if atom.kind in ("z", "p") and atom.qual in ESIZE_BITS:
            return atom.qual
    return adapter_size(probe.row.adapter)


def fast_tokens(probe, forms):
    row = probe.row
    alternatives = forms.get(row.handler)
    if not alternatives:
        probe.notes.append("no operand form for handler %s" % row.handler)
        return None
    tokens = choose_form(probe, alternatives)
    out = []
    esize = element_size(probe)
    for tok in tokens:
        m = REG_TOKEN_RE.match(tok)
        if m:
            out.append(fast_register(probe, tok, m))
            continue
        if tok == "dupidx":
            tok = DUPIDX[esize]
        elif tok == "lslimm":
            tok = "u" + (SHIFT_ZPI if row.handler == "sve_lsl_zpi" else SHIFT_ZZI)[esize]
        elif tok == "asrimm":
            field = (SHIFT_ZPI if row.handler == "sve_asr_zpi" else SHIFT_ZZI)[esize]
            tok = "%d-u%s" % (ESIZE_BITS[esize], field)
        check_fast_immediate(probe, tok)
        out.append(tok)
    return out


def fast_register(probe, tok, m):
    prefix, field, gov = m.group(1), m.group(2), m.group(3)
    kind = {"Z": "z", "Zrw": "z", "P": "p", "Prw": "p",
            "R": "r", "Rrw": "r", "S": "r"}[prefix]
    atom = find_atom(probe, kind, field)
    if atom is None:
        probe.notes.append("%s: no printed operand has the field %s" % (tok, field))
        return tok + ("" if gov or prefix == "S" else ".?")
    if gov:
        printed = "/" + atom.qual if atom.qual in ("m", "z") else "/g"
        if printed != gov:
            probe.notes.append("%s: the instruction prints %s" % (tok, printed))
        return tok
    if prefix == "S":
        if atom.sub == "zr":
            probe.notes.append("%s: register 31 prints as the zero register" % tok)
        return tok
    if kind == "r":
        if atom.sub == "sp":
            probe.notes.append("%s: register 31 prints as sp" % tok)
        return "%s.%s" % (tok, atom.qual)
    size = atom.qual or adapter_size(probe.row.adapter)
    if atom.qual is None:
        probe.notes.append("%s: %s, %s taken from the adapter name"
                           % (tok, atom.sub or "no size printed", size))
    return "%s.%s" % (tok, size)


def check_fast_immediate(probe, tok):
    """The field of an immediate token must be one that the experiment found."""
    fields = imm_fields(probe)
    m = re.match(r"^(?:\d+-)?[us]([\d:,]+)(?:\+1)?$", tok)
    if m:
        field = m.group(1)
        if field in fields:
            return
        # u4:0 and u9:5 of reductions and CPY (SIMD&FP scalar) are register numbers.
        if any(a.kind == "v" and a.field == field for a in probe.atoms):
            return
        probe.notes.append("%s: no printed immediate has the field %s (found %s)"
                           % (tok, field, sorted(fields)))
        return
    special = {"uimm8sh": "13:5", "simm8sh": "13:5", "bitmask": "17:5",
               "fpimm8": "12:5", "sel5": "5"}
    field = special.get(tok)
    if tok in ("uimm8sh", "simm8sh") and element_size(probe) == "b":
        field = "12:5"         # the shifted byte form is reserved: bit 13 never prints
    if field is None:
        probe.notes.append("%s: unknown token" % tok)
    elif field not in fields and tok != "bitmask":
        # The logical immediate also changes the printed element size, so its
        # bits do not show in the comparison of like forms; it is not checked.
        probe.notes.append("%s: no printed immediate has the field %s (found %s)"
                           % (tok, field, sorted(fields)))


# --------------------------------------------------------------------------
# Generic rows
# --------------------------------------------------------------------------

# Argument kinds of the generic shapes, in order, and the result.
#   V vector, P predicate, S scalar (general register), E element (SIMD&FP
#   scalar register), I immediate.  Results: Z, P, X (X or W by the printed
#   destination), E, NZCV.
SHAPES = {
    1: ("VPV", "Z"), 2: ("VV", "Z"), 3: ("PVV", "P"), 4: ("VI", "Z"),
    5: ("PS", "X"), 6: ("PVS", "Z"), 7: ("SII", "X"), 8: ("VPI", "Z"),
    9: ("PSV", "Z"), 10: ("PV", "Z"), 11: ("PV", "E"), 12: ("PP", "P"),
    13: ("PSS", "Z"), 14: ("PVI", "P"), 15: ("PVV", "Z"), 16: ("PVI", "Z"),
    17: ("VII", "Z"), 18: ("V", "Z"), 19: ("PPP", "P"), 20: ("PEV", "E"),
    21: ("VVVI", "Z"), 22: ("SS", "P"), 23: ("PV", "P"), 24: ("VPVV", "Z"),
    25: ("VVI", "Z"), 26: ("PSV", "X"), 27: ("II", "X"), 28: ("VS", "Z"),
    29: ("PV", "X"), 30: ("PSI", "Z"), 31: ("VVV", "Z"), 32: ("SS", "NZCV"),
    33: ("VE", "Z"), 34: ("I", "P"), 35: ("VPVI", "Z"), 36: ("VVVII", "Z"),
    37: ("P", "P"), 38: ("VPVVI", "Z"),
}

# Shapes whose routine takes the accumulator after the two factors: the dot
# products and the indexed multiply-adds take (Zn, Zm, Zda[, index...]).
ACCUMULATOR_LAST = {21, 31, 36}

KIND_OF_ATOM = {"z": "V", "p": "P", "r": "S", "v": "E", "imm": "I"}

# Routines that receive only the low bits of their general-register argument.
LOW_BITS = {"VecU8InsertS": ".b", "VecU16InsertS": ".h", "VecU32InsertS": ".w"}

# How generic arguments are put in order.  The first printed operand is the
# destination.  A merging or accumulating routine (a shape that starts with
# vector, predicate) takes the old destination first, the governing predicate
# second, then the remaining sources as printed, a source printed twice (Zdn)
# only once.  Any other routine takes the sources in printed order, the
# predicate among them where it is printed; an argument kind that the printed
# sources lack is taken from the destination (INCP, DECP, UQINCB and the like
# read and write one register).  The dot products and the indexed
# multiply-adds take the accumulator after the two factors.


def generic_tokens(probe):
    row = probe.row
    kinds, result = SHAPES[row.shape]
    atoms = [a for a in probe.atoms if a.field]           # operand-driven only
    if not atoms:
        probe.notes.append("no operand fields found")
        return None
    if result == "NZCV":
        dest, sources = None, atoms       # CTERMEQ, CTERMNE: nothing is written
    else:
        dest, sources = atoms[0], atoms[1:]
    args = []
    if row.shape in ACCUMULATOR_LAST:
        regs = [a for a in sources if a.kind == "z"]
        imms = [a for a in sources if a.kind == "imm"]
        args = regs[:2] + [dest] + imms
    elif kinds.startswith("VP"):
        governing = [a for a in sources if a.kind == "p"]
        rest = [a for a in sources
                if a.kind != "p" and not (a.kind == dest.kind and a.field == dest.field)]
        args = [dest] + governing[:1] + rest
    else:
        pool = list(sources)
        for kind in kinds:
            pick = next((a for a in pool if KIND_OF_ATOM[a.kind] == kind), None)
            if pick is None and dest and KIND_OF_ATOM[dest.kind] == kind:
                pick = dest
            if pick is None:
                probe.notes.append("shape G%d: no operand for argument kind %s"
                                   % (row.shape, kind))
                return None
            if pick in pool:
                pool.remove(pick)
            args.append(pick)
        if pool:
            probe.notes.append("shape G%d: printed operands left over: %s"
                               % (row.shape, pool))
    got = "".join(KIND_OF_ATOM[a.kind] for a in args)
    if got != kinds:
        probe.notes.append("shape G%d wants %s, the instruction gives %s"
                           % (row.shape, kinds, got))
        return None
    tokens = [generic_argument(probe, a) for a in args]
    if None in tokens:
        return None
    return tokens + [generic_result(probe, dest, result)]


def generic_argument(probe, atom):
    row = probe.row
    if atom.kind == "z":
        return "V" + atom.field
    if atom.kind == "p":
        return "PV" + atom.field
    if atom.kind == "v":
        return "E%s.%s" % (atom.field, atom.qual)
    if atom.kind == "r":
        if row.adapter in LOW_BITS:
            return "X%s%s" % (atom.field, LOW_BITS[row.adapter])
        if atom.sub == "unknown":
            probe.notes.append("%r: register 31 never prints (reserved), taken as "
                               "the zero register" % atom)
        return ("XSP" if atom.sub == "sp" else "X") + atom.field
    k = probe.atoms.index(atom)
    tok = immediate_token(probe, k)
    if tok is None:
        probe.notes.append("immediate %r (field %s) fits no interpretation"
                           % (atom, atom.field))
        return None
    if tok == "fpimm8":
        tok = "fpimm8." + element_size(probe)
    return tok


def generic_result(probe, dest, result):
    if result == "NZCV":
        return "=>NZCV"
    if result == "Z" and dest.kind == "z":
        return "=>Z" + dest.field
    if result == "P" and dest.kind == "p":
        return "=>P" + dest.field
    if result == "E" and dest.kind == "v":
        return "=>E%s.%s" % (dest.field, dest.qual)
    if result == "X" and dest.kind == "r":
        return ("=>W" if dest.qual == "w" else "=>X") + dest.field
    probe.notes.append("result %s does not fit the destination %r" % (result, dest))
    return "=>?"


# --------------------------------------------------------------------------
# Coverage
# --------------------------------------------------------------------------

SPECIAL_FIELDS = {"uimm8sh": "13:5", "simm8sh": "13:5", "bitmask": "17:5",
                  "fpimm8": "12:5", "fpimm8.h": "12:5", "fpimm8.s": "12:5",
                  "fpimm8.d": "12:5", "sel5": "5"}


def token_field(tok):
    """The bits that a token reads, or None for a token without a field."""
    if tok in SPECIAL_FIELDS:
        return SPECIAL_FIELDS[tok]
    m = re.match(r"^(?:=>)?(?:\d+-)?[A-Za-z]*?([\d:,]+)(?:\+1|/[mzg]|\.[bhsdqwx])?$", tok)
    return m.group(1) if m else None


def check_coverage(probe, tokens):
    """Every operand bit of the row should be read by some token."""
    read = set()
    for tok in tokens:
        field = token_field(tok)
        if field:
            read.update(field_bits(field))
    free = {b for b in range(32) if not (probe.row.mask >> b) & 1}
    if free - read:
        probe.notes.append("operand bits read by no token: %s"
                           % field_text(free - read))
    if read - free:
        probe.notes.append("tokens read fixed bits: %s" % field_text(read - free))


# --------------------------------------------------------------------------

def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--table", default=DEFAULT_TABLE)
    ap.add_argument("--fast-forms", required=True,
                    help="file of 'handler<TAB>tokens' lines, the operand forms "
                         "of the fast handlers")
    ap.add_argument("--write", action="store_true",
                    help="write the proposals into the table")
    ap.add_argument("--rows", help="only rows whose adapter matches this regex")
    ap.add_argument("--bases", type=int, default=6,
                    help="random base words per row (default 6)")
    ap.add_argument("--seed", type=int, default=2024)
    ap.add_argument("--quiet", action="store_true", help="print only notes")
    args = ap.parse_args()

    assembler = find_tool("as")
    objdump = find_tool("objdump")
    lines, rows = read_table(args.table)
    forms = read_fast_forms(args.fast_forms)
    if args.rows:
        rows = [r for r in rows if re.search(args.rows, r.adapter)]
    rng = random.Random(args.seed)

    # First pass: candidate base words; second pass: the chosen bases and
    # their one-bit neighbours.
    candidates = [plan_bases(row, rng, 4 * args.bases) for row in rows]
    flat = [w for c in candidates for w in c]
    texts = disassemble(flat, assembler, objdump)
    plans = []
    all_words = []
    for i, row in enumerate(rows):
        n = len(candidates[i])
        bases = pick_bases(candidates[i], texts[i * n:(i + 1) * n], args.bases)
        free, words = plan_words(row, bases)
        plans.append((row, free, len(all_words), len(words)))
        all_words.extend(words)
    texts = disassemble(all_words, assembler, objdump)

    probes = []
    for row, free, start, count in plans:
        if row.road == "N":
            continue
        probes.append(analyse(row, free, all_words[start:start + count],
                              texts[start:start + count]))
    probe_stack_pointer([p for p in probes if p.template], assembler, objdump)

    proposals = {}
    changed = 0
    for row in rows:
        if row.road == "N":
            proposals[row.line_no] = []
    for probe in probes:
        row = probe.row
        tokens = None
        if probe.template:
            tokens = fast_tokens(probe, forms) if row.is_fast else generic_tokens(probe)
        if tokens is not None:
            check_coverage(probe, tokens)
            proposals[row.line_no] = tokens
            if row.operands and row.operands != " ".join(tokens):
                probe.notes.append("table has: %s" % row.operands)
                changed += 1
        if not args.quiet or probe.notes:
            text = probe.template or "-"
            print("%-24s %-26s %-44s | %s" % (row.adapter, row.road, text,
                                              " ".join(tokens) if tokens is not None else "??"))
            for note in probe.notes:
                print("    note: " + note)
    missing = [r for r in rows if r.line_no not in proposals]
    print("%d rows, %d proposed, %d without proposal, %d differ from the table"
          % (len(rows), len(proposals), len(missing), changed), file=sys.stderr)
    if args.write:
        write_table(args.table, lines, rows, proposals)
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
