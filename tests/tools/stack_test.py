#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`korva stack` held against gdb and eu-stack: live processes and their core files, frame by frame.

  stack_test.py --korva PROGRAM --targets FOLDER CASE
  stack_test.py --list
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import tempfile
import time

from support import answer_of, build, fail, need, run, skip

GDB_SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'stacks.gdb.py')
GDB = ('gdb', '-nx', '-batch', '-iex', 'set debuginfod enabled off', '-iex', 'set backtrace past-main on',
       '-iex', 'set backtrace past-entry on')


def build_32(folder):
    output = os.path.join(folder, 'wait32')
    build('gcc', ['-m32', '-O2', '-fomit-frame-pointer', '-gdwarf-4'], ['wait.c'], output)
    try:
        with subprocess.Popen([output]) as process:
            process.kill()
    except OSError as error:
        skip(f'this kernel runs no 32-bit programs: {error}')
    return [output]


def build_inlined(compiler):
    def make(_, folder):
        output = os.path.join(folder, 'inlined')
        build(compiler, ['-O2', '-g'], ['inlined.c'], output)
        return [output]
    return make


# What runs, given the folder of the test's targets and a scratch folder; and the threads it has.
CASES = {
    'sleep': (lambda targets, scratch: ['sleep', '1000'], 1),
    'bash': (lambda targets, scratch: ['bash', '-c', 'f() { read line; }; f; f'], 1),
    'python3': (lambda targets, scratch: ['/usr/bin/python3', '-c', 'import time; time.sleep(1000)'], 1),
    'threads': (lambda targets, scratch: [f'{targets}/target_o0', 'threads', '20'], 21),
    'recurse': (lambda targets, scratch: [f'{targets}/target_o2', 'recurse', '1000'], 1),
    'omit-frame-pointer': (lambda targets, scratch: [f'{targets}/target_o2', 'callback'], 1),
    'static': (lambda targets, scratch: [f'{targets}/target_static', 'signal'], 1),
    'no-hdr': (lambda targets, scratch: [f'{targets}/target_no_hdr', 'callback'], 1),
    'debug-frame': (lambda targets, scratch: [f'{targets}/target_debug_frame', 'threads', '5'], 6),
    'signal': (lambda targets, scratch: [f'{targets}/target_o2', 'altstack'], 1),
    'm32': (lambda targets, scratch: build_32(scratch), 1),
    'inlined': (build_inlined('gcc'), 1),
    'inlined-clang': (build_inlined('clang'), 1),
}


# Where a debugger stops a program: what runs, and the debugger's commands until it stands there.
STOPS = {
    'plt': (lambda targets: [f'{targets}/target_o2', 'callback'],
            ['starti', "tbreak 'qsort@plt'", 'continue'], 'sort_something'),
    'vdso': (lambda targets: ['date'], ['starti', 'tbreak __vdso_clock_gettime', 'continue'], 'clock_gettime'),
    'null': (lambda targets: [f'{targets}/target_o2', 'null'], ['run'], 'call_nothing'),
    'abort': (lambda targets: [f'{targets}/target_o2', 'crash', '5'], ['run'], 'abort'),
}


def state_of(pid, tid):
    with open(f'/proc/{pid}/task/{tid}/stat', encoding='utf-8', errors='replace') as file:
        return file.read().rpartition(')')[2].split()[0]


def wait_until_settled(process, threads):
    """Until every thread sleeps, twice in a row: in its position, not on its way."""
    settled = 0
    for _ in range(2000):
        if process.poll() is not None:
            fail(f'the program ended with status {process.returncode}')
        tids = os.listdir(f'/proc/{process.pid}/task')
        asleep = len(tids) == threads and all(state_of(process.pid, tid) == 'S' for tid in tids)
        settled = settled + 1 if asleep else 0
        if settled == 20:
            return
        time.sleep(0.01)
    fail('the program did not get into its position')


def parse(text):
    """[(pc, function)] of every thread, from the output of eu-stack, or of our script for gdb."""
    stacks, frames = {}, None
    for line in text.splitlines():
        if found := re.match(r'TID (\d+):', line):
            frames = stacks.setdefault(int(found.group(1)), [])
        elif frames is not None and (found := re.match(r'#\d+ +0x([0-9a-f]+)(?: +(?:- \d+ +)?([^@\s]+))?', line)):
            frames.append((int(found.group(1), 16), found.group(2)))
    return stacks


def parse_calls(text):
    """What gdb sees in each frame: {thread: [[(function, file, line)]]}; nothing for a function without a line."""
    stacks, frames = {}, None
    for line in text.splitlines():
        if found := re.match(r'TID (\d+):', line):
            frames = stacks.setdefault(int(found.group(1)), [])
        elif frames is not None and line.startswith('#'):
            frames.append([])
        elif frames is not None and (found := re.match(r'= (.+)\t(.*):(\d+)$', line)):
            frames[-1].append((found.group(1), os.path.realpath(found.group(2)), int(found.group(3))))
    return stacks


def compare_calls(ours, text):
    """The functions of every frame, inlined ones too, and their lines, with those of gdb; the most in one frame."""
    most = 0
    for tid, expected in parse_calls(text).items():
        for frame, theirs in zip(ours[tid]['frames'], expected):
            mine = [(call['linkage_name'] or call['function'], call['file'] and os.path.realpath(call['file']), call['line'])
                    for call in frame.get('calls', [])]
            names = answer_of('c++filt', '-p', text='\n'.join(name or '' for name, *_ in mine)).split('\n')
            mine = [(name, *place) for name, (_, *place) in zip(names, mine)]
            # gdb names no function around one that is local to it, where the entry has no mangled name.
            if theirs and not (len(mine) == len(theirs) and all(
                    a[1:] == b[1:] and f'::{a[0]}'.endswith(f'::{b[0]}') for a, b in zip(mine, theirs))):
                fail(f'thread {tid}, {frame["pc"]}:\n  ours   {mine}\n  gdb    {theirs}')
            most = max(most, len(theirs))
    return most


