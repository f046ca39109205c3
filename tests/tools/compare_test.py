#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the program against independent readers, on a program that a compiler has just built.

  compare_test.py --list                         the configurations
  compare_test.py --korva PROGRAM CONFIGURATION  builds it and compares
        addr             with GNU addr2line, byte for byte, for every function and addresses within; of DWARF 5 the
                         places with llvm-dwarfdump's rows; inlined calls with llvm-symbolizer
        units            with GNU readelf
        entries          with GNU readelf, where there are fewer than 200 KB of them: tag, depth, attributes, values
        check            finds no fault
        lines            with llvm-dwarfdump, row by row; paths and canonical addresses are computed here, and the rows
                         of functions that the linker dropped left out
"""
import argparse
import bisect
import collections
import functools
import json
import math
import os
import random
import re
import shutil
import tempfile

from support import SOURCES, answer_of, build, build_go, fail, need, run, skip

C = ['main.c', 'table.c']
CXX = ['main.cpp', 'square.cpp', 'circle.cpp']


def compiled(compiler, *flags, sources=None):
    """How a compiler builds it: sources of its language."""
    sources = sources or (C if compiler in ('gcc', 'clang') else CXX)
    return lambda program: build(compiler, flags, sources, program)


def build_rust(*flags):
    def make(program):
        need('rustc')
        answer_of('rustc', '-g', *flags, os.path.join(SOURCES, 'main.rs'), '-o', program)
    return make


def build_d(*flags):
    def make(program):
        need('ldc2')
        answer_of('ldc2', '-g', *flags, '-link-defaultlib-shared', 'main.d', f'-of={program}',
                  f'-od={os.path.dirname(program)}', cwd=SOURCES)
    return make


def build_dwz(version, *more):
    def make(program):
        need('dwz')
        compiled('g++', f'-gdwarf-{version}', '-O2')(program)
        shutil.copy(program, f'{program}.whole')  # for readers that do not follow what dwz makes
        if more:  # dwz knows not all forms of clang's version 5
            compiled('clang++' if version == 4 else 'g++', f'-gdwarf-{version}', '-O1')(f'{program}.other')
        answer_of('dwz', *more, program, *([f'{program}.other'] if more else []), cwd=os.path.dirname(program))
    return make


def build_separate(program):
    """The program without its debugging information, which stands beside it."""
    compiled('g++', '-g', '-O2', '-Wl,--build-id=none')(program)
    answer_of('objcopy', '--only-keep-debug', program, f'{program}.debug')
    answer_of('strip', program)
    answer_of('objcopy', f'--add-gnu-debuglink={program}.debug', program)


def find_packaged(library):
    """A library of the system, with what a package of the distribution says of it."""
    def make(program):
        file = os.path.realpath(library)
        build_id = re.search(r'Build ID: (\w+)|$', answer_of('readelf', '-n', file))[1] or '--'
        debug_file = f'/usr/lib/debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug'
        if not os.path.exists(debug_file):
            skip(f'{debug_file} is not installed')
        os.symlink(file, program)
        os.symlink(debug_file, f'{program}.debug')
    return make


def build_zstd(program):
    compiled('gcc', '-g', '-O1')(f'{program}.plain')
    if run('objcopy', '--compress-debug-sections=zstd', f'{program}.plain', program).status != 0:
        skip('objcopy knows no zstd')


# name: how it is built, and what proves that the flags had their effect (a key of PROOFS). Versions and ways of storing
# meet each compiler and each language, not each pair of them.
CONFIGURATIONS = {
    **{f'{compiler}-dwarf{version}-{level}': (compiled(compiler, f'-gdwarf-{version}', f'-{level}'), f'version{version}')
       for compiler, version, level in (
           ('gcc', 2, 'O2'), ('gcc', 4, 'O0'), ('clang', 3, 'O0'), ('clang', 4, 'O2'), ('g++', 3, 'O0'), ('g++', 4, 'O2'),
           ('clang++', 2, 'O2'), ('clang++', 4, 'O2'))},
    **{f'{compiler}-{level}': (compiled(compiler, '-g', f'-{level}'), 'version5')
       for compiler, level in (('gcc', 'O0'), ('gcc', 'O2'), ('clang', 'O0'), ('clang', 'O2'), ('g++', 'O0'),
                               ('g++', 'O2'), ('clang++', 'O0'), ('clang++', 'O2'))},
    **{f'{compiler}-{name}': (compiled(compiler, *flags), proof)
       for name, flags, proof, compilers in (
           ('g1', ['-g1', '-O2'], 'version5', ('gcc', 'clang++')),
           ('m32', ['-g', '-m32', '-O2'], '32-bit', ('gcc', 'clang++')),
           ('dwarf64', ['-gdwarf-5', '-gdwarf64', '-O1'], 'dwarf64', ('gcc', 'clang++')),
           ('dwarf64-4', ['-gdwarf-4', '-gdwarf64', '-O1'], 'dwarf64', ('g++',)),
           ('gz', ['-g', '-gz=zlib', '-O1'], 'compressed', ('clang', 'g++')),
           ('gz-gnu', ['-gdwarf-4', '-gz=zlib-gnu', '-O1'], 'zdebug', ('g++',)),
           ('shared', ['-g', '-shared', '-fPIC', '-O1'], 'version5', ('clang', 'g++')),
           ('lto', ['-g', '-O2', '-flto'], 'version5', ('g++',)),
           ('lto', ['-g', '-O2', '-flto', '-fuse-ld=lld'], 'version5', ('clang',)),
           ('lto-4', ['-gdwarf-4', '-O2', '-flto'], 'version4', ('g++',)),
           ('sections', ['-gdwarf-4', '-O2', '-ffunction-sections'], 'version4', ('clang++',)),
           ('types', ['-g', '-fdebug-types-section'], 'types', ('g++', 'clang++')),
           ('types-4', ['-gdwarf-4', '-fdebug-types-section'], 'version4', ('g++',)),
           ('split', ['-g', '-O1', '-gsplit-dwarf'], 'skeleton', ('gcc', 'clang++')),
           ('split-4', ['-gdwarf-4', '-O1', '-gsplit-dwarf'], 'skeleton', ('gcc', 'clang')),
           ('names', ['-gdwarf-5', '-gpubnames', '-O1', '-fuse-ld=lld'], 'names', ('clang++',)),
           ('gdb-index', ['-gdwarf-4', '-ggnu-pubnames', '-fuse-ld=lld', '-Wl,--gdb-index'], 'gdb-index', ('g++',)),
           # Functions that nobody calls are dropped.
           ('gc', ['-g', '-ffunction-sections', '-Wl,--gc-sections', '-O0'], 'dropped', ('g++', 'clang++')),
           ('gc-4', ['-gdwarf-4', '-ffunction-sections', '-Wl,--gc-sections', '-O0'], 'dropped', ('g++', 'clang++')))
       for compiler in compilers},
    'gcc-object': (compiled('gcc', '-g', '-c', sources=['table.c']), 'relocated'),
    'clang-object': (compiled('clang', '-g', '-c', sources=['table.c']), 'relocated'),
    'clang-object-m32': (compiled('clang', '-gdwarf-4', '-c', '-m32', sources=['table.c']), 'relocated'),
    'gcc-static': (compiled('gcc', '-g', '-static', '-O2'), 'version5'),
    'go': (lambda program: build_go([], program), 'zlib'),
    'rust': (build_rust(), 'version4'),
    'rust-dwarf5': (build_rust('-Cdwarf-version=5'), 'dropped'),
    'ldc': (build_d(), 'version4'),
    'ldc-dwarf5': (build_d('-O2', '-dwarf-version=5'), 'version5'),
    'dwz': (build_dwz(4), 'partial'),
    'dwz-dwarf5': (build_dwz(5), 'partial'),
    'dwz-multifile': (build_dwz(4, '-m', 'shared.debug'), 'alternate'),
    'dwz-multifile-5': (build_dwz(5, '-5', '-m', 'shared.debug'), 'alternate'),
    'libc6-dbg': (find_packaged('/lib64/ld-linux-x86-64.so.2'), 'separate'),
    'separate': (build_separate, 'separate'),
    'zstd': (build_zstd, 'compressed'),
}
PROOFS = {
    '32-bit': lambda facts: 'ELF32' in facts.headers,
    'dwarf64': lambda facts: all(unit['dwarf64'] for unit in facts.units),
    'names': lambda facts: '.debug_names' in facts.headers,
    'gdb-index': lambda facts: '.gdb_index' in facts.headers,
    'compressed': lambda facts: re.search(r'\.debug_line .* MSC|\.debug_line .* C ', facts.headers),
    'zdebug': lambda facts: '.zdebug_line' in facts.headers,
    'zlib': lambda facts: re.search(r'\.zdebug_line|\.debug_line .* C ', facts.headers),
    'dropped': lambda facts: any(facts.dropped.values()),
    'alternate': lambda facts: any(section['alternate'] for section in facts.sections),
    'separate': lambda facts: {section['debug_file'] for section in facts.sections} == {
        os.path.realpath(facts.debug_file)},
    'relocated': lambda facts: any(section['state'] == 'relocated' for section in facts.sections),
    **{kind: lambda facts, kind=kind: any(unit['type'] == kind for unit in facts.units)
       for kind in ('partial', 'skeleton')},
    'types': lambda facts: any(unit['type'] == 'type' for unit in facts.units),
    **{f'version{n}': lambda facts, n=n: n in {unit['version'] for unit in facts.units} for n in (2, 3, 4, 5)},
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

def read_indexed(program):
    """Attributes of units' entries by the offset of the unit, as llvm-dwarfdump shows them: readelf 2.40 takes indexed
    strings from the wrong place."""
    text = answer_of('llvm-dwarfdump', '--debug-info', '--recurse-depth=0', program)
    return {int(offset, 16): dict(re.findall(r'^ +(DW_AT_\w+)\t\("(.*)"\)$', entry, re.M))
            for offset, entry in re.findall(r'^(0x[0-9a-f]+): Compile Unit:(.*?)(?=^0x[0-9a-f]+: [CT]|\Z)', text, re.M | re.S)}


def read_units(program):
    """The units as readelf shows them: what `korva units` says, and the offset of the line table."""
    text = answer_of('readelf', '--debug-dump=info', '--dwarf-depth=1', program)
    # Not what stands in other sections, nor in other files.
    text = ''.join(part for part in re.split(r'^Contents of the ', text, flags=re.M)
                   if re.match(rf'\S+info section(:| \(loaded from {re.escape(program)}\):)', part))
    indexed = read_indexed(program) if '(indexed string' in text or '<indirect index offset' in text else {}
    units = []
    for part in re.split(r'^  Compilation Unit @ offset ', text, flags=re.M)[1:]:
        offset = int(part.split(':')[0], 0)
        length, bits = re.search(r'^   Length: +(\S+) \((\d+)-bit\)', part, re.M).groups()

        def attribute(name, entry=part, known=indexed.get(offset, {})):
            found = re.search(rf'{name} *: (?:\([^)]*offset: [^ )]+\):? )?(.*?)\t?$', entry, re.M)
            return known.get(name, found.group(1)) if found else None

        split_file = attribute('DW_AT_dwo_name') or attribute('DW_AT_GNU_dwo_name')
        kind = re.search(r'Unit Type: +DW_UT_(\w+)|$', part).group(1) or 'compile'
        units.append({'offset': hex(offset),
                      'version': int(re.search(r'^   Version: +(\d+)', part, re.M).group(1)),
                      'type': 'skeleton' if split_file else 'partial' if '(DW_TAG_partial_unit)' in part else kind,
                      'size': int(length, 0) + (12 if bits == '64' else 4),
                      'dwarf64': bits == '64',
                      **{name: attribute('DW_AT_' + name) for name in ('name', 'comp_dir', 'producer')},
                      'split_file': split_file,
                      'stmt_list': int(attribute('DW_AT_stmt_list'), 0) if attribute('DW_AT_stmt_list') else None})
    return units


def compare_units(korva, program, units):
    ours = run(korva, 'units', '--format=jsonl', program)
    theirs = [{'v': 1, 'status': 'ok', 'error': None, **{key: value for key, value in unit.items() if key != 'stmt_list'}}
              for unit in units]
    expect_equal('units', [json.loads(line) for line in ours.out.splitlines()], theirs)
    if ours.status != 0 or ours.err:
        fail(f'units: status {ours.status}, {ours.err}')


# --- entries --------------------------------------------------------------------------------------------------

# How readelf introduces what it looked up; indexed strings it takes from the wrong place.
LOOKED_UP = re.compile(r'\((?:alt )?indirect (?:line )?string, offset: \w+\):? |\(\w+: \w+\): |signature: ')

# Names that binutils has of its own.
TAGS = {f'DW_TAG_template_{kind}_param': f'DW_TAG_template_{kind}_parameter' for kind in ('type', 'value')}


def read_entries(program):
    """Offset, depth and tag of every entry of the file itself, each with the names and values of its attributes."""
    text = answer_of('readelf', '--debug-dump=info', program)
    text = next(part for part in re.split(r'^Contents of the ', text, flags=re.M) if re.match(r'\S+info section', part))
    parts = re.split(r'^ <(\w+)><(\w+)>: Abbrev Number: \d+ \((\w+)\)$', text, flags=re.M)
    return [(int(offset, 16), int(depth), TAGS.get(tag, tag), re.findall(r'^    <\w+>   (DW_AT_\w+) *: ?(.*?)\t?$', rest, re.M))
            for depth, offset, tag, rest in zip(*(parts[i::4] for i in range(1, 5)))]


def is_same_value(attribute, text):
    """Whether readelf shows the value of an attribute so."""
    value, kind = attribute['value'], attribute['kind']
    if text.startswith('(indexed string'):
        return kind == 'string'
    if '_sup' in attribute['form']:  # of these readelf counts references from the unit, and strings it does not look up
        return kind == 'string' or attribute['alternate']
    text = LOOKED_UP.sub('', text, count=1)
    if kind == 'string':
        return value == text
    if text.startswith('\t(DW_OP_addrx <'):  # it does not show these bytes
        return value.startswith('a1 ') and len(attribute['operations']) == 1
    if kind in ('block', 'expression'):
        size, digits = re.match(r'(\d+) byte block: ([0-9a-f ]*)', text).groups()
        return [int(byte, 16) for byte in value.split()] == [int(byte, 16) for byte in digits.split()[:int(size)]]
    number = int(re.match(r'<?(?:alt )?(-?\w+)', text).group(1), 0)
    ours = int(value, 0) if isinstance(value, str) else int(value)
    return (number - ours) % 2**64 == 0 and attribute.get('alternate', False) == text.startswith('<alt')


def compare_entries(korva, program, other):
    ours = [json.loads(line) for line in answer_of(korva, 'entries', '--format=jsonl', program).splitlines()]
    theirs = read_entries(other)
    expect_equal('entries', [(int(entry['offset'], 16), entry['depth'], entry['tag'],
                              [attribute['name'] for attribute in entry['attributes']]) for entry in ours],
                 [(*entry[:3], [name for name, _ in entry[3]]) for entry in theirs])
    for entry, other in zip(ours, theirs):
        for attribute, (_, text) in zip(entry['attributes'], other[3]):
            if not is_same_value(attribute, text):
                fail(f'entry {entry["offset"]}: {attribute}, but readelf: {text}')


def compare_functions(korva, program, symbols):
    """The ranges of functions are those of symbols, and so are their names as far as they have them."""
    named = collections.defaultdict(set)
    for start, size, name in symbols:
        named[start, start + size].add(SPLIT.sub('', name))
    functions = [json.loads(line) for line in answer_of(korva, 'funcs', '--format=jsonl', program).splitlines()]
    for function in functions:
        for part in function['ranges']:
            names = named[int(part['start'], 16), int(part['end'], 16)]
            if not names or (function['linkage_name'] and function['linkage_name'] not in names):
                fail(f'funcs: {function}, symbols: {names}')
    if not functions:
        fail('funcs: none')
    compare_named(korva, program, functions)


def compare_named(korva, program, functions):
    """What the file's own indexes list is what a walk of all entries finds, which knows nothing of them."""
    asked = collections.defaultdict(list)
    for function in functions:
        for name in {function['name'], function['linkage_name']} - {None}:
            asked[name].append(function)
    for name in random.Random(1).sample(sorted(asked), min(len(asked), 12)):
        for flags in ((), ('--indexed',)):
            answers = answer_of(korva, 'funcs', '--format=jsonl', *flags, program, name).splitlines()
            expect_equal(f'functions {name} {flags}', [json.loads(line) for line in answers], asked[name])


