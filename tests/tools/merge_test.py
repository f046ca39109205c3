#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`korva stack --merge` and `korva merge`: of core files, held against what `korva stack` says of each; of traces that are made up,
held against sums done here; and both against themselves, however the work is split.

  merge_test.py --korva PROGRAM CASE
  merge_test.py --list
"""
import argparse
import collections
import json
import os
import random
import re
import shutil
import subprocess
import tempfile

import cores
from support import answer_of, fail, need, run, write

FORMATS = ('text', 'json', 'jsonl', 'folded', 'speedscope')


def frame(function, **other):
    return {'function': function, 'file': None, 'line': None, 'column': None, 'inlined': False, 'signal_frame': False,
            'module': None, 'build_id': None, 'address': None, **other}


def owner(process, tid=1, name='', count=1):
    return {'process': process, 'tid': tid, 'name': name, 'count': count}


def trace(frames, owners, end='outermost', message=None):
    """As a run writes it; frames from the outermost on, as one speaks of them."""
    error = {'code': None, 'section': None, 'offset': None, 'unit': None, 'messages': [message]}
    return {'v': 1, 'status': 'error' if message else 'ok', 'error': error if message else None,
            'count': sum(int(each['count']) for each in owners), 'frames': frames[::-1], 'end': end, 'owners': owners}


def lines(*traces):
    return ''.join(json.dumps(each) + '\n' for each in traces)


def expect_same(results, what):
    if len(set(results)) != 1:
        fail(f'{what}: {len(set(results))} different answers\n' + '\n---\n'.join(sorted(set(results))[:2])[:4000])


def merge_somehow(korva, parts, scratch, chance):
    """Merges files in an order, and by way of files in between, that are drawn."""
    parts = parts[:]
    chance.shuffle(parts)
    while len(parts) > 2 and chance.random() < 0.7:
        some = [parts.pop() for _ in range(chance.randint(2, len(parts) - 1))]
        between = write(scratch, f'between{chance.random()}', answer_of(korva, 'merge', '--format=jsonl', *some))
        parts.insert(0, between)
    return parts


def test_shards(korva, scratch):
    """A small version of what scripts/bench-merge does."""
    need('gdb', 'objcopy')
    paths = cores.make_cores(scratch, 20, 6)
    damaged = write(scratch, 'core.damaged', 'no core')
    everything = [*paths, damaged]
    whole = {}
    for form in FORMATS:
        result = run(korva, 'stack', '--merge', f'--format={form}', *everything)
        whole[form] = result.out
        if result.status != 1 or not result.err.startswith(f'korva: {damaged}: not an ELF file '):
            fail(f'{form}: status {result.status}, {result.err}')

    # Each core by itself, counted here.
    counts, total = collections.Counter(), 0
    for path in paths:
        for thread in json.loads(answer_of(korva, 'stack', '--core', path, '--format=json')):
            calls = [(call['function'] if call.get('inlined') else each['function'], call['file'], call['line'], each['address'])
                     for each in thread['frames'] for call in each.get('calls') or [each]]
            counts[json.dumps([calls, thread['end']])] += 1
            total += 1
    merged = [json.loads(line) for line in whole['jsonl'].splitlines()]
    found = {json.dumps([[(f['function'], f['file'], f['line'], f['address']) for f in each['frames']], each['end']]):
             each['count'] for each in merged if each['frames']}
    if found != counts:
        fail(f'merged {found}\ncounted {counts}')
    if (unread := [each['owners'] for each in merged if not each['frames']]) != [[owner(damaged, 0)]]:
        fail(f'of what cannot be read: {unread}')
    if not re.match(rf'{total + 1} traces of 21 processes, {len(counts) + 1} different; 1 could not be read\n', whole['text']):
        fail(whole['text'])
    if total != 120 or len(counts) < 6 or not any(f['inlined'] for each in merged for f in each['frames']):
        fail(f'{total} threads are {len(counts)} crowds, or nothing is inlined: nothing is tested')

    parts = []
    for number, shard in enumerate(cores.shards_of(everything, 4)):
        result = run(korva, 'stack', '--merge', '--format=jsonl', '--cores-from', '-', text='\n'.join(shard) + '\n')
        parts.append(write(scratch, f'shard{number}', result.out))
    for form in FORMATS:
        expect_same([whole[form], *(run(korva, 'merge', f'--format={form}', *order).out
                                    for order in (parts, parts[::-1]))], f'shards, {form}')
    test_cut(korva, paths[0], scratch)
    test_opened_once(korva, scratch, paths)


def test_cut(korva, path, scratch):
    """A core file that ends within the notes of its threads: those before are there, and it is told that others may not be."""
    cut = os.path.join(scratch, 'core.cut')
    with open(path, 'rb') as file:
        core = file.read()
    with open(cut, 'wb') as file:
        file.write(core[:list(cores.places_of_registers(core))[2].stop])
    result = run(korva, 'stack', '--merge', '--format=jsonl', cut)
    owners = [who['tid'] for line in result.out.splitlines() for who in json.loads(line)['owners']]
    if result.status != 1 or len(owners) != 2 or 0 in owners or not re.match(
            rf'korva: {cut}: cut short, and threads may be missing: it has \d+ of \d+ bytes\n', result.err):
        fail(f'{owners}: {result.err}')


def test_opened_once(korva, scratch, paths):
    """The separate file is opened for its debugging information alone."""
    if shutil.which('strace') is None:
        print('LEFT OUT: how often files are opened: strace is not installed')
        return
    log = os.path.join(scratch, 'opened')
    traced = run('strace', '-f', '-e', 'trace=openat', '-o', log, korva, 'stack', '--merge', *paths)
    with open(log, encoding='utf-8') as file:
        text = file.read()
    if traced.status != 0 or 'openat' not in text:
        print(f'LEFT OUT: how often files are opened: strace does not run here: {traced.err[:200]}')
    elif (times := len(re.findall(r'crowd_apart\.debug".* = \d', text))) != 1:
        fail(f'debugging information was opened {times} times for {len(paths) // 3} cores')


def test_live(korva, scratch):
    programs = cores.build_programs(scratch)
    running = [subprocess.Popen([program, '4'], stdout=subprocess.PIPE) for program in programs[:2]]
    try:
        for process in running:
            process.stdout.readline()
            while any(cores.state_of(process.pid, tid) != 'S' for tid in os.listdir(f'/proc/{process.pid}/task')):
                pass
        gone = str(2 ** 22 - 1)  # no process has so high a number
        pids = [str(process.pid) for process in running]
        result = run(korva, 'stack', '--merge', '-q', '--format=jsonl', *(word for pid in [*pids, gone] for word in ('-p', pid)))
        owners = collections.Counter(each['process'] for line in result.out.splitlines() for each in json.loads(line)['owners'])
        if result.status != 1 or owners != {pids[0]: 4, pids[1]: 4, gone: 1}:
            fail(f'status {result.status}: {owners}\n{result.err}')
        for process in running:
            if cores.state_of(process.pid, process.pid) != 'S':
                fail('a process was left in another state')
    finally:
        for process in running:
            process.kill()
            process.wait()
            process.stdout.close()


def test_property(korva, scratch):
    """Made-up traces, dealt out to files somehow, merged in some order and grouping: the sums stay."""
    chance = random.Random(7)
    names = ['main', 'run', 'a b', 'x;y', 'é', '']
    for _ in range(4):
        expected, parts = collections.Counter(), []
        for number in range(chance.randint(3, 6)):
            made = []
            for _ in range(chance.randint(0, 12)):
                path = [chance.choice(names) for _ in range(chance.randint(0, 3))]
                who = owner(f'core.{chance.randint(1, 3)}', chance.randint(0, 3), chance.choice(['', 'worker']),
                            chance.choice([1, 37, str(2 ** 62)]))
                message = chance.choice([None, 'b', 'a'])
                made.append(trace([frame(name or None, line=chance.choice([None, 3])) for name in path], [who],
                                  'error' if message else 'outermost', message))
                key = (json.dumps(made[-1]['frames']), made[-1]['end'], *who.values())
                expected[key[:-1]] = min(expected[key[:-1]] + int(who['count']), 2 ** 64 - 1)
            parts.append(write(scratch, f'part{number}', lines(*made)))
        whole = {form: answer_of(korva, 'merge', f'--format={form}', *parts) for form in FORMATS}
        found = {(json.dumps(each['frames']), each['end'], who['process'], who['tid'], who['name']): int(who['count'])
                 for each in json.loads(whole['json']) for who in each['owners']}
        if found != expected:
            fail(f'{found}\nare not the sums {expected}')
        for form in FORMATS:
            expect_same([whole[form], *(answer_of(korva, 'merge', f'--format={form}', *merge_somehow(korva, parts, scratch, chance))
                                        for _ in range(2))], form)
        expect_same([whole['jsonl'], answer_of(korva, 'merge', '--format=jsonl', '-', text=whole['jsonl'])], 'merged again')


def test_views(korva, scratch):
    """The whole output for traces with names that would do harm."""
    inner = frame('poll', module='/lib/libc.so.6', address='0x10')
    traces = [
        trace([frame('main', file='/a b.c', line=3), inner], [owner('core.1', 17, 'worker'), owner('core.1', 18, 'worker'),
                                                              owner('core.2', 9, '', 37)]),
        trace([frame('main', file='/a b.c', line=4), inner], [owner(f'core.{n}', 5) for n in range(3, 10)]),
        trace([frame('main', file='/a b.c', line=4), frame('f(int, ";\n")', inlined=True)], [owner('x\ny', 1)], 'no-fde', 'no\nrecord'),
        trace([frame(None, module='/lib/m.so')], [owner('4711', 2)]),
        trace([], [owner('core.10', 0)], 'error', 'core.10: cut'),
    ]
    merged = write(scratch, 'traces', lines(*traces))
    for arguments, expected in (
            (['--format=text'],
             '49 traces of 12 processes, 5 different; 1 could not be read\n'
             '    ended early, error: core.10: cut\n'
             '    core.10\n'
             '47    main\n'
             '46      poll\n'
             '        core.1/17,18 (worker), core.2/9*37, core.3/5, core.4/5, core.5/5 ... and 4 more\n'
             ' 1      f(int, ";\\x0a")\n'
             '        ended early, no-fde: no\\x0arecord\n'
             '        x\\x0ay/1\n'
             ' 1    [m.so]\n'
             '      4711/2\n'),
            (['--format=folded'], '[m.so] 1\n[not_read] 1\nmain;f(int,_":\\x0a") 1\nmain;poll 46\n'),
            (['--format=folded', '--by=line'],
             '[m.so] 1\n[not_read] 1\nmain_(/a_b.c:3);poll 39\nmain_(/a_b.c:4);f(int,_":\\x0a")_(inlined) 1\n'
             'main_(/a_b.c:4);poll 7\n'),
            (['--format=folded', '--by=address'],
             '[m.so] 1\n[not_read] 1\nmain_(/a_b.c:3);poll_[/lib/libc.so.6+0x10] 39\n'
             'main_(/a_b.c:4);f(int,_":\\x0a")_(inlined) 1\nmain_(/a_b.c:4);poll_[/lib/libc.so.6+0x10] 7\n')):
        out = answer_of(korva, 'merge', *arguments, merged)
        if out != expected:
            fail(f'{arguments}:\n{out}\nin place of\n{expected}')

    profile = json.loads(answer_of(korva, 'merge', '--format=speedscope', '--by=line', merged))
    check_speedscope(profile)
    names = [each['name'] for each in profile['shared']['frames']]
    weights = {tuple(names[n] for n in sample): weight
               for sample, weight in zip(profile['profiles'][0]['samples'], profile['profiles'][0]['weights'])}
    if weights != {('main (/a b.c:3)', 'poll'): 39, ('main (/a b.c:4)', 'poll'): 7,
                   ('main (/a b.c:4)', 'f(int, ";\n") (inlined)'): 1, ('[m.so]',): 1, ('[not read]',): 1}:
        fail(f'{weights}')


# What file-format-schema.json of speedscope 1 demands of a file with sampled profiles, written down anew and no wider.
SPEEDSCOPE = {
    'type': 'object', 'required': ['$schema', 'profiles', 'shared'],
    'properties': {
        '$schema': {'const': 'https://www.speedscope.app/file-format-schema.json'},
        'exporter': {'type': 'string'}, 'name': {'type': 'string'},
        'shared': {'type': 'object', 'required': ['frames'], 'properties': {'frames': {'type': 'array', 'items': {
            'type': 'object', 'required': ['name'], 'additionalProperties': False,
            'properties': {'name': {'type': 'string'}, 'file': {'type': 'string'}, 'line': {'type': 'number'},
                           'col': {'type': 'number'}}}}}},
        'profiles': {'type': 'array', 'items': {
            'type': 'object', 'required': ['type', 'name', 'unit', 'startValue', 'endValue', 'samples', 'weights'],
            'properties': {
                'type': {'const': 'sampled'}, 'name': {'type': 'string'},
                'unit': {'enum': ['bytes', 'microseconds', 'milliseconds', 'nanoseconds', 'none', 'seconds']},
                'startValue': {'type': 'number'}, 'endValue': {'type': 'number'},
                'samples': {'type': 'array', 'items': {'type': 'array', 'items': {'type': 'integer', 'minimum': 0}}},
                'weights': {'type': 'array', 'items': {'type': 'number'}}}}}},
    'additionalProperties': False}


def check_speedscope(profile):
    import jsonschema
    jsonschema.validate(profile, SPEEDSCOPE)
    one, = profile['profiles']
    if len(one['samples']) != len(one['weights']) or one['endValue'] != sum(one['weights']) or any(
            n >= len(profile['shared']['frames']) for sample in one['samples'] for n in sample):
        fail(f'a profile that does not add up: {one}')


def test_damage(korva, scratch):
    good = trace([frame('main')], [owner('1')])

    def changed(change, of=None):
        damaged = json.loads(json.dumps(good))
        change(damaged if of is None else damaged[of][0])
        return json.dumps(damaged)

    cases = [
        (json.dumps(good)[:-3], 'no JSON at column .*'), ('{}', '"v" is not 1: .*'), ('[]', 'a record is no object'),
        ('{"x":' + '[' * 100000, 'nested more than 64 deep'),
        (changed(lambda t: t.update(v=2)), '"v" is not 1: .*'),
        (changed(lambda t: t.update(status='fine')), '"status" is none that a record has'),
        (changed(lambda t: t.update(count=2)), '"count" is not the sum of the owners\' counts'),
        (changed(lambda t: t.update(frames={})), '"frames" has a value of a wrong kind or size'),
        (changed(lambda t: t.update(owners=[], count=0)), 'nobody had the trace: .*'),
        (changed(lambda t: t.pop('end')), 'no "end" in the record'),
        (changed(lambda f: f.pop('module'), 'frames'), 'no "module" in a frame'),
        (changed(lambda f: f.update(line=2 ** 32), 'frames'), '"line" has a value of a wrong kind or size'),
        (changed(lambda f: f.update(address='10'), 'frames'), '"address" has a value of a wrong kind or size'),
        (changed(lambda o: o.update(tid=-1), 'owners'), '"tid" has a value of a wrong kind or size'),
        (changed(lambda o: o.update(count=0), 'owners'), 'an owner\'s "count" is 0'),
        ('{"v":1,' + json.dumps(good)[1:], '"v" is there twice'),
        ('{"v":1,"status":"error","error":{"code":null,"section":null,"offset":null,"unit":null,"messages":["full"]}}',
         'the run that wrote it failed: full'),
    ]
    later = json.dumps({**good, 'colour': [{'new': [1.5, None]}]})  # of a newer version: the rest is understood
    for start in range(0, len(cases), 9):  # ten of a file are told
        some = cases[start:start + 9]
        file = write(scratch, 'damaged', ''.join(f'{json.dumps(good)}\n\n{line}\n' for line, _ in some) + later)
        result = run(korva, 'merge', '--format=jsonl', file)
        told = ''.join(rf'korva: {re.escape(file)}: line {3 * number}: {text}\n' for number, (_, text) in enumerate(some, 1))
        if result.status != 1 or not re.fullmatch(told, result.err) or json.loads(result.out)['count'] != len(some) + 1:
            fail(f'status {result.status}\n{result.err}\nin place of\n{told}\n{result.out}')
    many = run(korva, 'merge', write(scratch, 'damaged', 'x\n' * 30), os.path.join(scratch, 'missing'))
    if many.status != 2 or len(many.err.splitlines()) != 12 or '20 further lines are no traces' not in many.err:
        fail(f'status {many.status}\n{many.err}')


CASES = {'shards': test_shards, 'live': test_live, 'property': test_property, 'views': test_views, 'damage': test_damage}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--korva')
    parser.add_argument('--list', action='store_true')
    parser.add_argument('case', nargs='?', choices=CASES)
    arguments = parser.parse_args()
    if arguments.list:
        print('\n'.join(CASES))
        return
    with tempfile.TemporaryDirectory() as scratch:
        CASES[arguments.case](os.path.realpath(arguments.korva), scratch)


if __name__ == '__main__':
    main()
