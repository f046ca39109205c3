# SPDX-License-Identifier: Apache-2.0
"""Core files, many of few programs. A debugger writes one of each program; the others are copies of it, in which every thread
has the registers of one that is drawn: so they wait in other places, and there are as many different crowds as cores."""
import os
import random
import struct
import subprocess

from support import answer_of, build

PT_NOTE, NT_PRSTATUS = 4, 1
REGISTERS = slice(112, 112 + 27 * 8)  # of struct elf_prstatus of AMD64: pr_reg


def build_programs(folder):
    """Three programs of one source: optimized, not optimized, and one whose debugging information is in a file beside it."""
    programs = []
    for name, flags in (('crowd2', ['-O2', '-g']), ('crowd0', ['-O0', '-g']), ('crowd_apart', ['-O1', '-g'])):
        programs.append(os.path.join(folder, name))
        build('gcc', [*flags, '-pthread', '-Wl,--build-id'], ['crowd.c'], programs[-1])
    apart = programs[-1]
    answer_of('objcopy', '--only-keep-debug', apart, f'{apart}.debug')
    answer_of('objcopy', '--strip-debug', f'--add-gnu-debuglink={apart}.debug', apart)
    return programs


def dump(program, threads, core):
    """The core of a program that a debugger reads while it waits."""
    with subprocess.Popen([program, str(threads)], stdout=subprocess.PIPE) as process:
        try:
            process.stdout.readline()
            while any(state_of(process.pid, tid) != 'S' for tid in os.listdir(f'/proc/{process.pid}/task')):
                pass  # on their way
            answer_of('gdb', '-nx', '-batch', '-iex', 'set debuginfod enabled off', '-ex', f'gcore {core}', '-p', str(process.pid))
        finally:
            process.kill()


def state_of(pid, tid):
    with open(f'/proc/{pid}/task/{tid}/stat', encoding='utf-8', errors='replace') as file:
        return file.read().rpartition(')')[2].split()[0]


def places_of_registers(core):
    """Where in a core file of AMD64 the registers of each thread are."""
    offset, = struct.unpack_from('<Q', core, 32)
    size, count = struct.unpack_from('<HH', core, 54)
    for header in range(offset, offset + size * count, size):
        kind, _, at, _, _, length = struct.unpack_from('<IIQQQQ', core, header)
        end = at + length
        while kind == PT_NOTE and at < end:
            name, described, note = struct.unpack_from('<III', core, at)
            at += 12 + (name + 3) // 4 * 4
            if note == NT_PRSTATUS:
                yield slice(at + REGISTERS.start, at + REGISTERS.stop)
            at += (described + 3) // 4 * 4


def make_cores(folder, count, threads):
    """Paths of so many core files of so many threads each, the same on every call but for what differs by process."""
    chance = random.Random(1)
    originals = []
    for program in build_programs(folder):
        dump(program, threads, f'{program}.core')
        with open(f'{program}.core', 'rb') as file:
            originals.append(file.read())
    paths = []
    for number in range(count):
        original = originals[number % len(originals)]
        places = list(places_of_registers(original))
        core = bytearray(original)
        for place in places:
            core[place] = original[chance.choice(places)]
        paths.append(os.path.join(folder, f'core.{number}'))
        with open(paths[-1], 'wb') as file:
            file.write(core)
    return paths


def shards_of(paths, count):
    """As somebody would deal them out."""
    return [paths[number::count] for number in range(count)]