# --- lines ----------------------------------------------------------------------------------------------------

def read_tables(program, units):
    """The line tables as llvm-dwarfdump shows them: offset of a unit to its rows."""
    text = answer_of('llvm-dwarfdump', '--debug-line', program)
    parts = re.split(r'^debug_line\[(0x[0-9a-f]+)\]\n', text, flags=re.M)
    by_offset = {int(offset, 16): part for offset, part in zip(parts[1::2], parts[2::2])}
    return {unit['offset']: read_table(by_offset[unit['stmt_list']], unit['comp_dir'] or '') for unit in units
            if unit['stmt_list'] is not None}


@functools.lru_cache(maxsize=1)  # units of types have that of the unit before
def read_table(text, comp_dir):
    folders = re.findall(r'^include_directories\[ *\d+\] = "(.*)"$', text, re.M)
    files = re.findall(r'^ +name: "(.*)"\n +dir_index: (\d+)$', text, re.M)
    if int(re.search(r'^ +version: (\d+)$', text, re.M).group(1)) < 5:  # they are counted from 1
        folders.insert(0, '')
    # os.path.join drops what stands before an absolute part, as DWARF 4, 6.2.4 wants it.
    paths = [os.path.join(comp_dir or folders[0], folders[int(folder)], name) for name, folder in files]
    if folders[0] == '':
        paths.insert(0, None)
    rows = []
    for line in re.findall(r'^0x[0-9a-f]{8,}.*$', text, re.M):
        address, number, column, file, isa, discriminator, *flags = line.split()
        rows.append(Row(int(address, 16), int(number), int(column),
                        paths[int(file)] if int(file) < len(paths) else None, int(isa), int(discriminator), set(flags),
                        int(file)))  # in the place of the canonical address, which is found with its help
    return rows


