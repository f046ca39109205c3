#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What `korva check` finds: single damages, each with its class and place; files that are damaged anywhere; SARIF.

  check_test.py --korva PROGRAM                            the test
  check_test.py --korva PROGRAM --mutants N FILE...        N mutants of each file, for a long run
"""
import argparse
import json
import os
import random
import re
import resource
import shutil
import tempfile

from support import answer_of, build, fail, need, run, write

# A program whose debugging information is written by hand, without a fault or a warning. Names in braces are what a damage
# changes; labels tell where it is to be found.
SOURCE = r'''
    .text
    .globl f
    .type f,@function
f:  .skip 64,0x90
f_end:
    .size f,{f_size}
    .type g,@function
g:  .cfi_startproc
    .skip 64,0x90
    .cfi_endproc
g_end:
    .size g,.-g
more_code: {more_code}
    .section .debug_str,"MS",@progbits,1
    .asciz "a.c"
    .section .debug_abbrev,"",@progbits
abbrevs:
    .uleb128 1,0x11; .byte 1; .uleb128 {name_attribute},0xe, {stmt_list},0x17, 0x11,1, 0x12,1, 0,0
a2: .uleb128 {code},0x2e; .byte {children}; .uleb128 3,8, 0x3a,{form}, 0x11,1, 0x12,1, 0x40,0x18, 0,0
a3: .uleb128 3,0x0b; .byte 0; .uleb128 0x55,0x17, 0,0
    .uleb128 4,0x34; .byte 0; .uleb128 0x49,0x13, 2,0x17, 0,0
    .uleb128 5,0x24; .byte 0; .uleb128 3,8, 0xb,0xb, 0,0
    .uleb128 6,0x34; .byte 0; .uleb128 0x49,0x20, 0,0
    .uleb128 7,0x41; .byte 1; .uleb128 0,0
a8: .uleb128 8,0x34; .byte 0; .uleb128 3,8, {second},8, 0,0
    .byte 0
    .section .debug_info,"",@progbits
unit: .long {unit_length}
1:  .value {version}; .long {abbrev_offset}; .byte 8
    .uleb128 1; .long {name}; .long {lines}; .quad f,{unit_end_pc}
sub: .uleb128 2; .asciz "f"; .byte {decl_file}; .quad {sub_low},{sub_high}; .uleb128 1; .byte {frame_base}
block: .uleb128 3; .long {ranges}
var: .uleb128 4; .long {type}-unit,{location}
    .byte 0
sub2: .uleb128 2; .asciz "g"; .byte 1; .quad {sub2_low},{sub2_high}; .uleb128 1; .byte 0x9c,0
int: .uleb128 5; .asciz "int"; .byte 4
sig: .uleb128 6; .quad {signature}
    .byte 0
unit_end:
type_unit: .long 2f-1f
1:  .value 5; .byte 2,8; .long abbrevs; .quad 0x1234; .long {type_offset}-type_unit
    .uleb128 7
long: .uleb128 5; .asciz "long"; .byte 8
    .byte 0
2:
more: {more_units}
    .section .debug_ranges,"",@progbits
list: .quad 0,{range_end},0,0
list_end:
    .section .debug_loc,"",@progbits
locs: .quad {loc_start},16; .value 1; .byte {loc_operation}; .quad 0,0
    .section .debug_line,"",@progbits
table: .long {table_length}
1:  .value {line_version}; .long 3f-2f
2:  .byte 1,1,1,-5,14,13, 0,1,1,1,1,0,0,0,1,0,0,1
    .asciz "dir"; .byte 0
file1: .asciz "a.c"; .uleb128 {directory},0,0; .byte 0
3:  .byte 0,9,2; .quad f; .byte 3,9
row: .byte 1,2,32,4,{file}
row2: .byte 1,9; .value {advance}
row3: .byte 1,2,{to_end}
last: .byte {end_sequence}
table_end:
    .section {aranges},"",@progbits
set: .long {set_length}
1:  .value {set_version}; .long {set_unit}; .byte {address_size},0; .long 0; .quad f,{set_size},0,0
set_end:
    .section .debug_pubnames,"",@progbits
names: .long 2f-1f
1:  .value 2; .long {names_unit},unit_end-unit
name: .long {names_entry}-unit; .asciz "f"; .long 0
2:
    .section .debug_names,"",@progbits
index: .long 9f-1f
1:  .value {index_version},0; .long 1,0,0,1,1,6f-5f,0
units: .long {index_unit}
bucket: .long {bucket}
hash: .long {hash},0,0
5:  .uleb128 1,0x2e,3,0x13,0,0; .byte 0
6:
pool: .uleb128 {index_code}; .long {index_entry}-unit; .byte 0
9:
    .section .debug_frame,"",@progbits
cie: .long 2f-1f
1:  .long -1; .byte {cie_version},0; .uleb128 1; .sleb128 -8; .uleb128 16; .byte {cie_op},7,8,0x90,1,0,0
2:
fde: .long {fde_length}
1:  .long {fde_cie}; .quad f,64; .byte {fde_op},0,0,0
2:
more_frames: {more_frames}
    .section .gdb_index,"",@progbits
    .long 8,24,40,40,40,40
gdb_units: .quad {gdb_unit},unit_end-unit
'''
FIELDS = {
    'f_size': '.-f', 'code': '2', 'children': '1', 'form': '0xb', 'second': '0x25', 'unit_length': 'unit_end-1f', 'version':
    '4', 'abbrev_offset': 'abbrevs', 'name': '0', 'lines': 'table', 'unit_end_pc': 'g_end', 'decl_file': '1', 'sub_low':
    'f', 'sub_high': 'f_end', 'frame_base': '0x9c', 'ranges': 'list', 'type': 'int', 'location': 'locs', 'sub2_low': 'g',
    'sub2_high': 'g_end', 'signature': '0x1234', 'type_offset': 'long', 'more_units': '', 'range_end': '8', 'loc_start':
    '0', 'loc_operation': '0x50', 'table_length': 'table_end-1f', 'line_version': '4', 'directory': '1', 'file': '1',
    'advance': '32', 'to_end': '64', 'end_sequence': '0,1,1', 'set_length': 'set_end-1f', 'set_version': '2', 'set_unit':
    'unit', 'address_size': '8', 'set_size': '128', 'names_unit': 'unit', 'names_entry': 'sub', 'index_version': '5',
    'index_unit': 'unit', 'bucket': '1', 'index_code': '1', 'index_entry': 'sub', 'cie_version': '1', 'cie_op': '0xc',
    'fde_length': '2f-1f', 'fde_cie': 'cie', 'fde_op': '0', 'more_code': '', 'name_attribute': '3', 'stmt_list': '0x10',
    'aranges': '.debug_aranges', 'hash': '0xb8855d7', 'more_frames': '', 'gdb_unit': '0'}

# One damage a row: field, what stands there; the class that is found, and the section and label where. Further classes are of
# what follows from it.
DAMAGES = [
    ('code', '3', 'abbreviation', '.debug_abbrev', 'a3', 'entry', 'unit-header', 'code-uncovered'),
    ('children', '2', 'abbreviation', '.debug_abbrev', 'a2'),
    ('second', '3', 'abbreviation', '.debug_abbrev', 'a8'),
    ('form', '0x7f', 'entry', '.debug_info', 'sub'),
    ('unit_length', '0x7fffffff', 'unit-header', '.debug_info', 'unit', 'aranges-unit', 'name-index'),
    ('more_units', '.byte 1,2,3', 'unit-header', '.debug_info', 'more'),
    ('more_units', '.long 11; .value 9; .byte 1,8; .long 0; .byte 0,0,0', 'unit-header', '.debug_info', 'more'),
    ('name', '99', 'unit-header', '.debug_info', 'unit', 'code-uncovered'),
    ('type', 'int+1', 'reference', '.debug_info', 'var'),
    ('type', 'unit+0x1000', 'reference', '.debug_info', 'var'),
    ('type_offset', 'long+1', 'reference', '.debug_info', 'type_unit', 'type-signature'),
    ('signature', '0x1235', 'type-signature', '.debug_info', 'sig'),
    ('sub_high', 'f-1', 'range-list', '.debug_info', 'sub'),
    ('sub_high', 'g_end+1', 'range-list', '.debug_info', 'sub'),
    ('ranges', '0x1000', 'range-list', '.debug_info', 'block'),
    ('range_end', '65', 'range-nesting', '.debug_info', 'block'),
    ('unit_end_pc', 'f_end', 'range-nesting', '.debug_info', 'sub2', 'code-uncovered', 'aranges-range'),
    ('location', '0x1000', 'location-list', '.debug_info', 'var'),
    ('loc_start', '20', 'location-list', '.debug_info', 'var'),
    ('loc_operation', '0xff', 'expression', '.debug_info', 'var'),
    ('frame_base', '0xff', 'expression', '.debug_info', 'sub'),
    ('decl_file', '2', 'entry-file', '.debug_info', 'sub'),
    ('table_length', '0x10000', 'line-header', '.debug_line', 'table'),
    ('line_version', '9', 'line-header', '.debug_line', 'table'),
    ('end_sequence', '1', 'line-program', '.debug_line', 'last'),
    ('file', '2', 'line-file', '.debug_line', 'row2'),
    ('advance', '0xfff0', 'line-address', '.debug_line', 'last'),
    ('directory', '2', 'line-directory', '.debug_line', 'file1'),
    ('set_length', '0x100', 'aranges-set', '.debug_aranges', 'set', 'aranges-missing'),
    ('set_version', '3', 'aranges-set', '.debug_aranges', 'set', 'aranges-missing'),
    ('address_size', '4', 'aranges-set', '.debug_aranges', 'set', 'aranges-missing'),
    ('set_unit', 'unit+1', 'aranges-unit', '.debug_aranges', 'set', 'aranges-missing'),
    ('names_unit', 'unit+1', 'name-index', '.debug_pubnames', 'names'),
    ('names_entry', 'sub+1', 'name-index', '.debug_pubnames', 'name'),
    ('index_version', '4', 'name-index', '.debug_names', 'index'),
    ('index_unit', 'unit+4', 'name-index', '.debug_names', 'units'),
    ('bucket', '2', 'name-index', '.debug_names', 'bucket'),
    ('hash', '0x1234', 'name-index', '.debug_names', 'hash'),
    ('index_code', '2', 'name-index', '.debug_names', 'pool'),
    ('index_entry', 'sub+1', 'name-index', '.debug_names', 'pool'),
    ('gdb_unit', '4', 'name-index', '.gdb_index', 'gdb_units'),
    ('cie_version', '9', 'frame-record', '.debug_frame', 'cie'),
    ('cie_op', '0x0d', 'frame-record', '.debug_frame', 'cie'),
    ('fde_length', '0x1000', 'frame-record', '.debug_frame', 'fde'),
    ('fde_cie', 'cie+1', 'frame-record', '.debug_frame', 'fde'),
    ('fde_op', '0x0b', 'frame-record', '.debug_frame', 'fde'),
    # Warnings.
    ('aranges', '.debug_other', 'no-aranges', '.debug_aranges', None),
    ('set_size', '129', 'aranges-range', '.debug_aranges', 'set'),
    ('stmt_list', '0x2fff', 'no-lines', '.debug_info', 'unit'),
    ('name_attribute', '0x2130', 'split-unit', '.debug_info', 'unit'),
    ('more_units', '.long 9f-8f; 8: .value 4; .long abbrevs; .byte 8,1; .long 0,table; .quad g,g_end; .byte 0; 9:',
     'unit-overlap', '.debug_info', 'more', 'aranges-missing'),
    ('sub2_low', 'f+63', 'function-overlap', '.debug_info', 'sub2'),
    ('end_sequence', '0,1,1; .byte 0,9,2; .quad f+8; .byte 1,2,8,0,1,1', 'line-overlap', '.debug_line', 'table'),
    ('to_end', '0; .byte 0,9,2; .quad f+8; back: .byte 1,2,120', 'line-order', '.debug_line', 'back'),
    ('more_code', '.skip 99', 'code-uncovered', '.text', 'more_code'),
    ('more_frames', '.long 9f-8f; 8: .long cie; .quad f+8,64; 9:', 'frame-overlap', '.debug_frame', 'more_frames'),
    ('f_size', '4096', 'symbol-size', '.symtab', None),
]
# Bytes that are changed in the linked file: section, offset, bytes; the class that is found, and the section and offset where.
PATCHES = [
    ('.eh_frame', 0, b'\xff\xff\xff\x0f', 'frame-record', '.eh_frame', 0, 'frame-header'),
    ('.eh_frame', 0x28, b'\1\2\3\4', 'frame-record', '.eh_frame', 0x18, 'frame-header'),
    ('.eh_frame', 0, bytes(4), 'frame-end', '.eh_frame', 0, 'frame-header'),
    ('.eh_frame_hdr', 0, b'\2', 'frame-header', '.eh_frame_hdr', 0),
    ('.eh_frame_hdr', 4, b'\0', 'frame-header', '.eh_frame_hdr', 4),
    ('.eh_frame_hdr', 8, b'\2', 'frame-header', '.eh_frame_hdr', 20),
    ('.eh_frame_hdr', 8, b'\0', 'frame-header', '.eh_frame_hdr', 0),
    ('.eh_frame_hdr', 12, b'\0', 'frame-header', '.eh_frame_hdr', 12),
    ('.eh_frame_hdr', 16, b'\0', 'frame-header', '.eh_frame_hdr', 12),
    ('.eh_frame_hdr', 3, b'\xff', 'no-frame-header', '.eh_frame_hdr', 0),
]


class Checked:
    """What `korva check` says of a file."""

    def __init__(self, korva, program, *options):
        result = run(korva, 'check', '--format=jsonl', *options, program)
        if result.err:
            fail(f'check {program}: {result.err}')
        *self.findings, self.summary = [json.loads(line) for line in result.out.splitlines()]
        self.status = result.status

    def has(self, name, section, offset):
        return any((f['class'], f['section'], f['offset']) == (name, section, offset) for f in self.findings)

    def classes(self):
        return set(self.summary['classes'])


def assemble(folder, fields):
    """The program with these fields, and the labels of its sections."""
    program = os.path.join(folder, 'program')
    source = write(folder, 'program.s', SOURCE.format(**{**FIELDS, **fields}))
    answer_of('as', source, '-o', f'{program}.o')
    answer_of('ld', '-e', 'f', '--eh-frame-hdr', f'{program}.o', '-o', program)
    text = answer_of('nm', program)
    return program, {name: int(value, 16) for value, name in re.findall(r'^(\w+) \w (\w+)$', text, re.M)}


def read(path):
    with open(path, 'rb') as file:
        return file.read()


def save(folder, name, contents):
    path = os.path.join(folder, name)
    with open(path, 'wb') as file:
        file.write(contents)
    return path


def find_sections(program):
    """Offset in the file and size of each section."""
    text = answer_of('readelf', '-SW', program)
    return {name: (int(offset, 16), int(size, 16)) for name, offset, size in
            re.findall(r'^  \[ *\d+\] (\.\S+) +(?!NOBITS)\w+ +\w+ (\w+) (\w+)', text, re.M)}


def test_damages(korva, folder):
    program, labels = assemble(folder, {})
    sound = Checked(korva, program, '--strict')
    if sound.status != 0 or sound.findings:
        fail(f'check of the sound program: {sound.status}, {sound.findings}')
    for field, value, name, section, label, *more in DAMAGES:
        program, labels = assemble(folder, {field: value})
        checked = Checked(korva, program)
        place = None if label is None else hex(labels[label] - (labels['f'] if section == '.text' else 0))
        expect_finding(checked, f'{field} = {value}', name, section, place, more)
    program, _ = assemble(folder, {})
    contents, sections = read(program), find_sections(program)
    for section, offset, data, name, found_in, place, *more in PATCHES:
        at = sections[section][0] + offset
        path = save(folder, 'patched', contents[:at] + data + contents[at + len(data):])
        expect_finding(Checked(korva, path), f'{section} {offset}', name, found_in, hex(place), more)


def expect_finding(checked, what, name, section, place, more):
    faulty = any(f['severity'] == 'fault' for f in checked.findings)
    sound = checked.has(name, section, place) and checked.classes() <= {name, *more}
    if not sound or checked.status != (3 if faulty else 0):
        fail(f'{what}: {name} of {section} at {place} is not what is found: {checked.status}, {checked.findings}')



# --- files that are damaged anywhere ----------------------------------------------------------------------------

EXTREMES = (0, 1, 0x7f, 0x80, 0xff, 0x7fff, 0xffff, 0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff, 2**63, 2**64 - 1)


def mutate(contents, spans, source):
    """The contents with one to eight damages in some of the spans."""
    mutant = bytearray(contents)
    for _ in range(source.choice((1, 1, 2, 3, 8))):
        start, size = source.choice(spans)
        at = start + source.randrange(size)
        kind = source.randrange(4)
        if kind == 0:
            mutant[at] ^= 1 << source.randrange(8)
        elif kind == 1:
            mutant[at] = source.randrange(256)
        else:
            width = min(source.choice((1, 2, 4, 8, 16)), start + size - at)
            if kind == 2:  # a number that is too large, or nearly so
                mutant[at:at + width] = (source.choice(EXTREMES) % 2**64).to_bytes(16, 'little')[:width]
            else:  # what stands elsewhere in the section
                other = start + source.randrange(size - width + 1)
                mutant[at:at + width] = contents[other:other + width]
    return bytes(mutant)


def limit_time():
    resource.setrlimit(resource.RLIMIT_CPU, (60, 60))


def check_mutants(korva, folder, program, count, seed):
    """No mutant of a program crashes the check, keeps it busy, or makes a sanitizer speak."""
    contents, source = read(program), random.Random(seed)
    spans = [(start, size) for name, (start, size) in find_sections(program).items()
             if size != 0 and re.match(r'\.z?debug|\.eh_|\.gdb_', name)]
    for first in range(0, count, 50):
        paths = [save(folder, f'mutant{i}', mutate(contents, spans, source)) for i in range(min(50, count - first))]
        result = run(korva, 'check', '--most=1', *paths, preexec_fn=limit_time)
        if result.status in (0, 2, 3) and 'Sanitizer' not in result.err and 'runtime error' not in result.err:
            continue
        for path in paths:
            alone = run(korva, 'check', '--most=1', path, preexec_fn=limit_time)
            if alone.status not in (0, 2, 3) or 'Sanitizer' in alone.err or 'runtime error' in alone.err:
                fail(f'check of mutant {os.path.basename(path)}, from {first} of {program}: {alone.status}\n{alone.err[:4000]}')
        fail(f'check of mutants from {first} of {program}: {result.status}\n{result.err[:4000]}')


def test_shared_lists(korva, folder):
    """Entries that share long lists cost no more than the file's size allows, and this is told."""
    count = 20000
    entries = f'.rept {count}\n.uleb128 3; .long list\n.endr\n'
    lists = f'list: .rept {count}\n.quad 0,1\n.endr\n.quad 0,0\n'
    source = SOURCE.format(**FIELDS).replace('block: .uleb128 3; .long list\n', 'block: ' + entries).replace(
        'list: .quad 0,8,0,0\n', lists)
    path = write(folder, 'shared.s', source)
    answer_of('as', path, '-o', path + '.o')
    result = run(korva, 'check', '--format=jsonl', path + '.o', preexec_fn=limit_time)
    if 'unchecked' not in result.out or result.status not in (0, 3):
        fail(f'check of shared lists: {result.status}, {result.out[:2000]}')


