#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the program against independent readers, on a program that a compiler has just built.

  compare_test.py --list                         the configurations
  compare_test.py --korva PROGRAM CONFIGURATION  builds it and compares
        addr             with GNU addr2line, byte for byte, for every function and addresses within
        units            with GNU readelf
        lines            with llvm-dwarfdump, row by row; paths and canonical addresses are computed here
Of programs that the loader corrects (link-time optimisation, dwz, Rust, separate debug files), the addresses only.
"""
import argparse
import collections
import json
import os
import random
import re
import tempfile

from support import SOURCES, answer_of, build, build_go, fail, need, run

C = ['main.c', 'table.c']
CXX = ['main.cpp', 'square.cpp', 'circle.cpp']

# name: compiler, flags, sources, and what proves that the flags had their effect (a key of PROOFS). Versions and ways of
# storing meet each compiler and each language, not each pair of them.
CONFIGURATIONS = {
    **{f'{compiler}-{language}-dwarf{version}-{level}':
       (compiler, [f'-gdwarf-{version}', f'-{level}'], C if language == 'c' else CXX, f'version{version}')
       for compiler, language, version, level in (
           ('gcc', 'c', 2, 'O2'), ('gcc', 'c', 4, 'O0'), ('clang', 'c', 3, 'O0'), ('clang', 'c', 4, 'O2'),
           ('g++', 'cpp', 3, 'O0'), ('g++', 'cpp', 4, 'O2'), ('clang++', 'cpp', 2, 'O2'), ('clang++', 'cpp', 4, 'O2'))},
    **{f'{compiler}-{name}': (compiler, ['-gdwarf-4', *flags], C if compiler in ('gcc', 'clang') else CXX, proof)
       for name, flags, proof, compilers in (
           ('m32-O2', ['-m32', '-O2'], '32-bit', ('gcc', 'clang++')),
           ('dwarf64', ['-gdwarf64', '-O1'], 'dwarf64', ('gcc', 'clang++')),
           ('gz-zlib', ['-gz=zlib', '-O1'], 'compressed', ('clang', 'g++')),
           ('gz-gnu', ['-gz=zlib-gnu', '-O1'], 'zdebug', ('g++',)),
           ('shared', ['-shared', '-fPIC', '-O1'], 'version4', ('clang', 'g++')),
           # Functions that nobody calls are dropped; circle.cpp has two, main.c and the others none or one.
           ('gc', ['-ffunction-sections', '-Wl,--gc-sections', '-O0'], 'one unit refused', ('g++', 'clang++')))
       for compiler in compilers},
    'gcc-object': ('gcc', ['-gdwarf-4', '-c'], ['table.c'], 'version4'),
    'clang-object-m32': ('clang', ['-gdwarf-4', '-c', '-m32'], ['table.c'], 'version4'),
    'gcc-static': ('gcc', ['-gdwarf-4', '-static', '-O2'], C, 'version4'),
    'go': ('go', [], None, 'zlib'),
}
PROOFS = {
    '32-bit': lambda facts: 'ELF32' in facts['headers'],
    'dwarf64': lambda facts: all(unit['dwarf64'] for unit in facts['units']),
    'compressed': lambda facts: re.search(r'\.debug_line .* MSC|\.debug_line .* C ', facts['headers']),
    'zdebug': lambda facts: '.zdebug_line' in facts['headers'],
    'zlib': lambda facts: re.search(r'\.zdebug_line|\.debug_line .* C ', facts['headers']),
    'one unit refused': lambda facts: len(facts['refused']) == 1,  # without the loader's corrections
    **{f'version{n}': lambda facts, n=n: {unit['version'] for unit in facts['units']} == {n} for n in (2, 3, 4)},
}


def build_rust(program):
    need('rustc')
    answer_of('rustc', '-g', os.path.join(SOURCES, 'main.rs'), '-o', program)


def build_dwz(program, *more):
    need('dwz')
    build('g++', ['-gdwarf-4', '-O2'], CXX, program)
    answer_of('dwz', *more, program, cwd=os.path.dirname(program))


def build_dwz_multifile(program):
    need('dwz')
    build('clang++', ['-gdwarf-4', '-O1'], CXX, f'{program}.other')
    build_dwz(program, '-m', 'shared.debug', f'{program}.other')


def build_separate(program):
    """The program without its debugging information, which stands beside it."""
    build('g++', ['-gdwarf-4', '-O2', '-Wl,--build-id=none'], CXX, program)
    answer_of('objcopy', '--only-keep-debug', program, f'{program}.debug')
    answer_of('strip', program)
    answer_of('objcopy', f'--add-gnu-debuglink={program}.debug', program)


# name: how it is built, and the pass that must have corrected something (None: a debug file is read)
CORRECTED = {
    'rust': (build_rust, 'line-sequences'),
    'g++-lto': (lambda program: build('g++', ['-gdwarf-4', '-O2', '-flto'], CXX, program), 'forms'),
    'clang++-ranges': (lambda program: build('clang++', ['-gdwarf-4', '-O2', '-ffunction-sections'], CXX, program),
                       'ranges'),
    'dwz': (build_dwz, None),
    'dwz-multifile': (build_dwz_multifile, 'alternate-strings'),
    'separate': (build_separate, None),
}

Row = collections.namedtuple('Row', 'address line column path isa discriminator flags canonical')
FLAGS = ('is_stmt', 'basic_block', 'end_sequence', 'prologue_end', 'epilogue_begin')


def expect_equal(what, ours, theirs):
    """Fails with the first difference of two lists."""
    for number, (mine, other) in enumerate(zip(ours, theirs)):
        if mine != other:
            fail(f'{what}, answer {number}:\n  korva: {mine}\n  other: {other}')
    if len(ours) != len(theirs):
        fail(f'{what}: {len(ours)} answers, the other reader has {len(theirs)}')


# --- units ----------------------------------------------------------------------------------------------------

def read_units(program):
    """The units as readelf shows them: what `korva units` says, and the offset of the line table."""
    text = answer_of('readelf', '--debug-dump=info', '--dwarf-depth=1', program)
    units = []
    for part in re.split(r'^  Compilation Unit @ offset ', text, flags=re.M)[1:]:
        length, bits = re.search(r'^   Length: +(\S+) \((\d+)-bit\)', part, re.M).groups()

        def attribute(name, entry=part):
            found = re.search(rf'{name} +: (?:\([^)]*offset: \S+\): )?(.*?)\t?$', entry, re.M)
            return found.group(1) if found else None

        units.append({'offset': hex(int(part.split(':')[0], 0)),
                      'version': int(re.search(r'^   Version: +(\d+)', part, re.M).group(1)),
                      'size': int(length, 0) + (12 if bits == '64' else 4),
                      'dwarf64': bits == '64',
                      **{name: attribute('DW_AT_' + name) for name in ('name', 'comp_dir', 'producer')},
                      'stmt_list': int(attribute('DW_AT_stmt_list'), 0) if attribute('DW_AT_stmt_list') else None})
    return units


def compare_units(korva, program, units):
    ours = run(korva, 'units', '--format=jsonl', program)
    expect_equal('units', [json.loads(line) for line in ours.out.splitlines()],
                 [{key: value for key, value in unit.items() if key != 'stmt_list'} for unit in units])
    if ours.status != 0 or ours.err:
        fail(f'units: status {ours.status}, {ours.err}')


# --- lines ----------------------------------------------------------------------------------------------------

def read_tables(program, units):
    """The line tables as llvm-dwarfdump shows them: offset of a unit to its rows."""
    text = answer_of('llvm-dwarfdump', '--debug-line', program)
    parts = re.split(r'^debug_line\[(0x[0-9a-f]+)\]\n', text, flags=re.M)
    by_offset = {int(offset, 16): part for offset, part in zip(parts[1::2], parts[2::2])}
    return {unit['offset']: read_table(by_offset[unit['stmt_list']], unit['comp_dir'] or '') for unit in units
            if unit['stmt_list'] is not None}


def read_table(text, comp_dir):
    folders = [''] + re.findall(r'^include_directories\[ *\d+\] = "(.*)"$', text, re.M)
    # os.path.join drops what stands before an absolute part, as DWARF 4, 6.2.4 wants it.
    paths = [None] + [os.path.join(comp_dir, folders[int(folder)], name) for name, folder in
                      re.findall(r'^ +name: "(.*)"\n +dir_index: (\d+)$', text, re.M)]
    rows, lowest = [], {}
    for line in re.findall(r'^0x[0-9a-f]{8,}.*$', text, re.M):
        address, number, column, file, isa, discriminator, *flags = line.split()
        rows.append([int(address, 16), int(number), int(column), int(file), int(isa), int(discriminator), set(flags)])
        key = (int(file), int(number))
        lowest[key] = min(lowest.get(key, rows[-1][0]), rows[-1][0])
    return [Row(address, number, column, paths[file] if 0 < file < len(paths) else None, isa, discriminator,
                flags, lowest[file, number])
            for address, number, column, file, isa, discriminator, flags in rows]


def sequences(rows):
    """(start, end) of every sequence, ascending."""
    found, start = [], None
    for row in rows:
        start = row.address if start is None else start
        if 'end_sequence' in row.flags:
            found.append((start, row.address))
            start = None
    return sorted(found)


def overlaps(rows):
    """Whether sequences overlap: the library refuses such a unit, as one whose dropped functions all lie at 0."""
    spans = sequences(rows)
    return any(after[0] < before[1] for before, after in zip(spans, spans[1:]))


def raw_when(refused):
    """What the loader leaves out of a unit is in other readers' tables: those are compared uncorrected."""
    return ['--raw'] if refused else []