def join(spans):
    """The same addresses in ascending order, with those joined that touch."""
    joined = []
    for start, end in sorted(spans):
        if joined and start <= joined[-1][1]:
            joined[-1] = (joined[-1][0], max(end, joined[-1][1]))
        else:
            joined.append((start, end))
    return joined


def holds(joined, address):
    number = bisect.bisect(joined, (address, math.inf))
    return number != 0 and address < joined[number - 1][1]


def read_code(headers):
    """The executable sections, those joined that touch."""
    return join((int(start, 16), int(start, 16) + int(size, 16)) for start, size in
                re.findall(r'^  \[ *\d+\] \S+ +\S+ +([0-9a-f]+) [0-9a-f]+ ([0-9a-f]+) +\d+ +[A-Z]*X', headers, re.M))


def drop_dead(rows, code):
    """The rows without sequences that are not of code, and without those that overlap an earlier one; how many were
    left out. The canonical address is the lowest of its file and line among those that are left."""
    groups, group = [], []
    for row in rows:
        group.append(row)
        if 'end_sequence' in row.flags:
            groups.append(group)
            group = []
    spans, kept = [], []
    for group in groups:
        start, end = group[0].address, group[-1].address
        number = bisect.bisect(spans, (start, end))  # they do not overlap each other
        if start < end and any(low <= start and end <= high for low, high in code) and not any(
                start < other_end and other < end for other, other_end in spans[max(number - 1, 0):number + 1]):
            spans.insert(number, (start, end))
            kept.append(group)
    lowest = {}
    for row in (row for group in kept for row in group):
        key = (row.canonical, row.line)
        lowest[key] = min(lowest.get(key, row.address), row.address)
    kept = [row._replace(canonical=lowest[row.canonical, row.line]) for group in kept for row in group]
    return kept, len(groups) - len(spans)