# --- options and formats ----------------------------------------------------------------------------------------

URI = {'type': 'string', 'pattern': r'^(file:///)?[A-Za-z0-9._~/%-]+$'}
MESSAGE = {'type': 'object', 'properties': {'text': {'type': 'string', 'minLength': 1}}, 'required': ['text']}
LEVEL = {'enum': ['none', 'note', 'warning', 'error']}
LOCATION = {'type': 'object', 'properties': {
    'physicalLocation': {
        'type': 'object', 'required': ['artifactLocation'], 'additionalProperties': False,
        'properties': {
            'artifactLocation': {'type': 'object', 'properties': {'uri': URI}, 'required': ['uri']},
            'address': {'type': 'object', 'additionalProperties': False, 'properties': {
                'kind': {'type': 'string'}, 'name': {'type': 'string'}, 'offsetFromParent': {'type': 'integer'}}}}},
    'logicalLocations': {'type': 'array', 'items': {'type': 'object', 'additionalProperties': False, 'properties': {
        'kind': {'type': 'string'}, 'fullyQualifiedName': {'type': 'string'}}}}}, 'additionalProperties': False}
# What SARIF 2.1.0 requires of the properties that are written (sections 3.13, 3.14, 3.18 to 3.20, 3.27 to 3.29, 3.49, 3.58).
SARIF = {
    'type': 'object', 'required': ['version', 'runs'], 'additionalProperties': False,
    'properties': {'$schema': {'type': 'string'}, 'version': {'const': '2.1.0'}, 'runs': {'type': 'array', 'items': {
        'type': 'object', 'required': ['tool', 'results'], 'additionalProperties': False,
        'properties': {
            'columnKind': {'enum': ['utf16CodeUnits', 'unicodeCodePoints']},
            'tool': {'type': 'object', 'required': ['driver'], 'properties': {'driver': {
                'type': 'object', 'required': ['name', 'rules'], 'properties': {
                    'name': {'type': 'string'}, 'version': {'type': 'string'},
                    'rules': {'type': 'array', 'uniqueItems': True, 'items': {
                        'type': 'object', 'required': ['id'], 'properties': {
                            'id': {'type': 'string'}, 'shortDescription': MESSAGE,
                            'defaultConfiguration': {'type': 'object', 'properties': {'level': LEVEL}}}}}}}}},
            'invocations': {'type': 'array', 'items': {
                'type': 'object', 'required': ['executionSuccessful'], 'properties': {
                    'executionSuccessful': {'type': 'boolean'}, 'exitCode': {'type': 'integer'},
                    'toolExecutionNotifications': {'type': 'array', 'items': {
                        'type': 'object', 'required': ['message'], 'properties': {
                            'message': MESSAGE, 'level': LEVEL, 'locations': {'type': 'array', 'items': LOCATION}}}}}}},
            'results': {'type': 'array', 'items': {
                'type': 'object', 'required': ['message'], 'additionalProperties': False, 'properties': {
                    'ruleId': {'type': 'string'}, 'ruleIndex': {'type': 'integer', 'minimum': 0}, 'level': LEVEL,
                    'message': MESSAGE, 'locations': {'type': 'array', 'items': LOCATION}}}}}}}}}


