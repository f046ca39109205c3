#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How the program behaves at a shell: exit statuses, diagnostics, forms of addresses, standard input, JSON.

  cli_test.py --korva PROGRAM
"""
import argparse
import inspect
import json
import os
import random
import re
import resource
import shutil
import struct
import subprocess
import tempfile

from support import SOURCES, answer_of, build, fail, need, run, write

VERBS = ('addr', 'explain', 'filter', 'units', 'lines', 'funcs', 'entries', 'sections', 'check', 'record', 'stack', 'merge', 'unwind', 'report',
         'expr')


def first_line_of(function):
    """The line of main.c that gcc gives to a function's first instruction: that of its opening brace."""
    with open(os.path.join(SOURCES, 'main.c'), encoding='ascii') as file:
        return next(number for number, line in enumerate(file, 1) if f' {function}(' in line and ';' not in line) + 1


MAIN = first_line_of('main')
WEIGH = first_line_of('weigh_twice')


class Korva:
    def __init__(self, path):
        self.path = path

    def run(self, *arguments, program=None, **options):
        return run(program or self.path, *arguments, **options)

    def talk(self, *arguments, **options):
        """Starts it, to be asked line by line."""
        return subprocess.Popen([self.path, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                bufsize=1, **options)

    def expect(self, arguments, status, out=None, err='', **options):
        """Runs it. out and err are patterns that must match all of the output; out None is any."""
        result = self.run(*arguments, **options)
        if result.status != status or not re.fullmatch(err, result.err, re.S) or (
                out is not None and not re.fullmatch(out, result.out, re.S)):
            fail(f'korva {" ".join(arguments)}\n  status {result.status}, expected {status}\n'
                 f'  stdout: {result.out[:2000]}\n  stderr: {result.err[:2000]}\n  expected stdout {out}, stderr {err}')
        return result.out


def symbol(program, name):
    return int(re.search(rf'^0*([0-9a-f]+) . {name}$', answer_of('nm', program), re.M).group(1), 16)


def test_forms_of_addresses(korva, program, cxx):
    start = symbol(program, 'main')
    line = re.escape(f'0x{start:016x}  main  {SOURCES}/main.c:{MAIN}\n')
    for text in (f'{start:x}', f'{start:#x}', f'0X{start:X}', f'{start:020x}', f' {start:x}\t', 'main', 'main+0',
                 'main+0x0'):
        korva.expect(['addr', '-e', program, text], 0, line)
        korva.expect(['addr', '-e', program], 0, line, text=text)  # the last line needs no newline
    for text, offset in (('main+10', 10), ('main+0x10', 16)):
        korva.expect(['addr', '-e', program, text], 0, f'0x{start + offset:016x}  main  /.*/main.c:\\d+\n')
    korva.expect(['addr', '-e', program, '-s', 'main'], 0, f'0x[0-9a-f]{{16}}  main  main.c:{MAIN}\n')
    # A name that is a number too is the number.
    korva.expect(['addr', '-e', program, 'fa'], 2, r'0x00000000000000fa  \?\?  \?\?:0\n')
    for text in ('fa+zz', 'nothing', '0x', '', '+', '-1', '12g', 'main+', 'main+-1', 'f' * 17):
        korva.expect(['addr', '-e', program, 'main', text], 1, line + r'.*  \?\?  \?\?:0\n',
                     'korva: .*: ".*" is neither an address nor a function\n')
    # The last of ./a.out, which is not there; what another tool takes for the file.
    korva.expect(['addr', program, '10'], 2, '', f'korva: a.out: .*; to ask the file "{program}", write -e {program}\n')
    korva.expect(['addr', '-e', cxx, '-C', '-s', 'shapes::detail::count_calls(int)'], 0,
                 r'0x\w{16}  shapes::detail::count_calls\(int\)  circle.cpp:\d+\n')


def test_gnu_layout(korva, program):
    """Where nothing but layout is at stake, byte for byte, also for what addr2line does not understand."""
    start = symbol(program, 'main')
    texts = ['main', 'main+4', 'main+0x10', f'{start:x}', f'{start:#x} trailing words', ' \t main ', '12g', '0xzz', 'zzz',
             '', 'nothing+4', '0', 'ffffffffffffffff', 'f' * 20, 'beef', '-5', 'main+zz', '_start', '*5']
    for flags in ([], ['-a'], ['-f'], ['-a', '-f', '-p', '-s'], ['-p', '-f'], ['-a', '-p'], ['-C', '-f']):
        ours = korva.run('addr', '--format=gnu', '-e', program, *flags, text='\n'.join(texts))
        theirs = answer_of('addr2line', '-e', program, *flags, text='\n'.join(texts))
        if ours.out != theirs:
            fail(f'addr --format=gnu {flags}:\n{ours.out}but addr2line:\n{theirs}')


def test_inlines(korva, folder):
    """Calls that were inlined: in each layout, with and without them."""
    inlined = os.path.join(folder, 'inlined')
    build('gcc', ['-O2', '-gdwarf-4'], ['inlined.c'], inlined)
    start, size = (int(n, 16) for n in re.search(r'^0*(\w+) 0*(\w+) . hold$', answer_of('nm', '-S', inlined), re.M).groups())
    addresses = ''.join(f'{start + i:x}\n' for i in reversed(range(size)))  # answers come in this order
    for flags in (['-i'], ['-f', '-i'], ['-a', '-f', '-i', '-p', '-s'], ['-C', '-f', '-i', '-p'], ['-f']):
        ours = korva.run('addr', '--format=gnu', '-e', inlined, *flags, text=addresses)
        theirs = answer_of('addr2line', '-e', inlined, *flags, text=addresses)
        if ours.out != theirs:
            fail(f'addr --format=gnu {flags}:\n{ours.out}but addr2line:\n{theirs}')
    records = [json.loads(line) for line in korva.run('addr', '--format=jsonl', '-e', inlined, text=addresses).out.splitlines()]
    deepest = max(records, key=lambda record: len(record['frames']))
    if [(f['function'], f['inlined'], f['from']) for f in deepest['frames']] != [
            ('wait_there', True, 'entries'), ('pass_on', True, 'entries'), ('hold', False, 'entries')]:
        fail(f'addr --format=jsonl: {deepest}')
    innermost = rf'{int(deepest["address"], 16):#018x}  wait_there  inlined.c:\d+\n'
    by = r' {6}\(inlined by\)  '
    korva.expect(['addr', '-s', '-e', inlined, deepest['address']], 0,
                 rf'{innermost}{by}pass_on  inlined.c:\d+\n{by}hold  inlined.c:\d+\n')
    korva.expect(['addr', '-ns', '-e', inlined, deepest['address']], 0, innermost)
    korva.expect(['addr', '-ni', '-e', inlined, '0'], 64, '', 'korva: .*excludes.*')


def test_standard_input(korva, program, folder):
    with korva.talk('addr', '-s', '-e', program) as talk:
        for name, line in (('main', MAIN), ('weigh_twice', WEIGH), ('main', MAIN)):
            talk.stdin.write(name + '\n')
            if not talk.stdout.readline().endswith(f'  {name}  main.c:{line}\n'):  # waits: it must not be held back
                fail(f'addr: {name} on standard input')
        talk.stdin.close()
        if talk.wait() != 0:
            fail(f'addr: status {talk.returncode} at the end of standard input')
    korva.expect(['addr', '-e', program, '--format=json'], 0, r'\[\]\n')
    korva.expect(['addr', '-e', program, '--format=gnu'], 0, r'\?\?:0\n\?\?:0\n', text='\n \n')  # blank lines ask nothing
    # An answer's line is complete when it is given.
    with korva.talk('addr', '--format=json', '-e', program) as talk:
        for before in '[,':
            talk.stdin.write('main\n')
            line = talk.stdout.readline()
            if line[0] != before or json.loads(line[1:])['function'] != 'main':
                fail(f'addr --format=json: {line}')
        talk.stdin.close()
    cut = shutil.copy(program, os.path.join(folder, 'cut'))
    with korva.talk('addr', '-e', cut, stderr=subprocess.PIPE) as talk:
        talk.stdin.write('main\n')
        talk.stdout.readline()
        os.truncate(cut, 4096)
        _, told = talk.communicate('weigh_twice\n')
        if talk.returncode != 1 or f'korva: {cut}: the file became shorter while it was read' not in told:
            fail(f'addr: of a file that shrinks: status {talk.returncode}, {told}')


def limit_time():
    resource.setrlimit(resource.RLIMIT_CPU, (10, 10))


def test_overlapping_units(korva, folder):
    """Thousands of units that cover an address and know no line of it are not asked again for the next."""
    count = 5000
    program = os.path.join(folder, 'units')
    source = write(folder, 'units.s', f'.globl f\n.type f,@function\nf: .skip {count}\n.size f,.-f\nend:\n'
                   '.section .debug_abbrev,"",@progbits\n.byte 1,0x11,0,0x11,1,0x12,1,0,0,0\n'
                   f'.section .debug_info,"",@progbits\n.rept {count}\n'
                   '.long 2f-1f\n1: .value 4\n.long 0\n.byte 8,1\n.quad f,end\n2:\n.endr\n')
    answer_of('gcc', '-nostdlib', '-Wl,-e,f', source, '-o', program)
    result = korva.run('addr', '-e', program, text=''.join(f'f+{i}\n' for i in range(count)), preexec_fn=limit_time)
    if result.status != 1 or result.out.count('  f  ??:0\n') != count:
        fail(f'addr: overlapping units: status {result.status}, {result.out[:200]} {result.err[:200]}')


def test_names(korva, folder):
    """Names of several functions, of none, and names that unfold to gigabytes."""
    def sequence(number):  # a substitution: S_, S0_, ... S9_, SA_, ...
        return 'S' + ('' if number == 0 else '0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ'[number - 1]) + '_'

    doubling = '_Z1f1A' + ''.join(f'PFv{sequence(2 * i)}{sequence(2 * i)}E' for i in range(17))  # 2^17 times A
    packs = ('_Z1fIJ' + 'i' * 300 + 'EEv1A' +  # 300 times 2^11 times A
             ''.join(f'PFv{sequence(2 * i + 1)}{sequence(2 * i + 1)}E' for i in range(11)) + f'DpPFvT_{sequence(23)}E')
    arguments = '_Z1fI' + 'L_Z1gI' * 12 + 'i' + 'EvT_T_T_E' * 12 + 'EvT_T_T_'
    sources = {'a.c': 'static int twin(void) { return 1; }\nint shared = 3;\nint far_away(void) __attribute__((weak));\n'
                    'int other(void);\n' + ''.join(
                        f'int f{i}(void) __asm__("{name}");\nint f{i}(void) {{ return {i}; }}\n'
                        for i, name in enumerate((doubling, packs, arguments))) +
                    'int main(void) { return twin() + other() + shared + (far_away ? far_away() : 0); }\n',
               'b.c': 'static int twin(void) { return 2; }\nint other(void) { return twin(); }\n'}
    for name, text in sources.items():
        write(folder, name, text)
    program = os.path.join(folder, 'names')
    answer_of('gcc', '-gdwarf-4', 'a.c', 'b.c', '-o', program, cwd=folder)
    korva.expect(['addr', '-s', '-e', program, 'twin'], 0,
                 r'\w+  twin  a.c:1  \(unit a.c\)\n\w+  twin  b.c:1  \(unit b.c\)\n')
    korva.expect(['addr', '-s', '-e', program, '--format=gnu', 'twin'], 0, 'a.c:1\n')
    units = [record['unit'] for record in json.loads(korva.run('addr', '-e', program, '--format=json', 'twin').out)]
    if units != ['a.c', 'b.c']:
        fail(f'addr --format=json twin: {units}')
    for name, what in (('shared', 'is data, not a function'), ('far_away+4', 'is not defined in this file')):
        korva.expect(['addr', '-e', program, name], 2, rf'{re.escape(name)}  \?\?  \?\?:0\n',
                     rf'korva: \S+: "{re.escape(name)}" {what}\n')
    for name in (doubling, packs, arguments):  # shown as they are, at once
        result = korva.run('addr', '-C', '-e', program, name, preexec_fn=limit_time)
        if result.status != 0 or not result.out.split('  ')[1] == name:
            fail(f'addr -C: status {result.status}, {len(result.out)} bytes: {result.out[:200]}')


def test_json(korva, program, folder):
    records = {}
    for arguments in (['addr', '-e', program, 'main', '_start', 'zzz'], ['units', program], ['lines', program],
                      ['lines', '--program', program]):
        whole = json.loads(korva.run(*arguments, '--format=json').out)
        one_by_one = [json.loads(line) for line in korva.run(*arguments, '--format=jsonl').out.splitlines()]
        if whole != one_by_one or not whole:
            fail(f'{arguments}: json and jsonl differ')
        records[' '.join(arguments[:2])] = whole
    # Opcodes that make a row leave the registers as that row.
    made = [record['registers'] for record in records['lines --program']
            if record['name'] in ('special', 'DW_LNS_copy')]
    rows = [row for row in records[f'lines {program}'] if not row['end_sequence']]
    if [(r['address'], r['line'], r['column']) for r in made] != [(r['address'], r['line'], r['column']) for r in rows]:
        fail('lines --program does not lead to the rows of lines')
    main, start, nothing = records['addr -e']
    start_address = hex(symbol(program, '_start'))
    for record, expected in (
            (main, {'function': 'main', 'file': f'{SOURCES}/main.c', 'line': MAIN, 'discriminator': 0}),
            (start, {'input': '_start', 'address': start_address, 'function': '_start', 'file': None, 'line': None,
                     'column': None, 'discriminator': None}),
            (nothing, {'input': 'zzz', 'address': None, 'function': None, 'file': None, 'line': None, 'column': None,
                       'discriminator': None})):
        if not expected.items() <= record.items():
            fail(f'addr: {record}\nexpected {expected}')

    # A name in Latin-1 is no UTF-8: JSON replaces the byte, text keeps it.
    strange = os.path.join(folder, 'strange')
    answer_of('gcc', '-gdwarf-4', write(folder, 'caf\udce9\n\x1b.c', 'int main(void) { return 0; }\n'), '-o', strange)
    if not json.loads(korva.run('addr', '-e', strange, '--format=jsonl', 'main').out)['file'].endswith('caf\ufffd\n\x1b.c'):
        fail('addr --format=jsonl: a name that is not UTF-8')
    for layout in ('text', 'gnu'):  # neither forges a line nor drives a terminal
        korva.expect(['addr', '-e', strange, f'--format={layout}', 'main'], 0, '[^\n]*/caf\udce9\\\\x0a\\\\x1b.c:1\n')


def test_versions(korva, folder):
    """A unit of a version that nobody knows among others: refused, once, and the others are answered."""
    told = r'korva: \S+: unit at offset 0x0 of .debug_info is DWARF 9, and libkorva reads DWARF 2 to 5\n'
    for compiler in ('gcc', 'clang'):  # gcc tells the unit's ranges in .debug_aranges, clang does not
        need(compiler)
        mixed = os.path.join(folder, 'mixed')
        for source, version in (('main.c', 5), ('table.c', 4)):
            answer_of(compiler, f'-gdwarf-{version}', '-c', f'{SOURCES}/{source}', '-o', f'{mixed}.{source}.o')
        answer_of(compiler, f'{mixed}.main.c.o', f'{mixed}.table.c.o', '-o', mixed)
        names = ['main', 'table_sum', 'main+4', 'weigh_twice']
        korva.expect(['addr', '-s', '-e', mixed, *names], 0, r'\w+  main  main.c:\d+\n\w+  table_sum  table.c:\d+\n'
                     r'\w+  main  main.c:\d+\n\w+  weigh_twice  main.c:\d+\n')
        korva.expect(['units', mixed], 0, r'0x0 +5  compile +\d+  \S+/main.c  .*\n0x\w+ +4  compile +\d+  \S+/table.c  .*\n')
        answer_of('objcopy', '--dump-section', f'.debug_info={mixed}.info', mixed)
        with open(f'{mixed}.info', 'r+b') as info:
            info.seek(4)
            info.write(b'\x09')
        answer_of('objcopy', '--update-section', f'.debug_info={mixed}.info', mixed)
        korva.expect(['addr', '-s', '-e', mixed, *names], 1, r'\w+  main  \?\?:0\n\w+  table_sum  table.c:\d+\n'
                     r'\w+  main  \?\?:0\n\w+  weigh_twice  \?\?:0\n', told)
        korva.expect(['addr', '-s', '-e', mixed, 'table_sum'], 0, r'\w+  table_sum  table.c:\d+\n')
        korva.expect(['units', mixed], 1, r'0x0 +9  not read +\d+  -  -  -\n0x\w+ +4  compile +\d+  \S+/table.c  .*\n', told)
        korva.expect(['lines', mixed], 1, r'unit 0x\w+:\n.*table.c  is_stmt.*', told)
        offset = re.search(r'^(0x\w+) +4 ', korva.run('units', mixed).out, re.M).group(1)
        korva.expect(['lines', '--unit', offset[2:], mixed], 0, f'unit {offset}:\n.*')
        korva.expect(['sections', mixed], 1, r'.*\.debug_info .*\n    reading: not read: unit at offset 0x0 of .*')
        split = os.path.join(folder, 'split')
        answer_of(compiler, '-g', '-gsplit-dwarf', f'{SOURCES}/table.c', '-c', '-o', f'{split}.o', cwd=folder)
        korva.expect(['units', f'{split}.o'], 0, r'0x0 +\d  skeleton +\d+  -  \S+  -  \(the rest is in \S*split.dwo\)\n')


def test_damaged_units(korva, program, folder):
    """A second unit that claims more bytes than there are ends the unit table: told, and the first is answered."""
    offset = int(re.search(r'^(0x\w+) .*table.c ', korva.run('units', program).out, re.M).group(1), 16)
    start = int(re.search(r' \.debug_info +PROGBITS +\S+ (\S+) ', answer_of('readelf', '-SW', program)).group(1), 16)
    damaged = shutil.copy(program, os.path.join(folder, 'damaged'))
    with open(damaged, 'r+b') as file:
        file.seek(start + offset)
        file.write(struct.pack('<I', 0x7fffffff))
    for flags in ([], ['--raw']):
        told = (rf'(korva: [^\n]*\n)*korva: \S+: unit table ends early, at offset {offset:#x} of \w+ of .debug_info: '
                'the units behind it cannot be read')
        why = (rf': unit_length \(2147483647\) too large for existing section size \(\d+\); failed to read CU header at '
               rf'offset {offset} in .debug_info; failed to obtain CU at offset {offset} in .debug_info\n')
        korva.expect(['units', *flags, damaged], 1, r'0x0 [^\n]*/main.c [^\n]*\n', told + why)
        # It is told where an answer is missing for it.
        korva.expect(['addr', '-s', *flags, '-e', damaged, 'main', 'table_sum'], 1,
                     rf'\w+  main  main.c:{MAIN}\n\w+  table_sum  \?\?:0\n', told + rf'({why}|\n)')


# Two units, as an assembler writes them: entries nested deeply, of numbers without names; a name that would drive a
# terminal, an expression that is cut off, and an entry that no abbreviation describes.
UNITS = r"""
        .section .debug_abbrev
        .byte 1, 0x11, 1, 0, 0, 2, 0xb, 1, 0, 0
        .byte 3, 0xa1, 0x86, 1, 0,  3, 8,  2, 0x18,  0xff, 0x7f, 0xb,  0, 0, 0
        .section .debug_info
1:      .long 3f - 2f
2:      .short 4
        .long 0
        .byte 8, 1
        .fill {levels}, 1, 2
        .fill {levels} + 1, 1, 0
3:      .long 5f - 4f
4:      .short 4
        .long 0
        .byte 8, 1
        .byte 3
        .asciz "\033[2J\n"
        .byte 2, 3, 0, 7
damage: .byte 9, 0
5:      .globl damage
"""


def test_budgets(korva, program):
    """A record that costs too much says so, has what is known all the same, and halves what the next ones may cost."""
    for bound in ('--max-steps=20', '--max-bytes=300', '--max-rows=2'):
        out = korva.expect(['addr', '-e', program, bound, '--format=jsonl', 'main', 'main+1'], 1, None,
                           r'korva: \S+: address 0x\w+: the budget of [^\n]+ is used up: \d+[^\n]*\n')
        first, second = (json.loads(line) for line in out.splitlines())
        if (first['status'], first['error']['code'], first['function']) != ('limit', 'KRV_ERR_EXT_LIMIT', 'main'):
            fail(f'addr {bound}: {first}')
        most = [int(re.search(r'\d+', record['error']['messages'][0]).group()) for record in (first, second)]
        if most[1] * 2 != most[0]:
            fail(f'addr {bound}: {most}')
        for verb in ('units', 'lines', 'funcs', 'entries', 'check'):
            status = json.loads(korva.run(verb, '--format=jsonl', bound, program).out.splitlines()[-1])['status']
            if status != ('limit' if bound != '--max-rows=2' or verb in ('lines', 'check') else 'ok'):
                fail(f'{verb} {bound}: {status}')
    korva.expect(['addr', '-e', program, '--max-steps=1G', '--max-bytes=1G', '--timeout=60', 'main'], 0)


def test_entries(korva, program, folder):
    levels = 20000
    made = os.path.join(folder, 'units.o')
    answer_of('gcc', '-c', write(folder, 'units.s', UNITS.format(levels=levels)), '-o', made)
    start = 2 * levels + 13
    damage = r'korva: \S+: entries of unit at offset 0x%x end early: .*offset 0x%x of .debug_info.*\n' % (start, symbol(made, 'damage'))
    head = rf'unit {start:#x}:\n{start + 11:#010x}   0  DW_TAG_compile_unit\n'
    shown = head + rf'{start + 12:#010x}   1    0x4321\n +DW_AT_name +"\\x1b\[2J\\x0a"\n' \
        r' +DW_AT_location +\[03 00\]  \(the listing ends early: .*\)\n +0x3fff +7\n\n'
    whole = korva.expect(['entries', made], 1, None, damage)
    if f'\n{11 + levels:#010x} {levels}  ' + 64 * ' ' + 'DW_TAG_lexical_block\n' not in whole:
        fail('entries: the innermost')
    korva.expect(['entries', '--depth', '1', made], 1, rf'unit 0x0:\n.*   1    DW_TAG_lexical_block\n\n{shown}', damage)
    why = json.loads(korva.expect(['entries', '--format=jsonl', made], 1, None, damage).splitlines()[-1])
    if (why['status'], why['error']['section'], why['error']['unit']) != ('error', '.debug_info', hex(start)):
        fail(f'entries: {why}')
    # An entry alone, in JSON; what stands behind it is not looked at.
    record = json.loads(korva.expect(['entries', '--offset', f'{start + 12:x}', '--depth', '0', '--format=jsonl', made], 0))
    if record['depth'] != 1 or record['attributes'][:2] != [
            {'name': 'DW_AT_name', 'form': 'DW_FORM_string', 'kind': 'string', 'value': '\x1b[2J\n'},
            {'name': 'DW_AT_location', 'form': 'DW_FORM_exprloc', 'kind': 'expression', 'value': '03 00', 'operations': [],
             'meaning': record['attributes'][1]['meaning']}]:
        fail(f'entries: {record}')
    for offset in ('0', hex(start + 13), 'ffffff'):
        korva.expect(['entries', '--offset', offset, made], 2, '', f'korva: .* at offset 0x{int(offset, 16):x} of .debug_info.*')


def test_funcs(korva, program, cxx):
    start = symbol(program, 'main')
    korva.expect(['funcs', '-s', program, 'main'], 0, rf'{start:#018x}-0x\w+  main  main.c:{MAIN - 1}\n')
    for name in ('count_calls', '_ZN6shapes6detail11count_callsEi'):
        korva.expect(['funcs', '-Cs', cxx, name], 0, r'0x\w{16}-0x\w{16}  shapes::detail::count_calls\(int\)  circle.cpp:\d+\n')
    korva.expect(['funcs', program, 'nothing'], 2, '', 'korva: .*: no function "nothing" has code here\n')


def test_files(korva, program, folder):
    """Status 2: nothing can be answered."""
    plain, stripped = os.path.join(folder, 'plain'), os.path.join(folder, 'stripped')
    empty, text = write(folder, 'empty', ''), write(folder, 'text', 'no ELF file, but longer than the header of one' * 9)
    build('gcc', [], ['main.c', 'table.c'], plain)
    answer_of('strip', '-o', stripped, program)
    for name in (os.path.join(folder, 'missing'), folder, empty, text):
        for arguments in (['addr', '-e', name, '0'], ['units', name], ['lines', name]):
            korva.expect(arguments, 2, '', f'korva: {re.escape(name)}: [^\n]+\n')
    told = r'korva: \S+: no debugging information \(.debug_info\)\n'
    for name in (plain, stripped):
        korva.expect(['units', name], 2, '', told)
        why = json.loads(korva.expect(['lines', '--format=json', name], 2, None, told))[0]
        if (why['status'], why['error']['code'], why['error']['section']) != ('not_found', 'KRV_ERR_NOTFOUND', '.debug_info'):
            fail(f'lines --format=json: {why}')
    korva.expect(['addr', '-e', plain, 'main'], 1, r'\w+  main  \?\?:0\n', told)
    korva.expect(['addr', '-e', stripped, '0'], 2, r'\w+  \?\?  \?\?:0\n', told)
    korva.expect(['addr', '-e', program, '-j', '.nowhere', '0'], 2, '', 'korva: .*: no section .nowhere\n')
    bloated = write(folder, 'bloated.s', '.section .debug_loc,"",@progbits\n.zero 0x400000\n')
    answer_of('gcc', '-c', '-gz', bloated, '-o', bloated + '.o')
    korva.expect(['sections', bloated + '.o'], 2, '', r'korva: \S+: its compressed sections claim to inflate to 4194304 .*\n')
    korva.expect(['sections', '--inflate-any', bloated + '.o'], 0)
    korva.expect(['lines', '--unit', '7', program], 2, '', 'korva: .*: no unit starts at offset 7 of .debug_info\n')


def test_output(korva, program, folder):
    for verb in (['addr', '-e', program, 'main'], ['units', program], ['lines', program], ['sections', program],
                 ['expr', '31'], ['--help'], ['--version']):
        with open('/dev/full', 'w', encoding='ascii') as full:
            korva.expect(verb, 2, '', 'korva: standard output: No space left on device\n', stdout=full)
        # A reader that has gone away, as in `korva lines FILE | head`, is no failure.
        reading, writing = os.pipe()
        os.close(reading)
        korva.expect(verb, 0, '', '', stdout=writing)
        os.close(writing)
    # A diagnostic that cannot be written is lost; answers and status are what they would have been.
    missing = os.path.join(folder, 'missing')
    for verb, status, out in ((['addr', '-e', program, 'main', 'zzz'], 1, r'\w+  main  .*\nzzz  \?\?  \?\?:0\n'),
                              (['units', missing], 2, ''), (['lines', missing], 2, ''), (['sections', missing], 2, ''),
                              (['stack', '--core', missing], 2, ''), (['expr', '06'], 1, '.*DW_OP_deref\n'),
                              (['frobnicate'], 64, '')):
        with open('/dev/full', 'w', encoding='ascii') as full:
            korva.expect(verb, status, out, stderr=full)
        reading, writing = os.pipe()
        os.close(reading)
        korva.expect(verb, status, out, stderr=writing)
        os.close(writing)
        korva.expect(['-c', 'exec "$0" "$@" 2>&-', korva.path, *verb], status, out, program='bash')


# Lines of logs, and of which of two addresses what is added has to be: {o} is where a line of main begins, which is shown for an
# address that is exact; of a return address the line before it is.
LOG_LINES = (
    ('    #1 0x55d0c1 in main ({path}+0x{o:x})', 'exact'),
    ('    #0 <null> <null> (program+0x{o:x}) (BuildId: {build_id})', 'exact'),
    ('SUMMARY: AddressSanitizer: SEGV ({path}+0x{o:x}) ', 'exact'),
    (' #5 0x000055d0c1139123 main ({path}+0x{o:x})', 'return'),
    ('{path}(+0x{o:x})[0x55d0c1]', 'return'),
    ('{path}(main+0x{within:x}) [0x55d0c1]', 'return'),
    ('{fixed}[0x{f:x}]', 'return'),
    ('{fixed}() [0x{f:x}]', 'return'),
    ('Nov 26 05:56:01 host systemd-coredump[7]: #0  0x000055d0c1139123 n/a (program + 0x{o:x})', 'exact'),
    ('Module libunknown.so with build-id {build_id}', None),
    ('#0  0x000055d0c1139123 n/a (libunknown.so + 0x{o:x})', 'exact'),
    ('#1  0x000055d0c1139123 n/a (fixed + 0x{in_fixed:x})', 'return'),
    ('C  [program+0x{o:x}]  main+0x4', 'return'),
    ('# C  [program+0x{o:x}]  main+0x4', 'exact'),
    ('C  [program+0x{o:x}]  main+0x4', 'exact'),  # where it failed
    ('program[7]: segfault at 0 ip 000055d00000{o:04x} sp 00007ffd error 4 in program[{o:x},55d000001000+1000]', 'exact'),
    ('traps: program[7] trap divide error ip:55d00000{o:04x} sp:7ffd error:0 in program[55d000001000+1000]', 'exact'),
    ('\t            {o:x} main+0x{within:x} ({path})', 'exact'),
    ('\t            {o:x} [unknown] ({path})', 'return'),
    ('RIP: 0010:main+0x{within:x}/0x{size:x}', 'exact'),
    ('[   1.5]  ? main+0x{within:x}/0x{size:x} [program]', 'return'),
    ('==7==    by 0x{in_valgrind:X}: ??? (in {path})', 'exact'),
    ('==7==    by 0x{in_valgrind:X}: main (main.c:12)', None),
    ('0x{in_memory:x}', None),  # nobody has said what is there
    ('#1  0x{in_gdb:016x} in ?? ()', 'return'),
    ('READ of size 4 at pc 0x{in_gdb:x} bp 0x1 sp 0x2', 'return'),
    ('Nov 26 host prog[7]: 55d000001000-55d000002000 r-xp 00001000 08:01 9     {path}', None),
    ('pc=0x{in_memory:x} sp=0x7ffd', 'exact'),
    ('#0  0x000055d00000{o:04x} in ?? ()', 'exact'),
    ('#1  0x000055d00000{o:04x} in f (x=0x000055d00000{o:04x})', 'return'),
    ('#2  <signal handler called>', None),
    ('#3  0x000055d00000{o:04x} in ?? ()', 'exact'),
    ('#4  0x000055d00000{o:04x} in main () at main.c:12', None),
    ('    #5 0x{in_memory:x} in main /x/main.c:12:5', None),
    ('   6:     0x{in_memory:x} - <unknown>', 'return'),
    ('    @     0x{in_memory:x} (unknown)', 'return'),
    ('\t/x/main.go:5 +0x1d fp=0x1 sp=0x2 pc=0x{in_memory:x}', None),
    ('\x00\udcff (/nowhere+0x10) 0x', None))


def test_filter(korva, program, folder):
    """What each format means, its text as its producers write it."""
    fixed, vmlinux = os.path.join(folder, 'fixed'), shutil.copy(program, os.path.join(folder, 'vmlinux'))
    build('gcc', ['-gdwarf-4', '-O0', '-no-pie'], ['main.c', 'table.c'], fixed)
    start, size = (int(n, 16) for n in re.search(r'^0*(\w+) 0*(\w+) . main$', answer_of('nm', '-S', program), re.M).groups())
    rows = [json.loads(line) for line in korva.run('lines', '--format=jsonl', program).out.splitlines()]
    behind, line = next((int(row['address'], 16), row['line']) for row in rows
                        if start < int(row['address'], 16) < start + size and row['line'] != MAIN)
    offset = symbol(fixed, 'main') + behind - start
    given = {'path': program, 'fixed': fixed, 'o': behind, 'within': behind - start, 'size': size, 'f': offset,
             'in_fixed': offset - 0x400000, 'in_valgrind': behind + 0x108000, 'in_memory': behind + 0x55d000000000, 'in_gdb': behind + 0x555555554000,
             'build_id': re.search(r'Build ID: (\w+)', answer_of('readelf', '-n', program)).group(1)}
    shown = {'exact': f'  [main at main.c:{line}]', 'return': f'  [main at main.c:{MAIN}]', None: ''}
    lines = [text.format(**given) for text, _ in LOG_LINES]
    expected = [text + shown[how] for text, (_, how) in zip(lines, LOG_LINES)]
    files = [word for path in (vmlinux, program, fixed) for word in ('-e', path)]
    text, told = '\r\n'.join(lines), 'korva: /nowhere: No such file or directory\n'
    result = korva.run('filter', '-s', *files, text=text)
    for ours, theirs in zip(result.out.split('\r\n'), expected):
        if ours != theirs:
            fail(f'filter: {ours!r}, expected {theirs!r}')
    if result.status != 1 or result.err != told:
        fail(f'filter: status {result.status}, {result.err}')
    replaced = korva.expect(['filter', '-qs', '--add=replace', '--return-addresses=no'], 0, text=f'at {program}+0x{behind:x}, x')
    if replaced != f'at [main at main.c:{line}], x':
        fail(f'filter --add=replace: {replaced}')
    records = [json.loads(record) for record in korva.run('filter', '--format=jsonl', *files, text=text).out.splitlines()]
    counted = [(number, how) for number, (_, how) in enumerate(LOG_LINES, 1) if how]
    if [(r['input_line'], 'return' if r['return_address'] else 'exact') for r in records] != [*counted, (len(lines), 'exact')]:
        fail(f'filter --format=jsonl: {records}')
    for record in records:
        at = record['input_column'] - 1
        if lines[record['input_line'] - 1][at:at + len(record['text'])] != record['text']:
            fail(f'filter --format=jsonl: {record}')
    # Modules that the user tells, by their build-ids; no file that the log names.
    by_id = os.path.join(folder, '.build-id', given['build_id'][:2])
    os.makedirs(by_id)
    shutil.copy(program, os.path.join(by_id, given['build_id'][2:] + '.debug'))
    modules = write(folder, 'modules', json.dumps({'build_id': given['build_id'], 'start': '0x55d000000000', 'size': 0x9000}))
    for where in ('pc=0x{in_memory:x}', '(/nowhere/program+0x{o:x}) (BuildId: {build_id})'):
        asked = where.format(**given)
        korva.expect(['filter', '-s', '--no-open-paths', '--modules', modules, '--debug-dir', folder], 0,
                     re.escape(asked + shown['exact']), text=asked)
    korva.expect(['filter', '-q', '--no-open-paths'], 2, re.escape(lines[0]), text=lines[0])
    korva.expect(['filter', '--modules', write(folder, 'no', '{"start":1}')], 2, '', 'korva: .*/no: line 1 has no "path" and .*')


def test_filter_reports(korva, folder):
    """What real producers write of a program that faults."""
    with open(os.path.join(SOURCES, 'crash.c'), encoding='ascii') as file:
        lines = {mark: number for number, line in enumerate(file, 1) for mark in re.findall(r'/\* (.*) \*/$', line)}
    frame = f'inlined by middle at crash.c:{lines["inlined call"]}]\n'
    behind = rf'{re.escape(frame)}.*\[main at crash.c:{lines["call"]}\]'

    def filter_report(first, text, *flags):
        out = korva.run('filter', '-qs', *flags, text=text).out
        if not re.search(rf'\[fail at crash.c:{first}, {behind}', out):
            fail(f'filter: {out}')

    for flags in ([], ['-no-pie'], ['-rdynamic'], ['-fsanitize=address']):
        crash, whole = os.path.join(folder, 'crash'), os.path.join(folder, 'whole')
        build('gcc', ['-gdwarf-4', '-O1', *flags], ['crash.c'], crash)
        if '-fsanitize=address' in flags:
            filter_report(lines['fault'], run(crash, 'f--', env={'ASAN_OPTIONS': 'symbolize=0'}).err)
            continue
        filter_report(r'\d+', run(crash, 'm--').out)
        if '-rdynamic' in flags:
            continue
        shutil.copy(crash, whole)
        answer_of('strip', crash)
        for command in (['valgrind', crash, 'f--'],
                        ['gdb', '-batch', '-ex', 'run', '-ex', 'info proc mappings', '-ex', 'bt', '--args', crash, 'f--']):
            need(command[0])
            reported = run(*command)
            filter_report(lines['fault'], (reported.out + reported.err).replace(crash, whole), '-e', whole)


def test_filter_flow(korva, program, folder):
    """What is not known passes byte for byte, at once, and cannot hold anything up."""
    dice = random.Random(7)
    tokens = ['0x', '+0x1', '[<', ' ip ', '-xp ', '\n', '\r\n', '\0', '\udcff', '(', ')', '[', ']', '/a', '#1 ', ' in ', 'y' * 70000]
    for size in (0, 10, 1000, 50000):
        text = ''.join(dice.choices(tokens, [*[1] * (len(tokens) - 1), 0.001], k=size))
        for flags in ([], ['--add=address']):
            if korva.run('filter', '-q', *flags, text=text).out != text:
                fail(f'filter {flags}: {size} tokens do not pass')
    with korva.talk('filter', '-s') as talk:
        for sent, received in (('Password: ', 'Password: '), ('x\n', 'x\n'), (f'({program}+', f'({program}+'),
                               (f'{symbol(program, "main"):#x})\n', f'{symbol(program, "main"):#x})  [main at main.c:{MAIN}]\n')):
            talk.stdin.write(sent)
            talk.stdin.flush()
            if talk.stdout.read(len(received)) != received:
                fail(f'filter: {sent!r} does not pass at once')
        talk.stdin.close()
    os.mkfifo(os.path.join(folder, 'fifo'))
    os.symlink('loop', os.path.join(folder, 'loop'))
    names = ['/dev/zero', '/proc/self/mem', *(os.path.join(folder, name) for name in ('', 'fifo', 'loop'))]
    text = ''.join(f'({name}+0x10)\n' for name in [*names, *(f'/nowhere/{number}' for number in range(20000))])
    result = korva.run('filter', text=text, preexec_fn=limit_time)
    if result.status != 2 or result.out != text or result.err.count('\n') != 101 or not all(f'korva: {name}: ' in result.err for name in names):
        fail(f'filter: of names: status {result.status}, {result.err}')
    both = ''.join(f'({path}+0x{symbol(program, "main"):x})\n' for path in (program, shutil.copy(program, os.path.join(folder, 'other')))) * 2
    korva.expect(['filter', '-s', '--cache', '1'], 0, rf'(\(.*\)  \[main at main.c:{MAIN}\]\n){{4}}', text=both)


def test_sections(korva, program, folder):
    """What is read, and what was relocated; --raw relocates nothing."""
    object_file = os.path.join(folder, 'table.o')
    answer_of('gcc', '-gdwarf-4', '-c', f'{SOURCES}/table.c', '-o', object_file)
    lines = r'(\.\w+ +\d+  as it is\n)*'
    korva.expect(['sections', program], 0, lines)
    korva.expect(['sections', object_file], 0,
                 rf'{lines}\.debug_info +\d+  relocated\n    relocations: \d+ relocations are applied\n.*')
    korva.expect(['sections', '--raw', object_file], 1,
                 r'.*\.debug_info +\d+  as it is\n    attach: not read: the relocations of .debug_info are not applied\n.*')
    records = json.loads(korva.run('sections', '--format=json', object_file).out)
    if not any(note['pass'] == 'relocations' and not note['refused'] for r in records for note in r['notes']):
        fail(f'sections --format=json: {records}')


def test_expr(korva, folder):
    """Listing, evaluation, and where either ends."""
    unavailable = r"korva: the evaluation fails: .*\n"
    for arguments, status, out, err in (
            (['33', '34', '1c'], 0, r'0x0000  DW_OP_lit3\n0x0001  DW_OP_lit4\n0x0002  DW_OP_minus\nstack: 0xf{16}\n', ''),
            (['--target', 'i386', '33341c'], 0, r'.*stack: 0xf{8}\n', ''),
            (['--reg', '7=0x7ffe00', '77', '08'], 0, r'0x0000  DW_OP_breg7 8\nstack: 0x00000000007ffe08\n', ''),
            (['06', '--push', '0x1000', '--memory', '0x1000=0102030405060708'], 0, r'.*stack: 0x0807060504030201\n', ''),
            (['--push', '1', '--push', '2', '16'], 0, r'.*\nstack: 0x0{15}1\n *0x0{15}2\n', ''),
            (['--location', '--size', '4', '55', '--reg', '5=0x11223344'], 0, r'.*44 33 22 11.*', ''),
            (['--list', '2f0000'], 0, r'0x0000  DW_OP_skip 0\n', ''),
            (['06'], 1, r'0x0000  DW_OP_deref\n', unavailable),
            (['2ffdff'], 1, r'.*', r'korva: the evaluation fails: expression exceeds 1000000 instructions.*\n'),
            (['0c0102'], 2, '.*', 'korva: .*'),
            (['zz'], 64, '', 'korva: .*')):
        korva.expect(['expr', *arguments], status, out, err)
    record = json.loads(korva.run('expr', '--format=json', '@' + write(folder, 'bytes', '\x08\x2a')).out)
    if '0x2a' not in json.dumps(record):
        fail(f'expr --format=json: {record}')


def test_stack(korva, folder):
    """What is no walk; the walks themselves are held against other tools elsewhere."""
    with subprocess.Popen(['sleep', '1000']) as process:
        pid = str(process.pid)
        while ') S ' not in open(f'/proc/{pid}/stat', encoding='ascii').read():  # on its way
            pass
        try:
            korva.expect(['stack', '-p', pid, '-qsn', '2'], 0,
                         r'thread \d+ \(sleep\), sleeping\n(#\d [^\n]*\n){2}     end: more than 2 frames\n', '')
            korva.expect(['stack', '-p', pid, '-ran', '1'], 0, r'.*\n     rax    0x[0-9a-f]{16}  rbx .*\n#0 .*',
                         r'korva: no frame has arguments: [^\n]*\n(korva: [^\n]*\n)?')
            korva.expect(['stack', '-p', pid, '--tid', '1'], 2, '', 'korva: no thread 1\n')
            for bound in ('--max-steps=1', '--max-bytes=1'):
                record = json.loads(korva.run('stack', '-p', pid, '-q', bound, '--format=jsonl').out)
                if (record['status'], record['error']['code']) != ('limit', 'KRV_ERR_EXT_LIMIT'):
                    fail(f'stack {bound}: {record}')
            page = korva.run('report', '-p', pid, '--no-source').out
            traces = [json.loads(line.replace('\\u003c', '<')) for line in page.splitlines() if line.startswith('{"v":1')]
            if [(t['end'], t['owners'][0]['process']) for t in traces] != [('outermost', pid)]:
                fail(f'the page of {pid}: {traces}')
            record = next(line for line in page.splitlines() if line.startswith('{"v":1'))
            if record not in run(korva.path, 'report', '--no-source', '/dev/stdin', text=record + '\n').out.splitlines():
                fail(f'a page of what comes through a pipe does not have {record}')
            frame = json.loads(korva.run('stack', '-p', pid, '-q', '--format=jsonl').out)['frames'][0]
            section = re.search(r' \.text +PROGBITS +0*([0-9a-f]+) 0*([0-9a-f]+) ', answer_of('readelf', '-SW', frame['module']))
            if int(frame['address'], 16) - int(frame['file_offset'], 16) != int(section[1], 16) - int(section[2], 16):
                fail(f'{frame} is not at its place in {section[0]}')
            if f'Build ID: {frame["build_id"]}\n' not in answer_of('readelf', '-n', frame['module']):
                fail(f'{frame} has another build-id')
        finally:
            process.kill()
    text = os.path.join(folder, 'text')
    for arguments, status, err in (
            (['-p', pid], 2, f'korva: .*{pid}.*\n'),
            (['--core', text], 2, f'korva: {re.escape(text)}: .*\n'),
            (['--core', korva.path], 2, f'korva: {re.escape(korva.path)}: .*core.*\n'),
            ([], 64, 'korva: .*give either -p PID or --core CORE; several only with --merge\n.*'),
            (['-p', pid, '--core', text], 64, 'korva: .*\n'),
            (['--format=folded', text], 64, 'korva: .*formats of --merge\n.*'),
            (['--merge'], 64, 'korva: .*\n'), (['--merge', '-r', text], 64, 'korva: .*\n'),
            (['-p', '-3'], 64, 'korva: .*\n'),
            *((['-p', none], 64, f'korva: --pid: {none} is no number of a process or thread\nTry .*')
              for none in ('0', 'abc', '99999999999'))):
        korva.expect(['stack', *arguments], status, '', err)


def test_usage(korva, program):
    for arguments in ([], ['units'], ['lines'], ['units', '--nope', program], ['units', program, program],
                      ['units', '--format=gnu', program], ['addr', '--format=xml', '0'], ['lines', '--unit', 'x', program],
                      ['addr', '--timeout=nan', '0'], ['record', '--hz=nan', '--', 'true'], ['record', '--seconds=nan', '--', 'true']):
        korva.expect(arguments, 64, '', 'korva: .*\nTry `korva --help` or `korva VERB --help`.\n')
    for words, meant in ((['add'], 'addr'), (['unit', program], 'units'), (['frobnicate'], None), (['help', 'lnes'], 'lines')):
        korva.expect(words, 64, '', f'korva: there is no verb "{words[-1] if words[0] == "help" else words[0]}"' +
                     (f'; did you mean "{meant}"\\?' if meant else '') + '\nTry `korva --help` .*')
    for flag in ('--version', '-V'):
        korva.expect([flag], 0, r'korva \d+\.\d+\.\d+\n')
    for verb in VERBS:
        for help_of in ([verb, '--help'], ['help', verb]):
            korva.expect(help_of, 0, f'.*{"" if verb == "report" else "--format"}.*Examples:\n  korva {verb} .*')
    for flag in ('--help', 'help'):
        korva.expect([flag], 0, '.*' + '.*'.join(VERBS) + '.*Exit status: 0 .*')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--korva', required=True)
    korva = Korva(parser.parse_args().korva)
    need('addr2line', 'readelf', 'nm', 'strip')
    with tempfile.TemporaryDirectory() as folder:
        program, cxx = os.path.join(folder, 'program'), os.path.join(folder, 'cxx')
        build('gcc', ['-gdwarf-4', '-O0'], ['main.c', 'table.c'], program)
        build('g++', ['-gdwarf-4', '-O0'], ['main.cpp', 'square.cpp', 'circle.cpp'], cxx)
        given = {'korva': korva, 'program': program, 'cxx': cxx, 'folder': folder}
        for test in [value for name, value in globals().items() if name.startswith('test_')]:
            test(*(given[name] for name in inspect.signature(test).parameters))
    print('passed')


main()