def sequences(rows):
    """(start, end) of every sequence, ascending."""
    found, start = [], None
    for row in rows:
        start = row.address if start is None else start
        if 'end_sequence' in row.flags:
            found.append((start, row.address))
            start = None
    return sorted(found)


@functools.lru_cache(maxsize=None)  # many units may share a table
def read_row(text):
    """The row that the fields of a record behind its unit tell."""
    record = json.loads('{' + text)
    return Row(int(record['address'], 16), record['line'] or 0, record['column'] or 0, record['file'], record['isa'],
               record['discriminator'], {flag for flag in FLAGS if record[flag]}, int(record['canonical_address'], 16))


def compare_lines(korva, program, tables):
    ours = run(korva, 'lines', '--format=jsonl', program)
    by_unit = collections.defaultdict(list)
    for line in ours.out.splitlines():
        unit, row = re.fullmatch(r'{"v":1,"status":"ok","error":null,"unit":"(0x[0-9a-f]+)",(.*)', line).groups()
        by_unit[unit].append(read_row(row))
    for offset, rows in tables.items():
        expect_equal(f'rows of unit {offset}', by_unit[offset], rows)
    if ours.err or ours.status != 0:
        fail(f'lines: status {ours.status}, {ours.err}')
    if not any(by_unit.values()):
        fail('lines: no row has been compared')


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