def compare_lines(korva, program, tables, refused):
    ours = run(korva, 'lines', '--format=jsonl', *raw_when(refused), program)
    by_unit = collections.defaultdict(list)
    for line in ours.out.splitlines():
        record = json.loads(line)
        by_unit[record['unit']].append(
            Row(int(record['address'], 16), record['line'] or 0, record['column'] or 0, record['file'], record['isa'],
                record['discriminator'], {flag for flag in FLAGS if record[flag]},
                int(record['canonical_address'], 16)))
    for offset, rows in tables.items():
        expect_equal(f'rows of unit {offset}', by_unit[offset], [] if offset in refused else rows)
    expect_refusals('lines', ours, refused)
    if not any(by_unit.values()):
        fail('lines: no row has been compared')


def expect_refusals(what, ours, refused):
    """The diagnostics are those of the refused units, once each, and nothing else."""
    told = re.findall(r'^korva: .*: line table of unit at offset (0x[0-9a-f]+): matrix contains overlapping sequences '
                      r'\(.*\); .*$', ours.err, re.M)
    if sorted(told) != sorted(refused) or len(told) != len(ours.err.splitlines()):
        fail(f'{what}: units {sorted(refused)} have overlapping sequences, but the diagnostics are:\n{ours.err}')
    if refused and ours.status != 1:
        fail(f'{what}: status {ours.status} with a refused unit')


