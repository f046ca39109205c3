#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What engines spread over machines: questions and processes as JSON Lines, and the recipes of docs/recipes.md.

  reach_test.py --korva PROGRAM --targets FOLDER CASE
  reach_test.py --list
"""
import argparse
import json
import os
import pwd
import random
import re
import socket
import subprocess
import tempfile
import time

from stack_test import build_32, wait_until_settled
from support import SOURCES, answer_of, build, fail, need, run, skip, write

SEED = 20


def build_programs(folder):
    """Programs of their own lines and build-ids, the last with its debugging information in a folder of such files."""
    programs = [os.path.join(folder, f'program {n}') for n in range(3)]
    for program, flags, sources in zip(programs, (['-gdwarf-5'], ['-gdwarf-4'], ['-g']),
                                       (['main.c', 'table.c'], ['inlined.c'], ['inlined.c'])):
        build('gcc', ['-O2', '-Wl,--build-id', *flags], sources, program)
    build_id = re.search(r'Build ID: (\w+)', answer_of('readelf', '-n', programs[2])).group(1)
    debug = os.path.join(folder, 'symbols', '.build-id', build_id[:2])
    os.makedirs(debug)
    answer_of('objcopy', '--only-keep-debug', programs[2], f'{debug}/{build_id[2:]}.debug')
    return programs, build_id


def code_of(program):
    start, size = re.search(r' \.text +PROGBITS +(\w+) +\w+ +(\w+)', answer_of('readelf', '-SW', program)).groups()
    return int(start, 16), int(size, 16)


def make_questions(programs, build_id, count):
    """Lines, and for each what it is about: a program and an address; nothing for one that cannot be answered."""
    generator = random.Random(SEED)
    code = {program: code_of(program) for program in programs}
    lines, about = [], []
    for number in range(count):
        program = generator.choice(programs)
        start, size = code[program]
        address = start + generator.randrange(size)
        named = {'build_id': build_id} if build_id and program == programs[-1] else {'module': program}
        lines.append(json.dumps({'id': number, **named, 'addr': generator.choice([address, hex(address)])}))
        about.append((program, address))
    for line in ('', '{', '[1]', '{"id":"x"}', '{"id":1.50,"module":"/nowhere","addr":1}', '{"id":[{"a":-0.0}],"addr":"0x1"}',
                 '{"id":1,"build_id":"../../etc","addr":1}', '{"id":1,"build_id":"00112233","addr":1}',
                 '{"id":1,"module":"/","addr":1}', f'{{"module":"{programs[0]}","addr":-1}}', '{"id":' + '[' * 100000):
        at = generator.randrange(len(lines))
        lines.insert(at, line)
        about.insert(at, None)
    return lines, about


def answer_questions(korva, lines, *options):
    return run(korva, 'addr', '--jsonl', *options, text=''.join(f'{line}\n' for line in lines))


def test_questions(korva, _, folder):
    """Each line is answered where it stands, by what `korva addr -e` says, however the input is split."""
    programs, build_id = build_programs(folder)
    options = ('--debug-dir', f'{folder}/symbols', '-s')
    lines, about = make_questions(programs, build_id, 300)
    whole = answer_questions(korva, lines, *options)
    records = [json.loads(line) for line in whole.out.splitlines()]
    asked = [(line, what) for line, what in zip(lines, about) if line]  # a blank line asks nothing
    if whole.status != 1 or len(records) != len(asked):
        fail(f'status {whole.status}, {len(records)} answers to {len(asked)} questions: {whole.err[:1000]}')
    for program in programs:
        mine = [(record, what[1]) for record, (_, what) in zip(records, asked) if what and what[0] == program]
        theirs = run(korva, 'addr', '-s', '-e', program, '--format=jsonl', text='\n'.join(hex(a) for _, a in mine)).out
        for (record, _), line in zip(mine, theirs.splitlines()):
            expected = json.loads(line)
            if any(record[key] != value for key, value in expected.items() if key != 'input'):
                fail(f'{record}\nbut of the file alone {expected}')
    for record, (line, what) in zip(records, asked):
        expected = json.loads(line).get('id') if what or re.match(r'\{.*\}$', line) else None
        if record['id'] != expected or (what is None and (record['status'] == 'ok' or not record['error']['messages'])):
            fail(f'{line[:200]}\nis answered by {record}')
    if '"id":1.50,' not in whole.out or '"id":[{"a":-0.0}]' not in whole.out:
        fail('an id is written in another way')

    generator = random.Random(SEED)
    for most in (1, 2, 64):
        out, at = '', 0
        while at < len(lines):
            end = at + generator.choice([1, 10, 100, len(lines)])
            out += answer_questions(korva, lines[at:end], *options, '--cache', str(most)).out
            at = end
        if out != whole.out:
            fail(f'split into pieces, with --cache {most}, the answers are others')

    with subprocess.Popen([korva, 'addr', '--jsonl', *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                          bufsize=1) as talk:
        for line, record in zip([line for line, what in asked if what][:3], [r for r, (_, what) in zip(records, asked) if what]):
            talk.stdin.write(line + '\n')
            if json.loads(talk.stdout.readline()) != record:  # waits: it must not be held back
                fail(f'asked alone: {line}')
        talk.stdin.close()


# What runs, and how many bytes of its stacks are taken.
PROCESSES = {
    'threads': (lambda targets, _: [f'{targets}/target_o0', 'threads', '5'], 6, '64K'),
    'deep': (lambda targets, _: [f'{targets}/target_o2', 'recurse', '1000'], 1, '1M'),
    'altstack': (lambda targets, _: [f'{targets}/target_o2', 'altstack'], 1, '16K'),
    'static': (lambda targets, _: [f'{targets}/target_static', 'signal'], 1, '64K'),
    'no-hdr': (lambda targets, _: [f'{targets}/target_no_hdr', 'callback'], 1, '64K'),
    'debug-frame': (lambda targets, _: [f'{targets}/target_debug_frame', 'threads', '1'], 2, '64K'),
}


def record_threads(korva, command, threads, size):
    """The threads of a process, as records that have their frames and what it takes to walk them again; and its maps."""
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as process:
        try:
            wait_until_settled(process, threads)
            records = answer_of(korva, 'stack', '-p', str(process.pid), '--format=jsonl', f'--raw-stack={size}')
            with open(f'/proc/{process.pid}/maps', encoding='utf-8') as maps:
                return [json.loads(line) for line in records.splitlines()], maps.read()
        finally:
            process.kill()


def unwind(korva, records, *options):
    result = run(korva, 'unwind', *options, text=''.join(json.dumps(record) + '\n' for record in records))
    answers = [json.loads(line) for line in result.out.splitlines()]
    if len(answers) != len(records):
        fail(f'{len(answers)} answers to {len(records)} records: {result.err[:1000]}')
    return answers


def compare_frames(name, records, answers):
    for record, answer in zip(records, answers):
        if (answer['frames'], answer['end'], answer['status']) != (record['frames'], 'outermost', 'ok'):
            fail(f'{name}: {answer["status"]} {answer["message"]}\n  of the process {record["frames"]}\n'
                 f'  of the record {answer["frames"]}')


def modules_of_maps(maps):
    """Mappings one by one, as the system lists them."""
    modules = []
    for line in maps.splitlines():
        fields = line.split(maxsplit=5)
        if len(fields) == 6 and fields[5].startswith('/'):
            start, end = fields[0].split('-')
            modules.append({'path': fields[5], 'start': start, 'end': end, 'offset': int(fields[2], 16)})
    return modules


def test_missing(korva, record, folder):
    """A file that is not there, or has no code, ends the walk with that reason, and what is before it stands."""
    libc = next(module for module in record['modules'] if '/libc.so' in module['path'])
    inner = [frame['module'] for frame in record['frames']].index(libc['path'])
    debug = os.path.join(folder, 'libc.debug')
    answer_of('objcopy', '--only-keep-debug', libc['path'], debug)
    for path, why in ((f'{folder}/nowhere', 'No such file or directory'), (folder, 'not a regular file'),
                      (debug, 'has debugging information alone, no code'), ('', 'no file of build-id')):
        others = [dict(module, path=path, build_id='0011223344' if path == '' else None) if module == libc else module
                  for module in record['modules']]
        answer, = unwind(korva, [dict(record, modules=others)])
        frames = answer['frames']
        if [frame['pc'] for frame in frames] != [frame['pc'] for frame in record['frames'][:inner + 1]] or (
                answer['end'], answer['status']) != ('no-fde', 'error') or why not in answer['message']:
            fail(f'{why}: {answer}')
        if path == debug and frames[-1]['address'] != record['frames'][inner]['address']:
            fail(f'what is known of the address is not told: {frames[-1]}')
    symbols = os.path.join(folder, 'symbols', '.build-id', libc['build_id'][:2])
    os.makedirs(symbols)
    os.symlink(libc['path'], f'{symbols}/{libc["build_id"][2:]}')
    os.symlink(debug, f'{symbols}/{libc["build_id"][2:]}.debug')
    others = [dict(module, path=None) if module == libc else module for module in record['modules']]
    answer, = unwind(korva, [dict(record, modules=others)], '--debug-dir', f'{folder}/symbols')
    if [frame['pc'] for frame in answer['frames']] != [frame['pc'] for frame in record['frames']] or answer['status'] != 'ok':
        fail(f'found by its build-id: {answer}')


def walk_again(korva, targets, folder, processes):
    """Walks records of live processes without them, frame by frame as `korva stack` does; returns the records."""
    kept = []
    for name, (make, threads, size) in processes.items():
        records, maps = record_threads(korva, make(targets, folder), threads, size)
        compare_frames(name, records, unwind(korva, records))
        mapped = [dict(record, modules=modules_of_maps(maps) +
                       [m for m in record['modules'] if m['path'] == '[vdso]']) for record in records]
        compare_frames(f'{name}, by its maps', records, unwind(korva, mapped))
        kept += records
    return kept


def test_32_bits(korva, targets, folder):
    walk_again(korva, targets, folder, {'m32': (lambda _, scratch: build_32(scratch), 1, '64K')})


def test_unwind(korva, targets, folder):
    """Records of live processes are walked without them; whatever else a record holds costs that record alone."""
    kept = walk_again(korva, targets, folder, PROCESSES)
    thread = kept[0]
    test_missing(korva, thread, folder)

    top = thread['stack'][-1]
    registers = thread['registers']
    changes = (
        ({'id': 7, 'stack': []}, 'error', 'cannot be read|failed'),
        ({'id': 7, 'stack': [dict(top, bytes='AA')]}, 'error', 'cannot be read|failed'),
        ({'id': 7, 'stack': [dict(top, bytes='?')]}, 'error', 'are no base64'),
        ({'id': 7, 'stack': [dict(top, address=2 ** 64 - 2)]}, 'error', 'end beyond the last address'),
        ({'id': 7, 'stack': [3]}, 'error', 'stack: a member is no object'),
        ({'id': 7, 'modules': [{'path': '/bin/true', 'start': 5, 'end': 5}]}, 'error', 'a module ends at 0x5'),
        ({'id': 7, 'modules': [{'path': '/bin/true', 'start': 5}]}, 'error', 'a module has no end'),
        ({'id': 7, 'modules': [{'build_id': '../x', 'start': 5, 'end': 6}]}, 'error', r'build_id \.\./x is none'),
        ({'id': 7, 'modules': [{'path': '/bin/true\0', 'start': 5, 'end': 6}]}, 'error', 'the path of a module has a NUL'),
        ({'id': 7, 'registers': {'rip': registers['rip']}}, 'error', 'registers have no rsp'),
        ({'id': 7, 'registers': None}, 'error', 'no registers'),
        ({'id': 7, 'target': 'vax'}, 'error', 'target is vax'),
        ({'id': 7, 'target': 'i386'}, 'error', 'registers have no eip'))
    answers = unwind(korva, [thread, *(each for change, _, _ in changes for each in (dict(thread, **change), thread))])
    compare_frames('beside others', [thread] * (len(changes) + 1), answers[::2])
    for (change, status, why), bad in zip(changes, answers[1::2]):
        if bad['id'] != 7 or bad['status'] != status or not re.search(why, bad['error']['messages'][0]):
            fail(f'{change}: {bad}')

    lines = [json.dumps(dict(record, id=number)) + '\n' for number, record in enumerate(kept)]
    whole = run(korva, 'unwind', '-C', text=''.join(lines)).out
    pieces = (lines[:1], lines[1:7], lines[7:9], lines[9:])
    if whole != ''.join(run(korva, 'unwind', '-C', '--cache=1', text=''.join(piece)).out for piece in pieces):
        fail('piece by piece, with --cache 1, the answers are others')


def recipe_of(heading):
    """The commands below a heading of docs/recipes.md, the first of them."""
    with open(os.path.join(SOURCES, '..', '..', '..', 'docs', 'recipes.md'), encoding='utf-8') as file:
        section = re.search(rf'^## {heading}$.*?^```sh\n(.*?)^```$', file.read(), re.M | re.S)
    return section.group(1)


def follow_recipe(korva, folder, heading, **environment):
    """Follows it with questions in the folder, and compares what comes out with one run."""
    programs, _ = build_programs(folder)
    lines, _ = make_questions(programs, None, 15000)  # more than a piece
    with open(os.path.join(folder, 'questions.jsonl'), 'w', encoding='utf-8') as file:
        file.write(''.join(f'{line}\n' for line in lines))
    whole = answer_questions(korva, lines).out
    environment = {**os.environ, **environment, 'PATH': f'{os.path.dirname(korva)}:{os.environ["PATH"]}'}
    told = run('sh', '-c', recipe_of(heading), cwd=folder, env=environment).err
    with open(os.path.join(folder, 'answers.jsonl'), encoding='utf-8') as file:
        if file.read() != whole:
            fail(f'the answers of {heading} are not those of one run: {told[:1000]}')


def test_parallel(korva, _, folder):
    need('parallel')
    follow_recipe(korva, folder, 'GNU parallel')


SLURM = """ClusterName=test
SlurmctldHost={host}(127.0.0.1)
SlurmctldPort={ports[0]}
SlurmdPort={ports[1]}
CommunicationParameters=NoInAddrAny,NoCtldInAddrAny
AuthType=auth/none
CredType=cred/none
SlurmUser={user}
SlurmdUser={user}
StateSaveLocation={folder}/state
SlurmdSpoolDir={folder}/spool
SlurmctldPidFile={folder}/slurmctld.pid
SlurmdPidFile={folder}/slurmd.pid
ProctrackType=proctrack/pgid
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SelectType=select/linear
SchedulerType=sched/builtin
MpiDefault=none
NodeName={host} NodeAddr=127.0.0.1 CPUs={processors}
PartitionName=main Nodes={host} Default=YES State=UP OverSubscribe=FORCE:4
"""


def free_ports(count):
    sockets = [socket.create_server(('127.0.0.1', 0)) for _ in range(count)]
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


def test_slurm(korva, _, folder):
    """A cluster of this machine alone, in the test's folder."""
    need('slurmctld', 'slurmd', 'sbatch', 'sinfo')
    if os.getuid() != 0:
        skip('slurmd starts jobs as root')
    slurm = os.path.join(folder, 'slurm')
    for name in ('state', 'spool'):
        os.makedirs(f'{slurm}/{name}')
    configuration = write(slurm, 'slurm.conf', SLURM.format(
        host=socket.gethostname().split('.')[0], ports=free_ports(2), user=pwd.getpwuid(os.getuid()).pw_name, folder=slurm,
        processors=os.cpu_count()))
    environment = dict(os.environ, SLURM_CONF=configuration)
    with open(f'{slurm}/log', 'wb') as log:
        daemons = [subprocess.Popen([name, '-D'], env=environment, stdout=log, stderr=log) for name in ('slurmctld', 'slurmd')]
    try:
        for _ in range(300):
            if 'idle' in run('sinfo', '--noheader', '--format=%T', env=environment).out:
                break
            if any(daemon.poll() is not None for daemon in daemons):
                break
            time.sleep(0.1)
        if 'idle' not in run('sinfo', '--noheader', '--format=%T', env=environment).out:
            with open(f'{slurm}/log', encoding='utf-8', errors='replace') as log:
                skip(f'no Slurm starts here: {log.read()[-2000:]}')
        follow_recipe(korva, folder, 'A Slurm array', SLURM_CONF=configuration)
    finally:
        for daemon in daemons:
            daemon.terminate()
        for daemon in daemons:
            daemon.wait()


CASES = {
    'questions': test_questions,
    'unwind': test_unwind,
    'unwind32': test_32_bits,
    'parallel': test_parallel,
    'slurm': test_slurm,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--korva')
    parser.add_argument('--targets')
    parser.add_argument('--list', action='store_true')
    parser.add_argument('case', nargs='?', choices=CASES)
    arguments = parser.parse_args()
    if arguments.list:
        print('\n'.join(CASES))
        return
    with tempfile.TemporaryDirectory() as folder:
        CASES[arguments.case](os.path.realpath(arguments.korva), arguments.targets, folder)


if __name__ == '__main__':
    main()