# Marks of parts that the compiler split off, and of a way of calling, behind the name of the function.
SPLIT = re.compile(r'(\.cold|\.part\.\d+|\.constprop\.\d+|\.isra\.\d+|\.abi0)+$')


class Chains:
    """The functions around addresses, innermost first, as llvm-symbolizer shows them: [(name, file:line:column)]."""

    def __init__(self, program, functions, addresses, is_split):
        self.functions = functions
        self.is_split = is_split
        self.same = set()  # addresses whose names are those of addr2line
        text = answer_of('llvm-symbolizer', '--inlines', '--no-demangle', '-e', program,
                         text=''.join(f'{a:#x}\n' for a in addresses))
        lines = [answer.strip('\n').split('\n') for answer in text.split('\n\n')]
        self.known = {address: list(zip(answer[::2], answer[1::2])) for address, answer in zip(addresses, lines)}
        names = {name for _, _, name in functions} | {name for calls in self.known.values() for name, _ in calls}
        mangled = sorted(name for name in names if name.startswith('_D'))  # which addr2line leaves so
        self.of_d = dict(zip(mangled, answer_of('c++filt', '-s', 'dlang', text='\n'.join(mangled)).splitlines()))

    def holders(self, address):
        """The symbols that hold the address."""
        return {name for start, size, name in self.functions if start <= address < start + max(size, 1)}

    def agrees(self, address, ours, theirs):
        """Whether ours is a right name of the innermost function, but for what marks a part that was split off:
        addr2line's, llvm-symbolizer's, or one of several symbols of the function. addr2line takes symbols for functions
        whose entries know no mangled name, or the name that was asked for before."""
        if ours == theirs:
            self.same.add(address)
        names = {theirs, self.known[address][0][0], *self.holders(address)}
        return SPLIT.sub('', ours) in {SPLIT.sub('', name) for name in names}

    def compare(self, address, frames):
        """Holds the frames of `korva addr` against these."""
        expected = self.known[address]
        if self.is_split:
            return  # what was inlined stands in other files
        if not frames or frames[0]['file'] is None and frames[0]['line'] is None:
            if len(expected) > 1:
                fail(f'addr {address:#x}: {frames}\n  llvm-symbolizer: {expected}')
            return  # it names the file of a local symbol
        ours = [(frame['linkage_name'] or frame['function'] or '??',
                 f'{frame["file"] or "??"}:{frame["line"] or 0}:{frame["column"] or 0}') for frame in frames]
        # The function that has the code it names by a symbol: of a part that was split off, or an alias.
        if ours != expected and (ours[:-1] != expected[:-1] or ours[-1][1] != expected[-1][1] or
                                 expected[-1][0] not in self.holders(address)):
            fail(f'addr {address:#x}:\n  korva: {ours}\n  llvm-symbolizer: {expected}')


