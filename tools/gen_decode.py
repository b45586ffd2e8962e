#!/usr/bin/env python3
"""Generate the decode maps, the adapters and the handler declarations.

Input: sve/dispatch/decode_table.txt (the decode table, see docs/decode_table.md)
and sve/dispatch/print_only.txt (handlers that exist in name only).

Output (into the build directory):
  decode_decls.h    extern "C" weak declarations of every handler and routine
  decode_gen.inc    the adapters, the 44 map tables and the row descriptors
  decode_describe.inc  for tools and tests: the operands each adapter extracts

The table is checked first; any violation stops the build with a message that
names the rows involved.
"""
import argparse
import collections
import re
import sys

SVE_GROUP_MASK = 0x1E000000
SVE_GROUP_VALUE = 0x04000000

Z_SIZES = {'b': 0, 'h': 1, 's': 2, 'd': 3, 'q': 4}
P_SIZES = {'b': 0, 'h': 1, 's': 2, 'd': 3}
R_SIZES = {'b': 0, 'h': 1, 'w': 2, 'x': 3}
GOV = {'m': 4, 'z': 5, 'g': 6}
ELEM_BYTES = {'b': 1, 'h': 2, 's': 4, 'd': 8}

# Subsystem of a row, by its adapter name: first rule that matches wins.
SUBSYSTEM_RULES = [
    (r'Prefetch|Load|Store|Fill|Spill', 'memory'),
    (r'^VecP|While|^Vec[A-Z]\d+SCountP$|CTerm', 'predicate'),
    (r'^Vec(F16|F32|F64|D64|H32|H64)|From[DF]|TruncD|ExtndF|^Vec[SU](32|64)_\d?From', 'fp'),
    (r'.', 'int'),
]


class TableError(Exception):
    pass


Field = collections.namedtuple('Field', 'parts width')   # parts: [(hi, lo)], MSB first


def parse_field(text):
    parts = []
    for piece in text.split(','):
        if ':' in piece:
            hi, lo = map(int, piece.split(':'))
        else:
            hi = lo = int(piece)
        if not (31 >= hi >= lo >= 0):
            raise TableError(f'bad bit range {piece!r}')
        parts.append((hi, lo))
    return Field(parts, sum(hi - lo + 1 for hi, lo in parts))


def field_mask(f):
    m = 0
    for hi, lo in f.parts:
        m |= ((1 << (hi - lo + 1)) - 1) << lo
    return m


def field_expr(f):
    """C++ expression for the field's value, zero-extended, from word `w`."""
    terms = []
    shift = f.width
    for hi, lo in f.parts:
        width = hi - lo + 1
        shift -= width
        t = f'((w >> {lo}) & 0x{(1 << width) - 1:x}u)'
        terms.append(f'({t} << {shift})' if shift else t)
    return terms[0] if len(terms) == 1 else '(' + ' | '.join(terms) + ')'


F = r'(\d+(?::\d+)?(?:,\d+(?::\d+)?)*)'

# Register tokens of the fast road: letter -> (C++ type, constructor stem, size letters).
REGISTER_TOKENS = {
    'Z': ('aarch64_z_reg', 'zreg', Z_SIZES),
    'P': ('aarch64_p_reg', 'preg', P_SIZES),
    'R': ('aarch64_i_reg', 'ireg', R_SIZES),
}