# --- addr -----------------------------------------------------------------------------------------------------

def read_functions(program):
    """(address, size, name) of every function in a section, as readelf shows the symbols."""
    text = answer_of('readelf', '-sSW', program)
    spans = [(int(start, 16), int(start, 16) + int(size, 16)) for start, size in
             re.findall(r'^  \[ *\d+\] \S+ +(?:PROGBITS|NOBITS) +([0-9a-f]+) [0-9a-f]+ ([0-9a-f]+)', text, re.M)]
    functions = {(int(value, 16), int(size, 0), name) for value, size, name in
                 re.findall(r'^ +\d+: ([0-9a-f]+) +(\d+|0x[0-9a-f]+) I?FUNC +\S+ +\S+ +\d+ (\S+)$', text, re.M)}
    # Go has symbols that mark the end of a section, behind its last byte.
    return sorted(f for f in functions if any(low <= f[0] < high for low, high in spans))


def sample_addresses(functions):
    """Every address of a small program; of a larger one each function's first and last and some between. They jump
    about, by a fixed seed."""
    source = random.Random(len(functions))
    found = {start for start, _, _ in functions}
    small = sum(size for _, size, _ in functions) < 8000
    for start, size, _ in functions:
        inner = range(start, start + size) if small else [start + source.randrange(size) for _ in range(4) if size != 0]
        found.update(inner)
        found.add(start + max(size, 1) - 1)
    addresses = sorted(found)
    source.shuffle(addresses)
    return addresses