class Places:
    """The places of addresses in units of DWARF 5, by the rows of llvm-dwarfdump: addr2line 2.40 counts their files
    wrongly, and reads none in the 64-bit format."""

    def __init__(self, tables):
        self.rows = []
        for rows in tables:
            group = []
            for row in rows:
                group.append(row)
                if 'end_sequence' in row.flags:
                    # A row at the end has no addresses.
                    self.rows += [(row.address, number, row) for number, row in enumerate(group)
                                  if row.address < group[-1].address or 'end_sequence' in row.flags]
                    group = []
        self.rows.sort(key=lambda entry: (entry[0], 'end_sequence' not in entry[2].flags, entry[1]))
        self.starts = [address for address, _, _ in self.rows]

    def find(self, address, base_name):
        number = bisect.bisect_right(self.starts, address)
        row = self.rows[number - 1][2] if number else None
        if row is None or 'end_sequence' in row.flags:
            return None
        path = os.path.basename(row.path) if base_name else row.path
        discriminator = f' (discriminator {row.discriminator})' if row.discriminator and row.line else ''
        return f'{path}:{row.line or "?"}{discriminator}'


def compare_addresses(korva, program, tables, places, is_split, whole, debug_file):
    """whole: what llvm-symbolizer reads; debug_file: where readelf finds the symbols."""
    functions = read_functions(debug_file or program)
    addresses = sample_addresses(functions)
    chains = Chains(whole, functions, addresses, is_split)
    text = ''.join(f'{a:#x}\n' for a in addresses)
    read = join(span for rows in tables.values() for span in sequences(rows))
    has_line = {a for a in addresses if holds(read, a)}

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
            other_answer = others[per_answer * number:per_answer * (number + 1)]
            known = places.find(address, flags == ['-afpsC'])
            place = compare_answer(flags, chains, address, answer, other_answer, known if address in has_line else '??:?')
            unknown += place.endswith(':?')
        if not unknown < len(addresses):
            fail(f'addr {flags}: no address has a line')
        if ours.status != (1 if unknown else 0):
            fail(f'addr {flags}: status {ours.status} with {unknown} of {len(addresses)} addresses unknown')
        if ours.err:
            fail(f'addr {flags}: {ours.err}')
    if len(chains.same) < len(functions):
        fail(f'only {len(chains.same)} function names are those of addr2line')
    records = run(korva, 'addr', '--format=jsonl', '-e', program, text=text).out
    inlined = 0
    for address, record in zip(addresses, records.splitlines(), strict=True):
        frames = json.loads(record)['frames']
        chains.compare(address, frames)
        inlined += len(frames) > 1
    compare_arguments(korva, program, addresses[:20])
    print(f'{len(addresses)} addresses in {len(functions)} functions, {inlined} of them in inlined code')