def fast_token(tok):
    """Translate a fast-road token into (C++ parameter type, argument expression, mask, described value)."""
    m = re.fullmatch(r'([ZPR])(rw)?' + F + r'\.([a-z])', tok)
    if m and m.group(4) in REGISTER_TOKENS[m.group(1)][2]:
        ctype, stem, sizes = REGISTER_TOKENS[m.group(1)]
        f = parse_field(m.group(3))
        ctor = stem + ('_rw' if m.group(2) else '')
        return ctype, f'{ctor}({field_expr(f)}, {sizes[m.group(4)]})', field_mask(f), field_expr(f)
    m = re.fullmatch(r'P' + F + r'/([mzg])', tok)
    if m:
        f = parse_field(m.group(1))
        return 'aarch64_p_reg', f'preg({field_expr(f)}, {GOV[m.group(2)]})', field_mask(f), field_expr(f)
    m = re.fullmatch(r'S' + F, tok)
    if m:
        f = parse_field(m.group(1))
        return 'aarch64_i_rsp_reg', f'rspreg({field_expr(f)})', field_mask(f), field_expr(f)
    special = {
        'uimm8sh': ('unsigned int', 'uimm8sh(w)', 0x3FE0, 'uimm8sh(w)'),
        'simm8sh': ('int', 'simm8sh(w)', 0x3FE0, 'simm8sh(w)'),
        'sel5': ('aarch64_sve_fp_arith_imm', 'aarch64_sve_fp_arith_imm{uint8_t((w >> 5) & 1u)}', 0x20,
                 'aarch64_sve_fp_arith_imm{uint8_t((w >> 5) & 1u)}.value'),
        'bitmask': ('aarch64_sve_logical64_imm', 'expand_bitmask(w)', 0x3FFE0, 'expand_bitmask(w).value'),
        'fpimm8': ('aarch64_sve_fp_dup_imm', 'expand_fpimm8(w)', 0x1FE0, 'expand_fpimm8(w).single_bits'),
    }
    if tok in special:
        return special[tok]
    return imm_token(tok, 'unsigned int', 'int')


def imm_token(tok, utype, stype):
    m = re.fullmatch(r'u' + F + r'(\+1)?', tok)
    if m:
        f = parse_field(m.group(1))
        e = field_expr(f) + (' + 1u' if m.group(2) else '')
        e = f'static_cast<{utype}>({e})'
        return utype, e, field_mask(f), e
    m = re.fullmatch(r'(\d+)-u' + F, tok)
    if m:
        f = parse_field(m.group(2))
        e = f'static_cast<{utype}>({m.group(1)}u - {field_expr(f)})'
        return utype, e, field_mask(f), e
    m = re.fullmatch(r's' + F, tok)
    if m:
        f = parse_field(m.group(1))
        e = f'static_cast<{stype}>(sext({field_expr(f)}, {f.width}))'
        return stype, e, field_mask(f), e
    raise TableError(f'unknown operand token {tok!r}')


def generic_token(tok):
    """Translate a generic-road argument token into (type, expression, mask)."""
    m = re.fullmatch(r'(V|PV|XSP|X)' + F + r'(?:\.([bhw]))?', tok)
    if m and not (m.group(3) and m.group(1) != 'X'):
        f = parse_field(m.group(2))
        e = field_expr(f)
        kind = m.group(1)
        if kind == 'V':
            return 'VecV', f'arg_vec(cs, {e})', field_mask(f), e
        if kind == 'PV':
            return 'PredV', f'arg_pred(cs, {e})', field_mask(f), e
        if kind == 'XSP':
            return 'uint64_t', f'arg_xsp(cs, {e})', field_mask(f), e
        low = {'b': '0xffu', 'h': '0xffffu', 'w': '0xffffffffu'}.get(m.group(3))
        expr = f'arg_x(cs, {e})' + (f' & {low}' if low else '')
        return 'uint64_t', expr, field_mask(f), e
    m = re.fullmatch(r'E' + F + r'\.([bhsd])', tok)
    if m:
        f = parse_field(m.group(1))
        return ('uint64_t', f'arg_elem(cs, {field_expr(f)}, {ELEM_BYTES[m.group(2)]})', field_mask(f),
                field_expr(f))
    if tok == 'uimm8sh':
        return 'uint64_t', 'uint64_t(uimm8sh(w))', 0x3FE0, 'uimm8sh(w)'
    if tok == 'simm8sh':
        return 'int64_t', 'int64_t(simm8sh(w))', 0x3FE0, 'simm8sh(w)'
    if tok == 'bitmask':
        return 'uint64_t', 'expand_bitmask(w).value', 0x3FFE0, 'expand_bitmask(w).value'
    m = re.fullmatch(r'fpimm8\.([hsd])', tok)
    if m:
        bits = {'h': 16, 's': 32, 'd': 64}[m.group(1)]
        return 'uint64_t', f'fpimm8_bits(w, {bits})', 0x1FE0, f'fpimm8_bits(w, {bits})'
    return imm_token(tok, 'uint64_t', 'int64_t')