# Parts of a function that the compiler split off: their symbols have the function's name and one of these.
SPLIT = re.compile(r'(\.cold|\.part\.\d+|\.constprop\.\d+|\.isra\.\d+)+$')


# Names that are demangled as those of C++, or not at all.
RUST = re.compile(r'^_R|::h[0-9a-f]{16}$')


class Names:
    """Which function name is right where addr2line does not name the symbol that holds the code."""

    def __init__(self, program, functions, addresses):
        self.functions = functions
        text = answer_of('addr2line', '-afi', '-e', program, text=''.join(f'{a:x}\n' for a in addresses))
        # Lines of an answer: the address, then function and place of every inlined frame, the innermost first.
        self.inlined = {int(answer.split('\n')[0], 16) for answer in re.split(r'^0x', text, flags=re.M)[1:]
                        if len(answer.splitlines()) > 3}
        self.split = {SPLIT.sub('', name) for _, _, name in functions if SPLIT.search(name)}
        self.same = set()  # addresses whose names are the same

    def holders(self, address):
        """The symbols that hold the address."""
        return {name for start, size, name in self.functions if start <= address < start + max(size, 1)}

    def agree(self, address, ours, theirs):
        """ours is right when it is the same name, and it may differ for three reasons only:
        aliases, of which one is as good as another; code inlined from another function, whose name the entries know
        and the symbols do not (addr2line even changes its answer when asked twice); functions that have split-off
        parts, for which addr2line takes the entry's plain name once it has been asked for such a part."""
        if ours == theirs:
            self.same.add(address)
            return True
        holders = self.holders(address)
        return ours in holders and (theirs in holders or address in self.inlined or SPLIT.sub('', ours) in self.split)


def compare_addresses(korva, program, tables, debug_file=None):
    """Nothing is refused here: the loader corrects what would be. debug_file: where readelf finds the symbols."""
    functions = read_functions(debug_file or program)
    addresses = sample_addresses(functions)
    names = Names(program, functions, addresses)
    text = ''.join(f'{a:#x}\n' for a in addresses)
    read = [span for rows in tables.values() for span in sequences(rows)]
    has_line = {a for a in addresses if any(start <= a < end for start, end in read)}

    for flags in (['-f'], ['-afpsC']):
        ours = run(korva, 'addr', '--format=gnu', '-e', program, *flags, text=text)
        theirs = answer_of('addr2line', '-e', program, *flags, text=text)
        per_answer = 1 if flags == ['-afpsC'] else 2
        mine, others = ours.out.splitlines(), theirs.splitlines()
        if not len(mine) == len(others) == per_answer * len(addresses):
            fail(f'addr {flags}: {len(mine)} lines, addr2line has {len(others)}')
        unknown = 0
        for number, address in enumerate(addresses):
            answer = mine[per_answer * number:per_answer * (number + 1)]
            other = others[per_answer * number:per_answer * (number + 1)]
            place = compare_answer(flags, names, address, answer, other, address in has_line)
            unknown += place.endswith(':?')
        if not unknown < len(addresses):
            fail(f'addr {flags}: no address has a line')
        if ours.status != (1 if unknown else 0):
            fail(f'addr {flags}: status {ours.status} with {unknown} of {len(addresses)} addresses unknown')
        if ours.err:
            fail(f'addr {flags}: {ours.err}')
    if len(names.same) < len(functions):
        fail(f'only {len(names.same)} function names are those of addr2line')
    compare_arguments(korva, program, addresses[:20])
    print(f'{len(addresses)} addresses in {len(functions)} functions, {len(names.inlined)} of them in inlined code')