def test_sarif(korva, folder):
    import jsonschema
    program, labels = assemble(folder, {'type': 'int+1', 'sub2_low': 'f+63'})
    named = shutil.copy(program, os.path.join(folder, 'name with \u00e4.o'))
    missing = os.path.join(folder, 'missing')
    result = run(korva, 'check', '--format=sarif', named, missing)
    log = json.loads(result.out)
    jsonschema.Draft202012Validator(SARIF).validate(log)
    log, = log['runs']
    rules = log['tool']['driver']['rules']
    found = [(r['ruleId'], r['level'], r['locations'][0]['physicalLocation']['address']['offsetFromParent'])
             for r in log['results']]
    if found != [('reference', 'error', labels['var']), ('function-overlap', 'warning', labels['sub2'])] or any(
            rules[r['ruleIndex']]['id'] != r['ruleId'] for r in log['results']) or result.status != 2 or (
                log['invocations'][0]['executionSuccessful'] or len(log['invocations'][0]['toolExecutionNotifications']) != 1):
        fail(f'check --format=sarif: {result.status}, {found}, {log["invocations"]}')


def test_options(korva, folder):
    """Exit statuses, counts that are whole though few findings are shown, classes that are left out, text."""
    program, labels = assemble(folder, {'more_units': '.byte 1', 'frame_base': '0xff', 'loc_operation': '0xff',
                                        'sub2_low': 'f+63'})
    missing = os.path.join(folder, 'missing')
    few = Checked(korva, program, '--most=1')
    if few.summary['classes'] != {'unit-header': 1, 'expression': 2, 'function-overlap': 1} or len(few.findings) != 3:
        fail(f'check --most: {few.summary}, {few.findings}')
    faults = ['--ignore=unit-header', '--ignore=expression']
    warned, _ = assemble(os.path.join(folder), {'sub2_low': 'f+63'})
    for arguments, status, out in (
            ([warned], 0, rf'\S+: warning: .debug_info at {labels["sub2"]:#x}: the function at {labels["sub"]:#x} covers '
             r'0x\w+ too \[function-overlap\]\n\S+: no faults, 1 warning \(function-overlap 1\); read .*\n'),
            ([warned, '--strict'], 3, '.*'),
            ([warned, '--strict', '--ignore=function-overlap'], 0, r'\S+: no faults, no warnings; .*\n'),
            ([warned, *faults], 0, '.*'), ([warned, missing], 2, '.*'), ([warned, '--ignore=nothing'], 64, ''),
            (['--most=x', warned], 64, '')):
        result = run(korva, 'check', *arguments)
        if result.status != status or not re.fullmatch(out, result.out, re.S):
            fail(f'check {arguments}: {result.status}\n{result.out}{result.err}')
    answer_of('strip', '-o', f'{warned}.stripped', warned)
    stripped = Checked(korva, f'{warned}.stripped')
    if 'no-debug-info' not in stripped.classes() or stripped.status != 0:
        fail(f'check of a stripped file: {stripped.findings}')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--korva', required=True)
    parser.add_argument('--mutants', type=int, metavar='N')
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('files', nargs='*')
    options = parser.parse_args()
    need('as', 'ld', 'nm', 'readelf', 'strip')
    with tempfile.TemporaryDirectory(prefix='korva-test-') as folder:
        for file in options.files:
            check_mutants(options.korva, folder, file, options.mutants, options.seed)
        if options.files:
            return
        for test in (test_damages, test_shared_lists, test_sarif, test_options):
            test(options.korva, folder)
        program, _ = assemble(folder, {})
        check_mutants(options.korva, folder, program, 100, 1)
        for version in (4, 5):
            program = os.path.join(folder, f'table{version}')
            build('gcc', [f'-gdwarf-{version}', '-O2'], ['main.c', 'table.c'], program)
            check_mutants(options.korva, folder, program, 50, version)


main()