def compare_answer(flags, chains, address, answer, other, known):
    """Compares the answer to one address; the lines of the answer are given, and the place where another reader than
    addr2line knows it. The place it names."""
    if flags == ['-afpsC']:
        pattern = re.compile(r'(0x[0-9a-f]+): (.*) at (.*)$')
        ours, theirs = pattern.match(answer[0]), pattern.match(other[0])
        if not ours or not theirs:
            fail(f'addr {flags} {address:#x}:\n  korva: {answer}\n  addr2line: {other}')
        answer, other = ours.groups(), theirs.groups()
    *ours, place = answer
    *theirs, expected = other
    expected = re.sub('^//', '/', expected)  # a folder "/" and what is in it
    # Without a line addr2line still names a file for local symbols ("crtstuff.c:?"), from the symbol table.
    same_place = place == (known or expected)
    if 'C' in flags[-1]:  # -f came first: the same symbol has the same name
        same_name = ours[-1] == chains.of_d.get(theirs[-1], theirs[-1]) or address not in chains.same
    else:
        same_name = chains.agrees(address, ours[-1], theirs[-1])
    same_address = flags == ['-f'] or ours[0] == theirs[0]
    if not (same_place and same_name and same_address):
        fail(f'addr {flags} {address:#x}:\n  korva: {answer}\n  others: {other}, {known}')
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


