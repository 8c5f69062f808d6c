#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Generates lib/unicode_tables.cpp: the HFS+ decomposition, composition and
case-folding tables.

HFS+ stores names in a canonical decomposition that predates current Unicode
data (Apple TN1150). It is rebuilt here from the Unicode canonical
decompositions of Python's unicodedata, applied recursively, with the
exclusions and differences of the HFS+ format applied on top. Only characters
already assigned in Unicode 3.2 are considered, and decomposition mappings are
frozen by Unicode's normalization stability policy, so the rows do not depend
on the Python version that runs this script.

The case-folding table is built from scripts/data/hfsplus-case-folding.txt.

Usage: gen_unicode_tables.py            write lib/unicode_tables.cpp
       gen_unicode_tables.py --check    exit 1 if the committed file is stale
"""

import os
import sys
import unicodedata

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUTPUT = os.path.join(ROOT, "lib", "unicode_tables.cpp")
FOLDING_DATA = os.path.join(ROOT, "scripts", "data", "hfsplus-case-folding.txt")

ROWS = 942
WIDTH = 4  # longest decomposition, in units
FOLDING_SIZE = 2816
FOLDING_PAGES = [0x00, 0x01, 0x03, 0x04, 0x05, 0x10, 0x20, 0x21, 0xFE, 0xFF]

HANGUL_FIRST, HANGUL_LAST = 0xAC00, 0xD7A3
EXCLUDED_RANGES = [(0x2000, 0x2FFF), (0xF900, 0xFAFF), (HANGUL_FIRST, HANGUL_LAST)]
EXCLUDED = {
    0x01F8, 0x01F9, 0x0218, 0x0219, 0x021A, 0x021B, 0x021E, 0x021F,
    *range(0x0226, 0x0234), 0x0400, 0x040D, 0x0450, 0x045D, 0x04EC, 0x04ED,
    *range(0x0622, 0x0627), 0x06C0, 0x06C2, 0x06D3, 0x0A33, 0x0A36,
    0x0DDA, 0x0DDC, 0x0DDD, 0x0DDE, 0x1026, 0x1B06, 0x1B08, 0x1B0A, 0x1B0C,
    0x1B0E, 0x1B12, 0x1B3B, 0x1B3D, 0x1B40, 0x1B41, 0x1B43, 0xFB1D,
}
# Rows of the HFS+ table that current Unicode does not decompose canonically.
KEPT = {
    0x0310: [0x0306, 0x0307], 0x04D4: [0x00C6], 0x04D5: [0x00E6],
    0x04D8: [0x018F], 0x04D9: [0x0259], 0x04E0: [0x01B7], 0x04E1: [0x0292],
    0x04E8: [0x019F], 0x04E9: [0x0275], 0x09B0: [0x09AC, 0x09BC],
    0x0A5C: [0x0A21, 0x0A3C], 0x0B5F: [0x0B2F, 0x0B3C],
    0x0E33: [0x0E4D, 0x0E32], 0x0EB3: [0x0ECD, 0x0EB2],
    0x0F77: [0x0FB2, 0x0F80, 0x0F71], 0x0F79: [0x0FB3, 0x0F80, 0x0F71],
}
# Greek letters with tonos: HFS+ spells the accent U+030D, keeping them apart
# from the letters with oxia (U+1F70..U+1FFD), which keep U+0301.
TONOS_ROWS = [0x0344, 0x0385, 0x0386, 0x0388, 0x0389, 0x038A, 0x038C,
              0x038E, 0x038F, 0x0390, 0x03AC, 0x03AD, 0x03AE, 0x03AF,
              0x03B0, 0x03CC, 0x03CD, 0x03CE, 0x03D3]
ACUTE, TONOS = 0x0301, 0x030D
IOTA_SUBSCRIPT = 0x0345
IOTA_REORDERED = [*range(0x1F80, 0x1FB0), 0x1FB2, 0x1FB4, 0x1FB7, 0x1FC2,
                  0x1FC4, 0x1FC7, 0x1FF2, 0x1FF4, 0x1FF7]
TIBETAN_SWAPPED = [0x0F73, 0x0F75, 0x0F81]
# HFS+ keeps an early Unicode mapping of U+1FF4 (omega with oxia and
# ypogegrammeni) whose base letter is omicron.
BASE_LETTER = {0x1FF4: (0x03C9, 0x03BF)}
SINGLE_UNIT_COMPOSITIONS = [
    (0x003B, 0x037E), (0x0060, 0x1FEF), (0x00B4, 0x1FFD), (0x00B7, 0x0387),
    (0x00C6, 0x04D4), (0x00E6, 0x04D5), (0x018F, 0x04D8), (0x019F, 0x04E8),
    (0x01B7, 0x04E0), (0x0259, 0x04D9), (0x0275, 0x04E9), (0x0292, 0x04E1),
    (0x02B9, 0x0374), (0x0300, 0x0340), (0x0301, 0x0341), (0x0313, 0x0343),
    (0x03B9, 0x1FBE),
]


class CheckFailed(Exception):
    pass


def require(condition, what):
    if not condition:
        raise CheckFailed(what)


def excluded(cp):
    return cp in EXCLUDED or any(lo <= cp <= hi for lo, hi in EXCLUDED_RANGES)


def unicode_mapping(cp):
    """One level of Unicode canonical decomposition, or None."""
    text = unicodedata.decomposition(chr(cp))
    if not text or text.startswith("<"):
        return None
    return [int(part, 16) for part in text.split()]


def single_level_mappings():
    mappings = {}
    for cp in range(0x10000):
        if excluded(cp) or unicodedata.ucd_3_2_0.category(chr(cp)) == "Cn":
            continue
        mapping = unicode_mapping(cp)
        if mapping is not None:
            mappings[cp] = mapping
    require(not set(mappings) & set(KEPT), "kept rows already decomposed by Unicode")
    mappings.update(KEPT)
    return mappings


def expand(cp, mappings):
    """Full decomposition through the HFS+ mappings (so U+04DA reaches U+018F)."""
    if cp not in mappings:
        return [cp]
    return [unit for part in mappings[cp] for unit in expand(part, mappings)]


def hfs_adjust(cp, units):
    if cp in TONOS_ROWS:
        require(units.count(ACUTE) == 1, "tonos row U+%04X has one acute" % cp)
        units = [TONOS if unit == ACUTE else unit for unit in units]
    if IOTA_SUBSCRIPT in units[1:]:
        units = [units[0], IOTA_SUBSCRIPT] + [u for u in units[1:] if u != IOTA_SUBSCRIPT]
    if cp in BASE_LETTER:
        current, hfs = BASE_LETTER[cp]
        require(units[0] == current, "U+%04X base letter U+%04X" % (cp, current))
        units = [hfs] + units[1:]
    if cp in TIBETAN_SWAPPED:
        require(len(units) == 2, "Tibetan row U+%04X has two units" % cp)
        units = units[::-1]
    return units


def decomposition_rows():
    mappings = single_level_mappings()
    rows = []
    for cp in sorted(mappings):
        original = expand(cp, mappings)
        units = hfs_adjust(cp, original)
        rows.append((cp, units, original))
    return rows


def check_decomposition(rows):
    table = {cp: units for cp, units, _ in rows}
    require(len(rows) == ROWS, "%d decomposition rows, expected %d" % (len(rows), ROWS))
    keys = [cp for cp, _, _ in rows]
    require(all(a < b for a, b in zip(keys, keys[1:])), "decomposition keys strictly ascending")
    require(rows[0][:2] == (0x00C0, [0x0041, 0x0300]), "first decomposition row")
    require(rows[-1][:2] == (0xFB4E, [0x05E4, 0x05BF]), "last decomposition row")
    for cp, units in table.items():
        require(1 <= len(units) <= WIDTH, "U+%04X decomposes to 1..4 units" % cp)
        require(all(0 < u < 0x10000 for u in units), "U+%04X units are 16-bit" % cp)
        require(not excluded(cp), "U+%04X is excluded" % cp)
    require(table[0x1E9B] == [0x017F, 0x0307], "U+1E9B decomposed recursively")
    require(table[0x037E] == [0x003B], "U+037E singleton")
    for cp, units in KEPT.items():
        require(table[cp] == units, "kept row U+%04X" % cp)
    tonos = sorted(cp for cp, units in table.items() if TONOS in units)
    require(tonos == TONOS_ROWS, "tonos exactly in the 19 Greek rows")
    require(table[0x03AC] == [0x03B1, TONOS], "U+03AC uses tonos")
    require(table[0x1F71] == [0x03B1, ACUTE], "U+1F71 keeps oxia")
    for cp, units in table.items():
        if IOTA_SUBSCRIPT in units:
            require(units.index(IOTA_SUBSCRIPT) == 1, "U+%04X iota subscript second" % cp)
    moved = sorted(cp for cp, units, original in rows
                   if IOTA_SUBSCRIPT in original and original.index(IOTA_SUBSCRIPT) != 1)
    require(moved == IOTA_REORDERED, "iota subscript moved in exactly the listed rows")
    require(table[0x1F80] == [0x03B1, IOTA_SUBSCRIPT, 0x0313], "U+1F80 order")
    require(table[0x1FF4] == [0x03BF, IOTA_SUBSCRIPT, ACUTE], "U+1FF4 base letter")
    require(table[0x0F73] == [0x0F72, 0x0F71], "U+0F73 Tibetan order")
    require(table[0x0F75] == [0x0F74, 0x0F71], "U+0F75 Tibetan order")
    require(table[0x0F81] == [0x0F80, 0x0F71], "U+0F81 Tibetan order")
    for cp, base in [(0x04DA, 0x018F), (0x04DB, 0x0259), (0x04EA, 0x019F), (0x04EB, 0x0275)]:
        require(table[cp] == [base, 0x0308], "U+%04X decomposes through U+%04X" % (cp, base))


def padded(units):
    return units + [0] * (WIDTH - len(units))


def composition_rows(rows):
    return sorted((padded(units), cp) for cp, units, _ in rows)


def check_composition(comp):
    sequences = [seq for seq, _ in comp]
    require(len(comp) == ROWS, "%d composition rows" % len(comp))
    require(all(a < b for a, b in zip(sequences, sequences[1:])),
            "composition sequences strictly ascending (and unique)")
    require(comp[0] == ([0x003B, 0, 0, 0], 0x037E), "first composition row")
    require(comp[1] == ([0x0041, 0x0300, 0, 0], 0x00C0), "second composition row")
    require(comp[2] == ([0x0041, 0x0301, 0, 0], 0x00C1), "third composition row")
    require(comp[-1] == ([0x30FD, 0x3099, 0, 0], 0x30FE), "last composition row")
    singles = [(seq[0], cp) for seq, cp in comp if seq[1] == 0]
    require(singles == SINGLE_UNIT_COMPOSITIONS, "the 17 single-unit composition rows")


def folding_table():
    folded = {}
    declared = None
    with open(FOLDING_DATA, encoding="ascii") as data:
        for line in data:
            line = line.strip()
            if line.startswith("# entries:"):
                declared = int(line.split(":")[1])
            if not line or line.startswith("#"):
                continue
            unit, value = (int(field, 16) for field in line.split())
            require(unit not in folded, "folding unit %04X listed once" % unit)
            folded[unit] = value
    require(declared == len(folded), "folding data holds its declared entry count")
    require(folded.get(0) == 0xFFFF, "U+0000 folds to FFFF")
    ignorable = sorted(u for u, v in folded.items() if v == 0)
    require(ignorable == [*range(0x200C, 0x2010), *range(0x202A, 0x202F),
                          *range(0x206A, 0x2070), 0xFEFF], "ignorable units")
    table = [0] * FOLDING_SIZE
    for index, high in enumerate(FOLDING_PAGES):
        start = 0x100 * (index + 1)
        table[high] = start
        for low in range(256):
            unit = (high << 8) | low
            table[start + low] = folded.get(unit, unit)
    require(all((u >> 8) in FOLDING_PAGES for u in folded), "folded units lie on pages")
    require(start + 256 == FOLDING_SIZE, "folding table size")
    require(table[0x100 + 0x41] == 0x61 and table[0x100 + 0x61] == 0x61, "A and a fold to a")
    return table


def rows_text(rows):
    return "".join("    {%s},\n" % ", ".join("0x%04X" % v for v in row) for row in rows)


def render(decomp, comp, folding):
    folding_lines = "".join(
        "    %s,\n" % ", ".join("0x%04X" % v for v in folding[i:i + 8])
        for i in range(0, len(folding), 8))
    return (
        "// SPDX-License-Identifier: MIT\n"
        "// Generated by scripts/gen_unicode_tables.py; do not edit by hand.\n"
        "//\n"
        "// HFS+ canonical decomposition (precomposed unit, then up to four units) and\n"
        "// its inverse for composition (sequence, then precomposed unit), and the\n"
        "// HFS+ case-folding table: a 256-entry high-byte index followed by the\n"
        "// 256-entry pages of the folded high bytes.\n"
        "#include \"unicode.hpp\"\n"
        "\n"
        "constexpr uint16_t morv_unicode_decomposition_table[kUnicodeTableRows][kUnicodeRowWidth] = {\n"
        + rows_text([[cp] + padded(units) for cp, units, _ in decomp])
        + "};\n\n"
        "constexpr uint16_t morv_unicode_composition_table[kUnicodeTableRows][kUnicodeRowWidth] = {\n"
        + rows_text([seq + [cp] for seq, cp in comp])
        + "};\n\n"
        "constexpr uint16_t morv_unicode_case_folding_table[kCaseFoldingTableSize] = {\n"
        + folding_lines
        + "};\n")


def main(argv):
    try:
        decomp = decomposition_rows()
        check_decomposition(decomp)
        comp = composition_rows(decomp)
        check_composition(comp)
        text = render(decomp, comp, folding_table())
    except CheckFailed as failure:
        sys.stderr.write("gen_unicode_tables: check failed: %s\n" % failure)
        return 1
    if argv[1:] == ["--check"]:
        with open(OUTPUT, encoding="ascii") as current:
            if current.read() != text:
                sys.stderr.write("gen_unicode_tables: %s is out of date; rerun the script\n" % OUTPUT)
                return 1
        return 0
    if argv[1:]:
        sys.stderr.write(__doc__)
        return 2
    with open(OUTPUT, "w", encoding="ascii") as out:
        out.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