def compare_answer(flags, names, address, answer, other, has_line):
    """Compares the answer to one address; the lines of the answer are given. The place it names."""
    if flags == ['-afpsC']:
        pattern = re.compile(r'(0x[0-9a-f]+): (.*) at (.*)$')
        ours, theirs = pattern.match(answer[0]), pattern.match(other[0])
        if not ours or not theirs:
            fail(f'addr {flags} {address:#x}:\n  korva: {answer}\n  addr2line: {other}')
        answer, other = ours.groups(), theirs.groups()
    *ours, place = answer
    *theirs, expected = other
    # Without a line addr2line still names a file for local symbols ("crtstuff.c:?"), from the symbol table.
    if not has_line:
        expected = '??:?'
    same_place = place == expected
    if 'C' in flags[-1] and RUST.search(ours[-1]):
        same_name = True
    elif address in names.same:  # -f came first: the same symbol has the same C++ name
        same_name = ours[-1] == theirs[-1]
    else:
        same_name = 'C' in flags[-1] or names.agree(address, ours[-1], theirs[-1])
    same_address = flags == ['-f'] or ours[0] == theirs[0]
    if not (same_place and same_name and same_address):
        fail(f'addr {flags} {address:#x}:\n  korva: {answer}\n  addr2line: {other}')
    return place


def compare_arguments(korva, program, addresses):
    """Addresses as arguments, and as offsets into a section, are the same questions."""
    text = answer_of('readelf', '-SW', program)
    start, size = (int(n, 16) for n in re.search(r' \.text +PROGBITS +(\S+) \S+ (\S+)', text).groups())
    inside = [a for a in addresses if start <= a < start + size]
    as_addresses = run(korva, 'addr', '-e', program, '--format=gnu', '-f', *(f'{a:x}' for a in inside))
    as_offsets = run(korva, 'addr', '-e', program, '--format=gnu', '-f', '-j', '.text',
                     *(f'{a - start:#x}' for a in inside))
    if not inside or as_addresses.out != as_offsets.out:
        fail(f'addr -j .text:\n{as_offsets.out}but without -j:\n{as_addresses.out}')


def compare_corrected(korva, make, correction):
    with tempfile.TemporaryDirectory() as folder:
        program = os.path.join(folder, 'program')
        make(program)
        debug_file = f'{program}.debug' if os.path.exists(f'{program}.debug') else None
        sections = [json.loads(line) for line in answer_of(korva, 'sections', '--format=jsonl', program).splitlines()]
        corrections = {note['pass'] for section in sections for note in section['notes']}
        if correction is not None and correction not in corrections:
            fail(f'nothing was corrected by {correction}, only by {corrections}')
        if debug_file and {section['debug_file'] for section in sections} != {os.path.realpath(debug_file)}:
            fail(f'the debug file was not read: {sections}')
        compare_addresses(korva, program, read_tables(debug_file or program, read_units(debug_file or program)),
                          debug_file)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--list', action='store_true')
    parser.add_argument('--korva')
    parser.add_argument('configuration', nargs='?')
    options = parser.parse_args()
    if options.list:
        print('\n'.join([*CONFIGURATIONS, *CORRECTED]))
        return
    need('addr2line', 'readelf', 'llvm-dwarfdump')
    if options.configuration in CORRECTED:
        compare_corrected(options.korva, *CORRECTED[options.configuration])
        return
    compiler, flags, sources, proof = CONFIGURATIONS[options.configuration]
    with tempfile.TemporaryDirectory() as folder:
        program = os.path.join(folder, 'program')
        if compiler == 'go':
            build_go(flags, program)
        else:
            build(compiler, flags, sources, program)
        units = read_units(program)
        tables = read_tables(program, units)
        refused = {offset for offset, rows in tables.items() if overlaps(rows)}
        facts = {'units': units, 'refused': refused, 'headers': answer_of('readelf', '-hSW', program)}
        if not PROOFS[proof](facts):
            fail(f'{compiler} {flags} did not give what is to be tested ({proof})')
        compare_units(options.korva, program, units)
        compare_lines(options.korva, program, tables, refused)
        compare_addresses(options.korva, program, tables)
        print(f'{len(units)} units, {sum(len(rows) for rows in tables.values())} rows, {len(refused)} refused')


main()