def result_token(tok):
    """Translate a generic result token into (return type, statement template, mask)."""
    if tok == '=>NZCV':
        return 'void', None, 0, None
    m = re.fullmatch(r'=>(Z|P|X|W)' + F, tok)
    if m:
        f = parse_field(m.group(2))
        e = field_expr(f)
        kind = m.group(1)
        typ = {'Z': 'VecV', 'P': 'PredV', 'X': 'uint64_t', 'W': 'uint64_t'}[kind]
        put = {'Z': f'put_z(cs, {e}, r)', 'P': f'put_p(cs, {e}, r)',
               'X': f'put_x(cs, {e}, r)', 'W': f'put_x(cs, {e}, r & 0xffffffffu)'}[kind]
        return typ, put, field_mask(f), e
    m = re.fullmatch(r'=>E' + F + r'\.([bhsd])', tok)
    if m:
        f = parse_field(m.group(1))
        return ('uint64_t', f'put_elem(cs, {field_expr(f)}, r, {ELEM_BYTES[m.group(2)]})', field_mask(f),
                field_expr(f))
    raise TableError(f'unknown result token {tok!r}')


# Registers of the host that a row touches, for code that parks only those:
# kind 1 a Z register (its low 128 bits are the host's Q register), 2 an X
# register (31 is the zero register: none), 3 an X register or SP (31).
REG_Z, REG_X, REG_XSP = 1, 2, 3
REG_OPERAND_PATTERNS = [
    (r'Z(?:rw)?' + F + r'\.[bhsdq]', REG_Z),
    (r'R(?:rw)?' + F + r'\.[bhwx]', REG_X),
    (r'S' + F, REG_XSP),
    (r'(?:V|E)' + F + r'(?:\.[bhsd])?', REG_Z),
    (r'=>(?:Z|E)' + F + r'(?:\.[bhsd])?', REG_Z),
    (r'X' + F + r'(?:\.[bhw])?', REG_X),
    (r'XSP' + F, REG_XSP),
    (r'=>(?:X|W)' + F, REG_X),
]


def reg_operands(row):
    """The (kind, low bit, width, count) of each register of Z or X that a row reads or writes.

    A structure load or store (E2..E4 in its adapter's name) covers that many
    consecutive Z registers from the one its token names. A fast handler's
    SIMD&FP scalar register (letter v of its operand letters, sve_uaddv_vpz)
    is passed as a plain number (u4:0): its low 128 bits are Z's."""
    m = re.search(r'E([234])(?:Load|Store)', row.adapter)
    count = int(m.group(1)) if m else 1
    letters = row.road.rstrip('+').split('_')[-1] if row.road.startswith('sve_') else ''
    scalar_v = set()
    if 'v' in letters:
        if len(letters) != len(row.tokens):
            raise TableError(f'{row.line}: operand letters {letters} and {len(row.tokens)} tokens')
        for i, c in enumerate(letters):
            if c == 'v':
                if not re.fullmatch(r'u' + F, row.tokens[i]):
                    raise TableError(f'{row.line}: a v operand as {row.tokens[i]}')
                scalar_v.add(i)
    ops = []
    for i, tok in enumerate(row.tokens):
        if i in scalar_v:
            f = parse_field(tok[1:])
            ops.append((REG_Z, f.parts[0][1], f.width, 1))
            continue
        for pattern, kind in REG_OPERAND_PATTERNS:
            m = re.fullmatch(pattern, tok)
            if not m:
                continue
            f = parse_field(m.group(1))
            if len(f.parts) != 1 or f.width > 5:
                raise TableError(f'{row.line}: register field {m.group(1)} of {tok} is not one piece of 5 bits or less')
            ops.append((kind, f.parts[0][1], f.width, count if kind == REG_Z else 1))
            break
        else:
            if re.match(r'(=>)?(Z|R|S\d|V|E|X)', tok):
                raise TableError(f'{row.line}: register token {tok} of unknown form')
    return ops


def map_ranges(name):
    nums = [int(n) for n in re.findall(r'\d+', name[len('decode_map'):])]
    if len(nums) % 2 or not nums:
        raise TableError(f'bad map name {name}')
    return list(zip(nums[::2], nums[1::2]))


