#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""`korva record` on a program whose functions do known shares of its work: by ptrace and from inside.

  record_test.py --korva PROGRAM
"""
import argparse
import collections
import json
import os
import re
import signal
import subprocess
import tempfile
import time

from support import SOURCES, build, fail, run, skip

NOBODY = 65534


def expect(condition, what, result=None):
    if not condition:
        fail(what if result is None else f'{what}\nstatus {result.status}\n{result.out[:3000]}\n{result.err}')


def may_trace(pid):
    with open(f'/proc/{pid}/status', encoding='ascii') as file:
        return 'TracerPid:\t0' in file.read()


class Burn:
    """The program, running until the end of a with statement."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen(arguments)

    def __enter__(self):
        return self.process

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def count_by(result, key):
    """Samples by what a trace has; a trace may have several keys."""
    counts = collections.Counter()
    for line in result.out.splitlines():
        trace = json.loads(line)
        expect(trace['count'] == sum(owner['count'] for owner in trace['owners']), f'counts do not add up: {line}')
        for found in key(trace):
            counts[found] += trace['count']
    return counts


def functions(trace):
    return {frame['function'] for frame in trace['frames']}


def check_shares(result, what, fewest):
    """Work is done seventy to thirty, by two threads alike: within five standard deviations of so many samples."""
    expect(result.status in (0, 1), what, result)
    counts = count_by(result, functions)
    total = counts['seventy'] + counts['thirty']
    expect(total >= fewest, f'{what}: {total} samples in functions that burn', result)
    share, tolerance = counts['seventy'] / total, max(0.08, 5 * (0.7 * 0.3 / total) ** 0.5)
    expect(abs(share - 0.7) < tolerance, f'{what}: {share:.3f} of {total} samples in seventy', result)
    expect(counts['both'] > 0.97 * total, f'{what}: the callers of {total} samples: {counts}', result)
    names = count_by(result, lambda trace: {owner['name'] for owner in trace['owners']})
    expect('second' in names, f'{what}: threads are {names}', result)
    outermost = count_by(result, lambda trace: {trace['end']})
    expect(outermost['outermost'] > 0.95 * sum(outermost.values()), f'{what}: ends {outermost}', result)
    expect(re.search(r'samples of \d+ threads? (from inside|by ptrace) in .* missed; threads stood still for at most .* us a sample', result.err),
           f'{what}: no cost told', result)


def check_attached(korva, burn, folder):
    with Burn(burn, 'threads', '60') as process:
        check_shares(run(korva, 'record', '-p', str(process.pid), '--hz=199', '--seconds=1.5', '--format=jsonl'),
                     'a process', 60)
        expect(may_trace(process.pid), 'the process is still traced')
        output = os.path.join(folder, 'traces')
        recorder = subprocess.Popen([korva, 'record', '-p', str(process.pid), '-o', output], stderr=subprocess.PIPE)
        time.sleep(0.5)
        recorder.send_signal(signal.SIGINT)
        err = recorder.communicate()[1].decode()
        with open(output, encoding='ascii') as file:
            expect('"function":"both"' in file.read() and recorder.returncode in (0, 1), f'interrupted: {err}')
        for _ in range(5):
            recorder = subprocess.Popen([korva, 'record', '-p', str(process.pid), '--hz=5000', '-o', output])
            time.sleep(0.1)
            recorder.kill()
            recorder.wait()
        time.sleep(0.05)
        expect(may_trace(process.pid) and process.poll() is None, 'the recorder was killed, and the process suffers')
        for thread in os.listdir(f'/proc/{process.pid}/task'):
            with open(f'/proc/{process.pid}/task/{thread}/stat', encoding='ascii') as file:
                expect(') R ' in file.read(), f'thread {thread} does not run on')


def check_ends(korva, burn):
    with Burn(burn, 'threads', '0.3') as process:
        begin = time.monotonic()
        result = run(korva, 'record', '-p', str(process.pid), '--seconds=60', '--format=jsonl')
        expect(count_by(result, functions)['both'] > 5 and time.monotonic() - begin < 30, 'a process that ends', result)
        expect(process.wait() == 0, 'its end is its own')


