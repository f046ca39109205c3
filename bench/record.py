#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What sampling costs a program: how much longer it takes for the same work, with samplers taking turns.

  bench/record.py --korva PROGRAM [--rounds N]

The program has two threads that compute twenty calls deep. A sampler that is not installed, or may not sample here, is left
out, aloud.
"""
import argparse
import os
import shutil
import statistics
import subprocess
import tempfile

PROGRAM = r'''
#include <pthread.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>
static volatile unsigned long sink;
__attribute__((noinline)) static void work(int depth)
{
    if (depth > 0)
        work(depth - 1);
    else
        for (int i = 0; i < 1000000; ++i)
            sink += i;
    sink++;
}
static void *run(void *unused)
{
    for (int i = 0; i < 1200; ++i)
        work(18);
    return unused;
}
int main(void)
{
    char go;
    if (read(0, &go, 1) < 0)
        return 1;
    struct timespec a, b;
    pthread_t thread;
    clock_gettime(CLOCK_MONOTONIC, &a);
    pthread_create(&thread, NULL, run, NULL);
    run(NULL);
    pthread_join(thread, NULL);
    clock_gettime(CLOCK_MONOTONIC, &b);
    printf("%f\n", b.tv_sec - a.tv_sec + (b.tv_nsec - a.tv_nsec) / 1e9);
    return 0;
}
'''


def loop(command):
    """A debugger that is started for every sample, one after the other."""
    return ['sh', '-c', f'n=0; while kill -0 {{pid}} 2>/dev/null; do {command} >/dev/null 2>&1; n=$((n+1)); done; echo $n samples >&2']


def samplers(korva, output):
    for hz in (99, 999):
        yield f'korva record -p, {hz} Hz', [korva, 'record', '-p', '{pid}', f'--hz={hz}', '-o', output], False
        yield f'korva record -- command, {hz} Hz', [korva, 'record', f'--hz={hz}', '-o', output, '--'], True
        for graph in ('fp', 'dwarf'):
            yield (f'perf record --call-graph {graph}, {hz} Hz',
                   ['perf', 'record', '-e', 'cpu-clock', '-F', str(hz), '--call-graph', graph, '-o', output, '-p', '{pid}'], False)
    yield 'gdb, one after the other', loop('gdb -nx -batch -p {pid} -ex "thread apply all bt"'), False
    yield 'eu-stack, one after the other', loop('eu-stack -p {pid}'), False


def measure(program, command, starts_it):
    """Seconds that the program takes, and what the sampler says."""
    before = command if starts_it else []
    process = subprocess.Popen([*before, program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    sampler = None
    if command and not starts_it:
        words = [word.replace('{pid}', str(process.pid)) for word in command]
        sampler = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        try:
            sampler.wait(0.7)  # it is ready, or it cannot
        except subprocess.TimeoutExpired:
            pass
    out, err = process.communicate('x')
    if sampler is not None:
        err = sampler.communicate()[1]
    return float(out), ' '.join(err.split())[-300:]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--korva', required=True)
    parser.add_argument('--rounds', type=int, default=5)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        source, program = os.path.join(folder, 'work.c'), os.path.join(folder, 'work')
        with open(source, 'w', encoding='ascii') as file:
            file.write(PROGRAM)
        subprocess.run(['gcc', '-O1', '-fno-optimize-sibling-calls', '-fno-omit-frame-pointer', '-g', '-pthread', source, '-o', program], check=True)
        rows = []
        for name, command, starts_it in samplers(options.korva, os.path.join(folder, 'out')):
            if shutil.which(name.split(',')[0].split()[0]) is None and not name.startswith('korva'):
                print(f'{name}: LEFT OUT, not installed')
            else:
                rows.append((name, command, starts_it))
        ratios, said = {}, {}
        for _ in range(options.rounds):
            for name, command, starts_it in rows:
                alone = measure(program, [], False)[0]
                taken, said[name] = measure(program, command, starts_it)
                ratios.setdefault(name, []).append(taken / alone)
        for name, values in ratios.items():
            print(f'{name}: {(statistics.median(values) - 1) * 100:+.2f} % ({min(values):.3f} to {max(values):.3f}); {said[name]}')


if __name__ == '__main__':
    main()