def key_to_mask_value(ranges, key):
    width = sum(hi - lo + 1 for hi, lo in ranges)
    if key >> width:
        raise TableError(f'key 0x{key:x} wider than {width} bits')
    mask = value = 0
    pos = width
    for hi, lo in ranges:
        w = hi - lo + 1
        pos -= w
        mask |= ((1 << w) - 1) << lo
        value |= ((key >> pos) & ((1 << w) - 1)) << lo
    return mask, value


Row = collections.namedtuple('Row', 'map_index key adapter road fp generic_shape tokens mask value line')


def parse_table(path):
    maps = []          # (name, ranges, declared count)
    rows = []
    for lineno, raw in enumerate(open(path), 1):
        line = raw.split('#', 1)[0].strip()
        if not line:
            continue
        where = f'{path}:{lineno}'
        if line.startswith('map '):
            _, name, count = line.split()
            maps.append((name, map_ranges(name), int(count)))
            continue
        if not maps:
            raise TableError(f'{where}: row before the first map')
        if '|' not in line:
            raise TableError(f'{where}: row without "|"')
        head, ops = line.split('|', 1)
        parts = head.split()
        if len(parts) != 3:
            raise TableError(f'{where}: expected KEY ADAPTER ROAD')
        key = int(parts[0], 16)
        adapter, road = parts[1], parts[2]
        fp = road.endswith('+')
        road = road.rstrip('+')
        shape = int(road[1:]) if re.fullmatch(r'G\d+', road) else None
        if not (road == 'N' or shape or road.startswith('sve_')):
            raise TableError(f'{where}: bad road {road}')
        mask, value = key_to_mask_value(maps[-1][1], key)
        rows.append(Row(len(maps) - 1, key, adapter, road, fp, shape, ops.split(), mask, value, where))
    return maps, rows


def check_table(maps, rows):
    errors = []
    counts = collections.Counter(r.map_index for r in rows)
    for i, (name, _, declared) in enumerate(maps):
        if counts[i] != declared:
            errors.append(f'{name}: {counts[i]} rows, header says {declared}')
    widths = [sum(hi - lo + 1 for hi, lo in m[1]) for m in maps]
    if widths != sorted(widths, reverse=True):
        errors.append('maps are not in descending key width')
    seen = {}
    for r in rows:
        if (r.value & SVE_GROUP_MASK) != SVE_GROUP_VALUE or (r.mask & SVE_GROUP_MASK) != SVE_GROUP_MASK:
            errors.append(f'{r.line}: {r.adapter} is outside the SVE encoding group')
        if r.adapter in seen:
            errors.append(f'{r.line}: adapter {r.adapter} also at {seen[r.adapter]}')
        seen[r.adapter] = r.line
    # Overlap: two rows match a common word iff their values agree on the common mask.
    # Bucket by the top byte, which every map fixes, to keep this quadratic check small.
    by_top = collections.defaultdict(list)
    for r in rows:
        by_top[r.value >> 24].append(r)
    for group in by_top.values():
        for i, a in enumerate(group):
            for b in group[i + 1:]:
                common = a.mask & b.mask
                if (a.value & common) == (b.value & common):
                    errors.append(f'{a.line} ({a.adapter}) and {b.line} ({b.adapter}) match the same words')
    if errors:
        raise TableError('\n'.join(errors))


def subsystem(adapter):
    for pattern, name in SUBSYSTEM_RULES:
        if re.search(pattern, adapter):
            return name
    raise AssertionError