Facts = collections.namedtuple('Facts', 'units dropped headers sections debug_file')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--list', action='store_true')
    parser.add_argument('--korva')
    parser.add_argument('configuration', nargs='?')
    options = parser.parse_args()
    if options.list:
        print('\n'.join(CONFIGURATIONS))
        return
    need('addr2line', 'readelf', 'llvm-dwarfdump', 'llvm-symbolizer')
    make, proof = CONFIGURATIONS[options.configuration]
    with tempfile.TemporaryDirectory() as folder:
        program = os.path.join(folder, 'program')
        make(program)
        debug_file = f'{program}.debug' if os.path.exists(f'{program}.debug') else None
        # What the others read, where they do not know how the program is stored.
        other = debug_file or (f'{program}.plain' if os.path.exists(f'{program}.plain') else program)
        units = read_units(other)
        headers = answer_of('readelf', '-hSW', program)
        sections = [json.loads(line)
                    for line in answer_of(options.korva, 'sections', '--format=jsonl', program).splitlines()]
        code, tables, dropped, before, sound = read_code(headers), {}, {}, None, None
        for offset, rows in read_tables(other, units).items():
            sound = sound if rows is before else drop_dead(rows, code)
            tables[offset], dropped[offset] = sound
            before = rows
        if not PROOFS[proof](Facts(units, dropped, headers, sections, debug_file)):
            fail(f'{options.configuration} did not give what is to be tested ({proof})')
        compare_units(options.korva, program, units)
        if sum(unit['size'] for unit in units) < 200000:
            compare_entries(options.korva, program, other)
            if proof != 'skeleton':  # their functions stand in other files
                compare_functions(options.korva, program, read_functions(other))
        compare_lines(options.korva, program, tables)
        answer_of(options.korva, 'check', program)  # no faults
        whole = f'{program}.whole' if os.path.exists(f'{program}.whole') else other
        places = Places(tables[unit['offset']] for unit in units if unit['version'] == 5 and unit['offset'] in tables)
        compare_addresses(options.korva, program, tables, places, proof == 'skeleton', whole, debug_file)
        print(f'{len(units)} units, {sum(len(rows) for rows in tables.values())} rows, {sum(dropped.values())} sequences '
              'left out')


main()
