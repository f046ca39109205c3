#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What `korva explain` tells is what `korva addr` answers and what GNU readelf reads; and where there is no answer it says why.

  explain_test.py --korva PROGRAM
"""
import argparse
import json
import os
import re
import shutil
import tempfile

from cores import make_cores
from support import SOURCES, answer_of, build, fail, need, run

PROGRAMS = [('gcc', 4), ('g++', 5), ('clang', 5), ('clang++', 4)]
MOST = 48  # addresses of a program
RECORD = re.compile(r'^([0-9a-f]+) [0-9a-f]+ [0-9a-f]+ (CIE|FDE) (?:cie=([0-9a-f]+) pc=([0-9a-f]+)\.\.([0-9a-f]+))?')


def read_frames(program):
    """[(offset of FDE, of CIE, first address, end, [(address, {column: rule})])], as readelf executes them."""
    fdes, cies, rows, section, columns = [], {}, None, None, []
    for line in run('readelf', '--wide', '--debug-dump=frames-interp', program).out.splitlines():
        if line.startswith('Contents of'):
            section = line.split()[3]
        elif section == '.eh_frame' and (record := RECORD.match(line)):
            offset, kind, cie, start, end = record.groups()
            rows = []
            if kind == 'CIE':
                cies[int(offset, 16)] = rows
            else:
                fdes.append((int(offset, 16), int(cie, 16), int(start, 16), int(end, 16), rows))
        elif line.startswith('   LOC'):
            columns = line.split()[1:]
        elif rows is not None and re.match(r'^[0-9a-f]{16} ', line):
            rows.append((int(line.split()[0], 16), dict(zip(columns, line.split()[1:]))))
    return [(*fde[:4], fde[4] or [(fde[2], cies[fde[1]][0][1])]) for fde in fdes]


def rule_of(rule):
    """A rule as readelf shows it."""
    if rule['rule'] == 'register_offset':
        return f"{rule['base']}{rule['offset']:+d}"
    if rule['rule'] in ('offset', 'val_offset'):
        return f"{'c' if rule['rule'] == 'offset' else 'v'}{rule['offset']:+d}"
    if rule['rule'] == 'register':
        return rule['base']
    return {'expression': 'exp', 'val_expression': 'vexp', 'same_value': 's', 'undefined': 'u'}[rule['rule']]


def check_frame(told, frames, address):
    """FDE, CIE and row, register by register. Columns of no instruction are "u" for readelf, and defaults of the target here."""
    covering = [fde for fde in frames if fde[2] <= address < fde[3]]
    if not covering:
        return None if told is None else 'there is no FDE'
    offset, cie, start, end, rows = covering[0]
    known = (int(told['fde'], 16), int(told['cie'], 16), int(told['range']['start'], 16), int(told['range']['end'], 16))
    if known != (offset, cie, start, end):
        return f'{known} is not {(offset, cie, start, end)}'
    index = max(i for i, row in enumerate(rows) if row[0] <= address)
    following = rows[index + 1][0] if index + 1 < len(rows) else end
    if (int(told['row']['start'], 16), int(told['row']['end'], 16)) != (rows[index][0], following):
        return f"{told['row']} is not {rows[index][0]:#x}..{following:#x}"
    wanted = dict(rows[index][1])
    for rule in told['rules']:
        column = 'CFA' if rule['number'] is None else 'ra' if rule['return_address'] else rule['register']
        shown = rule_of(rule)
        expected = wanted.pop(column, 'u')
        if shown != expected and not (rule['default'] and expected == 'u'):
            return f'{column}: {shown} is not {expected}'
    return f'{wanted} is not told' if any(value != 'u' for value in wanted.values()) else None


def addresses_of(program, frames):
    """First, inner and last addresses of functions, spread over the program."""
    starts = [int(line.split()[0], 16) for line in run('nm', program).out.splitlines() if line.split()[-2] in 'tTW']
    starts += [fde[2] for fde in frames]
    all_of = sorted({start + step for start in starts for step in (0, 1, 5, 17)} | {fde[3] - 1 for fde in frames})
    return [f'{address:#x}' for address in all_of[::len(all_of) // MOST + 1]]


def check_program(korva, program):
    frames = read_frames(program)
    addresses = addresses_of(program, frames)
    told = [json.loads(line) for line in run(korva, 'explain', '-e', program, '--format=jsonl', *addresses).out.splitlines()]
    asked = [json.loads(line) for line in run(korva, 'addr', '-e', program, '--format=jsonl', *addresses).out.splitlines()]
    if not len(told) == len(asked) == len(addresses):
        fail(f'{program}: {len(told)} explanations and {len(asked)} answers of {len(addresses)} addresses')
    for explained, answer, text in zip(told, asked, addresses):
        row = explained['line'].get('row') if explained['line'] else None
        if explained['frames'] != answer['frames'] or (explained['status'], row and row['line']) != (
                answer['status'], answer['line']):
            fail(f'{program} {text}: {explained["frames"]}, {row}: the answer is {answer}')
        names = [function['function'] for function in explained['functions'] or []]
        if names and names != [frame['function'] for frame in answer['frames']]:
            fail(f'{program} {text}: functions {names}')
        fault = check_frame(explained['frame'], frames, int(text, 16))
        if fault:
            fail(f'{program} {text}: frame: {fault}')


def test_answers(korva, folder):
    for compiler, version in PROGRAMS:
        if shutil.which(compiler) is not None:
            program = os.path.join(folder, f'{compiler}{version}')
            is_cxx = '++' in compiler
            build(compiler, [f'-gdwarf-{version}', '-O2'], ['main.cpp', 'square.cpp', 'circle.cpp'] if is_cxx else
                  ['main.c', 'table.c'], program)
            check_program(korva, program)
    libc = re.search(r'=> (/\S+/libc\.so\S*)', answer_of('ldd', '/bin/sh'))
    if libc:
        check_program(korva, libc.group(1))


def of_another_version(program, section):
    """A copy of the program whose first unit in a section says that it is DWARF 9."""
    copy = shutil.copy(program, program + section)
    found = re.search(rf' {re.escape(section)} +\S+ +\S+ +(\S+) ', answer_of('readelf', '-SW', program))
    with open(copy, 'r+b') as file:
        file.seek(int(found.group(1), 16) + 4)
        file.write(b'\x09')
    return copy


def test_reasons(korva, folder):
    """Each reason for which there is no answer, or only part of one."""
    program = os.path.join(folder, 'whole')
    build('gcc', ['-gdwarf-4', '-O1', '-falign-functions=64'], ['main.c', 'table.c'], program)
    split = os.path.join(folder, 'split')
    answer_of('gcc', '-g', '-gsplit-dwarf', f'{SOURCES}/main.c', f'{SOURCES}/table.c', '-o', split, cwd=folder)
    bare = os.path.join(folder, 'bare')
    answer_of('objcopy', '--strip-debug', program, bare)
    answer_of('objcopy', f'--add-gnu-debuglink={program}', bare)
    build_id = re.search(r'Build ID: (\w\w)(\w+)', answer_of('readelf', '-n', program))
    other = os.path.join(folder, 'debug', '.build-id', build_id.group(1))
    os.makedirs(other)
    shutil.copy(split, os.path.join(other, build_id.group(2) + '.debug'))
    os.rename(program, program := os.path.join(folder, 'moved'))
    end = sum(int(number, 16) for number in re.search(r'^(\w+) (\w+) T main$', answer_of('nm', '-S', program), re.M).groups())
    cases = [
        ('0x7ffff000', program, r'it is in no segment of the file: one ends 0x\w+ before, at 0x\w+'),
        ('0x10', program, r'it is mapped, but lies in no section'),
        (section_of(program, '.data'), program, r'it lies in \.data, which holds no code'),
        (section_of(program, '.plt'), program, r'it lies in \.plt, which the linker made: .*without lines'),
        (hex(end), program, r'it is padding, or code that nothing describes: behind main \(ends 0x\w+\), before table_.*'),
        (hex(end), program, r'no unit covers it: \S*main\.c ends 0x0 before, at 0x\w+; \S*table\.c begins 0x\w+ behind, at 0x\w+'),
        ('_start', program, r'no unit covers it: .*begins 0x\w+ behind, at 0x\w+'),
        ('main', of_another_version(program, '.debug_info'), r'unit at offset 0x0 of \.debug_info is DWARF 9, .*'),
        ('main', of_another_version(program, '.debug_line'), r'the line table at 0x0 fails: .*9.*'),
        ('main', split, r'split: the functions of the unit are in \S+\.dwo, which is not read'),
        ('main', bare, r'the file has no debugging information \(\.debug_info\)'),
    ]
    for address, file, reason in cases:
        out = run(korva, 'explain', '-e', file, '--format=json', '--debug-dir', os.path.join(folder, 'debug'), address).out
        record = json.loads(out)[0]
        if not any(re.fullmatch(reason, told) for told in record['stopped']):
            fail(f'{address} of {file}: {record["stopped"]}, not {reason}')
        if file != bare:
            continue
        tried = [(place['by'], place['outcome']) for place in record['debug_file']['looked_for']]
        if ('build-id', 'refused') not in tried or ('.gnu_debuglink', 'not there') not in tried or not record['help']:
            fail(f'{file}: {record["debug_file"]}, {record["help"]}')
    text = run(korva, 'explain', '-e', program, 'main+1', 'nowhere')
    if text.status != 1 or not re.search(r'^  line .*\n(.*\n)*           >  +\d+ \| .*', text.out, re.M) or \
            'is neither an address nor a function' not in text.out:
        fail(f'text: {text.out}{text.err}')


def test_core(korva, folder):
    """Of a core file, each address that its stacks go through: where it is, as the stacks have it, and how it is left."""
    core, = make_cores(folder, 1, 4)
    stacks = json.loads(run(korva, 'stack', '--core', core, '-q', '--format=json').out)
    frames = [frame for stack in stacks for frame in stack['frames'] if frame['line']]
    explained = json.loads(run(korva, 'explain', '--core', core, '--format=json', *(f['lookup_pc'] for f in frames)).out)
    if len(frames) < 10 or len(explained) != len(frames):
        fail(f'{core}: {len(frames)} frames, {len(explained)} explanations')
    for frame, record in zip(frames, explained):
        innermost = record['frames'][0]
        if (innermost['file'], innermost['line']) != (frame['file'], frame['line']) or not record['frame']:
            fail(f'{core} {frame}: {innermost}, {record["frame"]}')


def section_of(program, name):
    return '0x' + re.search(rf' {re.escape(name)} +PROGBITS +(\w+) ', answer_of('readelf', '-SW', program)).group(1)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--korva', required=True)
    korva = parser.parse_args().korva
    need('gcc', 'readelf', 'nm', 'objcopy')
    with tempfile.TemporaryDirectory() as folder:
        test_answers(korva, folder)
        test_reasons(korva, folder)
        if shutil.which('gdb'):
            test_core(korva, folder)
    print('passed')


main()