def same_place(module, one, other):
    """Whether two symbols of a module, or of its separate symbols, have the same value."""
    places = {}
    for options in ([], ['-D']):
        for line in run('nm', *options, module).out.splitlines():
            fields = line.split()
            if len(fields) == 3:
                places.setdefault(fields[2].split('@')[0], set()).add(int(fields[0], 16))
    return bool(places.get(one, set()) & places.get(other, set()))


def compare(ours, theirs, tool, ends_early=False):
    if not theirs:
        skip(f'{tool} could not read it: nothing to compare with')
    for tid, thread in ours.items():
        pcs = [int(frame['pc'], 16) for frame in thread['frames']]
        expected = theirs.get(tid, [])
        if ends_early and expected:
            pcs = pcs[:len(expected)]
        if pcs != [pc for pc, _ in expected]:
            fail(f'thread {tid}, {tool}:\n  ours   {[hex(pc) for pc in pcs]}\n  theirs {[(hex(p), f) for p, f in expected]}')
        for frame, (pc, function) in zip(thread['frames'], expected):
            name = frame['function']
            if name and function and name != function and not same_place(frame['module'], name, function):
                fail(f'{pc:#x}: we say {name}, {tool} says {function}')
    if set(ours) != set(theirs):
        fail(f'threads: ours {sorted(ours)}, of {tool} {sorted(theirs)}')


def stacks_of(korva, *arguments):
    threads = json.loads(answer_of(korva, 'stack', '--format=json', *arguments))
    for thread in threads:
        if thread['end'] != 'outermost':
            fail(f'thread {thread["tid"]} ended early: {thread["end"]}, {thread["message"]}')
    return {thread['tid']: thread for thread in threads}


def test_case(korva, targets, name):
    need('gdb', 'eu-stack')
    make, threads = CASES[name]
    with tempfile.TemporaryDirectory() as scratch:
        command = make(targets, scratch)
        executable = shutil.which(command[0])
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as process:
            try:
                wait_until_settled(process, threads)
                pid = str(process.pid)
                live = stacks_of(korva, '-p', pid)
                if len(live) != threads:
                    fail(f'{len(live)} threads, expected {threads}')
                of_gdb = run(*GDB, '-x', GDB_SCRIPT, '-p', pid).out
                compare(live, parse(of_gdb), 'gdb')
                if compare_calls(live, of_gdb) < (3 if 'inlined' in name else 0):
                    fail('gdb sees no inlined calls')
                # eu-stack does not get out of a 32-bit main, which realigns its stack.
                compare(live, parse(run('eu-stack', '-r', '-n', '0', '-p', pid).out), 'eu-stack', name == 'm32')
                answer_of(*GDB, '-ex', f'gcore {scratch}/core', '-p', pid)
                of_core = stacks_of(korva, '--core', f'{scratch}/core', '-e', executable)
                for tid, thread in of_core.items():
                    if thread['frames'] != live[tid]['frames']:
                        fail(f'thread {tid} of the core: {thread["frames"]}\nlive: {live[tid]["frames"]}')
                of_gdb = run(*GDB, '-x', GDB_SCRIPT, executable, f'{scratch}/core').out
                compare(of_core, parse(of_gdb), 'gdb')
                compare_calls(of_core, of_gdb)
                if (after := state_of(pid, pid)) != 'S':
                    fail(f'the process was left in state {after}')
            finally:
                process.kill()


def test_stop(korva, targets, name):
    """The core of a program that a debugger has stopped, in code that no compiler wrote."""
    need('gdb', 'eu-stack')
    make, commands, function = STOPS[name]
    with tempfile.TemporaryDirectory() as scratch:
        command = make(targets)
        core, executable = f'{scratch}/core', shutil.copy(shutil.which(command[0]), scratch)
        answer_of(*GDB, *(part for text in commands for part in ('-ex', text)), '-ex', f'gcore {core}', '-ex', 'kill',
                  '--args', executable, *command[1:])
        ours = stacks_of(korva, '--core', core, '-e', executable)
        names = [frame['function'] or '' for thread in ours.values() for frame in thread['frames'][:4]]
        if not any(function in found for found in names):
            fail(f'it did not stop there: {names}')
        compare(ours, parse(run(*GDB, '-x', GDB_SCRIPT, executable, core).out), 'gdb')
        shutil.copy(korva, executable)
        told = run(korva, 'stack', '--core', core).err
        if not re.search(rf'^korva: {re.escape(executable)}: .*build-id.*; say with -e FILE where the executable is$', told, re.M):
            fail(f'of an executable that was replaced: {told}')


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--korva')
    parser.add_argument('--targets')
    parser.add_argument('--list', action='store_true')
    parser.add_argument('case', nargs='?', choices=[*CASES, *STOPS])
    arguments = parser.parse_args()
    if arguments.list:
        print('\n'.join([*CASES, *STOPS]))
    elif arguments.case in STOPS:
        test_stop(os.path.realpath(arguments.korva), arguments.targets, arguments.case)
    else:
        test_case(os.path.realpath(arguments.korva), arguments.targets, arguments.case)


if __name__ == '__main__':
    main()