def check_command(korva, burn):
    for way in ([], ['--ptrace']):
        result = run(korva, 'record', *way, '--hz=199', '--format=jsonl', '--', burn, 'threads', '0.5')
        check_shares(result, f'a command {way}', 60)
        expect(('by ptrace' if way else 'from inside') in result.err, f'a command {way}', result)
        for mode in ('churn', 'signals'):
            result = run(korva, 'record', *way, '--hz=999', '--format=jsonl', '--', burn, mode, '0.2')
            expect(result.status in (0, 1) and 'ended' not in result.err, f'{mode} {way}', result)
            wanted = 'churn' if mode == 'churn' else 'burn_and_tell'  # of threads that take microseconds few are seen
            expect(count_by(result, functions)[wanted] > 0, f'{mode} {way}: no sample in {wanted}', result)
    result = run(korva, 'record', '--format=jsonl', '--', burn, 'nothing', '0')
    expect('ended with status 64' in result.err, 'how a command ended is told', result)
    result = run(korva, 'record', '--format=jsonl', '--', './no-such-program')
    expect(result.status == 2 and './no-such-program: cannot be run: No such file' in result.err, 'no command', result)


def check_changes(korva, burn, library):
    """What is loaded, and what is executed, while it is recorded."""
    for way in ([], ['--ptrace']):
        result = run(korva, 'record', *way, '--hz=499', '--format=jsonl', '--', burn, 'library', '0.3', library)
        expect(count_by(result, functions)['burn_in_library'] > 20, f'a library {way}', result)
        result = run(korva, 'record', *way, '--hz=499', '--format=jsonl', '--', burn, 'exec', '0.2')
        counts = count_by(result, functions)
        expect(counts['burn_and_tell'] > 10 and counts['both'] - counts['burn_and_tell'] > 10, f'exec {way}', result)


def check_from_outside(korva, folder):
    """Programs that the library cannot be loaded into."""
    for flag in ('-static', '-m32'):
        program = os.path.join(folder, f'burn{flag}')
        source = os.path.join(SOURCES, 'burn.c')
        try:
            built = run('gcc', '-O1', '-g', '-pthread', flag, source, '-o', program)
            runs = built.status == 0 and run(program, 'nothing', '0').status == 64
        except OSError:
            runs = False
        if not runs:
            print(f'LEFT OUT: programs of gcc {flag}, which are not built or do not run here')
            continue
        result = run(korva, 'record', '--hz=199', '--format=jsonl', '--', program, 'threads', '0.3')
        expect(count_by(result, functions)['seventy'] > 10 and 'by ptrace' in result.err, flag, result)
        # Those in clock_gettime of the 32-bit vDSO do not get out of it.
        counts = count_by(result, lambda trace: {trace['end']} if 'seventy' in functions(trace) else set())
        expect(counts['outermost'] > 0.9 * sum(counts.values()), f'{flag}: ends {counts}', result)


def check_refusals(korva, burn):
    result = run(korva, 'record', '-p', '999999999', '--format=jsonl')
    expect(result.status == 2 and 'no such process' in result.err, 'no process', result)
    result = run(korva, 'record')
    expect(result.status == 64 and 'either -p PID or -- COMMAND' in result.err, 'neither', result)
    with Burn(burn, 'threads', '60') as process:
        if os.geteuid() == 0:
            options = {'user': NOBODY, 'group': NOBODY, 'extra_groups': []}
            if subprocess.run([korva, '--version'], check=False, capture_output=True, **options).returncode != 0:
                return  # not a place where nobody may run it
            result = run(korva, 'record', '-p', str(process.pid), '--seconds=1', **options)
        else:
            result = run(korva, 'record', '-p', '1', '--seconds=1')
        expect(result.status == 2 and re.search('cannot attach|Permission denied|may not be read', result.err),
               'somebody else\'s process', result)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--korva', required=True)
    korva = parser.parse_args().korva
    with tempfile.TemporaryDirectory() as folder:
        burn, library = os.path.join(folder, 'burn'), os.path.join(folder, 'library.so')
        build('gcc', ['-O1', '-g', '-pthread'], ['burn.c'], burn)
        build('gcc', ['-O1', '-g', '-shared', '-fPIC'], ['burn_library.c'], library)
        with Burn(burn, 'threads', '60') as process:
            result = run(korva, 'record', '-p', str(process.pid), '--seconds=0.1')
            if 'Operation not permitted' in result.err:
                skip(f'nothing may be traced here: {result.err}')
        check_attached(korva, burn, folder)
        check_ends(korva, burn)
        check_command(korva, burn)
        check_changes(korva, burn, library)
        check_from_outside(korva, folder)
        check_refusals(korva, burn)


if __name__ == '__main__':
    main()