def generate(maps, rows, print_only):
    decls = {}       # name -> declaration
    adapters = []
    entries = []     # the adapters without the presence test, for rewritten code
    describes = []
    row_descs = []
    for idx, r in enumerate(rows):
        toks = r.tokens
        used = 0
        described = []
        if r.road == 'N':
            if toks:
                raise TableError(f'{r.line}: a no-op row takes no operands')
            body = '  (void)cs; (void)w;\n  return AARCH64_DECODE_OK;\n'
            target = 'nullptr'
        elif r.generic_shape is None:
            if r.road in print_only:
                raise TableError(f'{r.line}: {r.road} exists in name only')
            params, args = [], []
            for t in toks:
                typ, expr, mask, value = fast_token(t)
                params.append(typ)
                args.append(expr)
                described.append((t, value))
                used |= mask
            decl = f'aarch64_decode_rc {r.road}(cpu_state*{"".join(", " + p for p in params)})'
            if decls.setdefault(r.road, decl) != decl:
                raise TableError(f'{r.line}: {r.road} given two signatures:\n  {decls[r.road]}\n  {decl}')
            call = f'{r.road}(cs{"".join(", " + a for a in args)})'
            if r.fp:
                # The host FPSR usually holds cpu_state's already (the park
                # read it): an MRS and a compare cost less than an MSR.
                body = (f'  cs->encoding = w;\n  if (host_fpsr_read() != cs->fpsr) host_fpsr_write(cs->fpsr);\n'
                        f'  aarch64_decode_rc rc = ::{call};\n  cs->fpsr = host_fpsr_read();\n  return rc;\n')
            else:
                body = f'  cs->encoding = w;\n  return ::{call};\n'
            # Arguments are evaluated before the encoding store; both only read the word.
            check = f'  if (!&::{r.road}) return report_unimplemented(cs, w, "{r.road}");\n'
            target = f'reinterpret_cast<void (*)()>(&::{r.road})'
        else:
            if '=>' not in ' '.join(toks) or not toks[-1].startswith('=>'):
                raise TableError(f'{r.line}: generic row needs a result token last')
            params, args = [], []
            for t in toks[:-1]:
                typ, expr, mask, value = generic_token(t)
                params.append(typ)
                args.append(expr)
                described.append((t, value))
                used |= mask
            rtype, put, mask, value = result_token(toks[-1])
            if value:
                described.append((toks[-1], value))
            used |= mask
            decl = f'{rtype} {r.adapter}({"".join(p + ", " for p in params)}CpuContext*)'
            decls[r.adapter] = decl
            call = f'::{r.adapter}({"".join(a + ", " for a in args)}&c)'
            check = f'  if (!&::{r.adapter}) return report_unimplemented(cs, w, "{r.adapter}");\n'
            # Only the first-fault and non-fault loads and RDFFRS read or
            # write FFR; the others need not pack it and unpack it again.
            ffr = 'true' if re.search(r'Load(FF|NF)', r.adapter) or r.adapter == 'VecPActualFlgP' else 'false'
            body = f'  CpuContext c = make_context<{ffr}>(cs);\n'
            body += f'  {rtype} r = {call};\n  {put};\n' if put else f'  {call};\n'
            body += f'  finish_context<{ffr}>(cs, c);\n  return AARCH64_DECODE_OK;\n'
            target = f'reinterpret_cast<void (*)()>(&::{r.adapter})'
        if used & r.mask:
            raise TableError(f'{r.line}: operand bits 0x{used & r.mask:08x} are fixed by the row')
        # The adapter tests that its operation has landed on every call; its
        # entry, for code that made that test once beforehand, does not.
        if r.road == 'N':
            adapters.append(f'static aarch64_decode_rc {r.adapter}(cpu_state* cs, unsigned int w) {{\n{body}}}\n')
            entries.append(f'  &adapter::{r.adapter},\n')
        else:
            adapters.append(f'static aarch64_decode_rc {r.adapter}_entry(cpu_state* cs, unsigned int w) {{\n{body}}}\n'
                            f'static aarch64_decode_rc {r.adapter}(cpu_state* cs, unsigned int w) {{\n{check}'
                            f'  return {r.adapter}_entry(cs, w);\n}}\n')
            entries.append(f'  &adapter::{r.adapter}_entry,\n')
        lines = ''.join(f'  out("{t}", uint64_t({v}));\n' for t, v in described)
        describes.append(f'static void {r.adapter}(unsigned int w, operand_sink& out) {{\n'
                         f'  (void)w; (void)out;\n{lines}}}\n')
        row_descs.append(f'  {{{r.map_index}, 0x{r.key:x}, 0x{r.mask:08x}u, 0x{r.value:08x}u, '
                         f'"{r.adapter}", "{r.road}{"+" if r.fp else ""}", "{" ".join(toks)}", '
                         f'"{subsystem(r.adapter)}", &adapter::{r.adapter}, {target}}},\n')

    out = ['// Generated by tools/gen_decode.py from sve/dispatch/decode_table.txt. Do not edit.\n',
           'namespace adapter {\n']
    out += adapters
    out.append('}  // namespace adapter\n\n')
    out.append(f'const decode_row decode_rows[{len(rows)}] = {{\n')
    out += row_descs
    out.append('};\n\n')
    out.append(f'const sve_handler_fn decode_entries[{len(rows)}] = {{\n')
    out += entries
    out.append('};\n\n')
    out.append(f'const row_registers decode_row_registers[{len(rows)}] = {{\n')
    for r in rows:
        ops = reg_operands(r)
        if len(ops) > 4:
            raise TableError(f'{r.line}: more than 4 register operands')
        out.append(f'  {{{len(ops)}, {{{", ".join(f"{{{k}, {lo}, {w}, {n}}}" for k, lo, w, n in ops)}}}}},\n')
    out.append('};\n\n')
    for i, (name, ranges, count) in enumerate(maps):
        first = next(j for j, r in enumerate(rows) if r.map_index == i)
        out.append(f'static const std::pair<const int, sve_handler_fn> {name}_table[{count}] = {{\n')
        for r in rows[first:first + count]:
            out.append(f'  {{0x{r.key:x}, &adapter::{r.adapter}}},\n')
        out.append('};\n')
    out.append(f'\nconst decode_map_info decode_maps[{len(maps)}] = {{\n')
    for i, (name, ranges, count) in enumerate(maps):
        first = next(j for j, r in enumerate(rows) if r.map_index == i)
        rng = ', '.join(f'{{{hi}, {lo}}}' for hi, lo in ranges)
        out.append(f'  {{"{name}", {len(ranges)}, {{{rng}}}, {first}, {count}}},\n')
    out.append('};\n\n')
    out.append('// The maps themselves, searched in this order by the cascade.\n')
    for name, _, _ in maps:
        out.append(f'static const decode_map {name}(std::begin({name}_table), std::end({name}_table));\n')
    out.append(f'\nstatic const decode_map* const decode_map_order[{len(maps)}] = {{\n')
    out += [f'  &{name},\n' for name, _, _ in maps]
    out.append('};\n\n')
    out.append('// Handlers that exist in name only.\n')
    out += [f'extern "C" aarch64_decode_rc {n}(cpu_state* cs) {{ return report_unimplemented(cs, '
            f'static_cast<unsigned>(cs->encoding), "{n}"); }}\n' for n in print_only]

    desc = ['// Generated by tools/gen_decode.py from sve/dispatch/decode_table.txt. Do not edit.\n',
            '// The operands that each adapter extracts, through the same expressions.\n',
            'namespace describe {\nusing namespace adapter;\n'] + describes
    desc.append('}  // namespace describe\n\n')
    desc.append(f'const operand_describer operand_describers[{len(rows)}] = {{\n')
    desc += [f'  &describe::{r.adapter},\n' for r in rows]
    desc.append('};\n')
    hdr = ['// Generated by tools/gen_decode.py from sve/dispatch/decode_table.txt. Do not edit.\n',
           '// Every fast handler and generic routine that a row of the decode table names.\n',
           '// They are weak: a row whose operation has not landed yet finds a null address\n',
           '// and reports the instruction as unimplemented.\n',
           '#pragma once\n#include "sve/dispatch/cpu_state.h"\n\nextern "C" {\n']
    hdr += [f'__attribute__((weak)) {decls[n]};\n' for n in sorted(decls)]
    hdr += [f'aarch64_decode_rc {n}(cpu_state*);\n' for n in print_only]
    hdr.append('}\n')
    return ''.join(hdr), ''.join(out), ''.join(desc)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    ap.add_argument('table')
    ap.add_argument('print_only')
    ap.add_argument('--header')
    ap.add_argument('--source')
    ap.add_argument('--describe')
    ap.add_argument('--check-only', action='store_true')
    a = ap.parse_args()
    try:
        maps, rows = parse_table(a.table)
        check_table(maps, rows)
        print_only = [l.strip() for l in open(a.print_only) if l.strip() and not l.startswith('#')]
        hdr, src, desc = generate(maps, rows, print_only)
    except TableError as e:
        sys.exit(f'gen_decode: {e}')
    if a.check_only:
        return
    if not (a.header and a.source and a.describe):
        ap.error('--header, --source and --describe are needed unless --check-only')
    for path, text in ((a.header, hdr), (a.source, src), (a.describe, desc)):
        try:
            if open(path).read() == text:
                continue
        except OSError:
            pass
        open(path, 'w').write(text)


if __name__ == '__main__':
    main()
