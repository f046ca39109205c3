# SPDX-License-Identifier: Apache-2.0
"""What both test scripts of the program share: running programs, building samples, skipping and failing."""
import fcntl
import os
import shutil
import socket
import struct
import subprocess
import sys

import schemas

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'sources')
SKIPPED = 77
GO = shutil.which('go') or '/usr/lib/go-1.19/bin/go'


class Result:
    def __init__(self, done):
        self.status = done.returncode
        self.out = done.stdout.decode('utf-8', 'surrogateescape')
        self.err = done.stderr.decode('utf-8', 'surrogateescape')


def run(*command, text='', **options):
    """Runs a program to its end, with text as its standard input."""
    options.setdefault('stdout', subprocess.PIPE)
    options.setdefault('stderr', subprocess.PIPE)
    if options.get('stdin') is None:
        options['input'] = text.encode('utf-8', 'surrogateescape')
    done = subprocess.run(command, timeout=300, check=False, **options)
    done.stdout, done.stderr = done.stdout or b'', done.stderr or b''
    result = Result(done)
    fault = schemas.find_fault(command, result.out) if os.path.basename(command[0]) == 'korva' else None
    if fault is not None:
        fail(f'{" ".join(command)}: {fault}')
    return result


def answer_of(*command, **options):
    """Standard output of a program that must succeed: a compiler, or an independent reader."""
    result = run(*command, **options)
    if result.status != 0:
        fail(f'{" ".join(command)}: status {result.status}\n{result.err}')
    return result.out


def write(folder, name, contents):
    """Makes a file, and returns its path."""
    path = os.path.join(folder, name)
    with open(path, 'w', encoding='utf-8', newline='') as file:
        file.write(contents)
    return path


def fail(text):
    print(f'FAILED: {text}')
    sys.exit(1)


def skip(why):
    print(f'SKIPPED, NOTHING WAS TESTED: {why}')
    sys.exit(SKIPPED)


def need(*programs):
    for program in programs:
        if shutil.which(program) is None:
            skip(f'{program} is not installed')


def build(compiler, flags, sources, output):
    """Compiles sources; skips where the compiler is missing or builds not even an empty program with the flags."""
    need(compiler)
    command = [compiler, *flags, *(os.path.join(SOURCES, s) for s in sources), '-o', output]
    result = run(*command, cwd=os.path.dirname(output))
    if result.status == 0:
        return
    language = 'c++' if sources[0].endswith('.cpp') else 'c'
    # A header of the library tells a missing runtime from sources that do not compile.
    empty = ('#include <string>\n' if language == 'c++' else '') + 'int main(void) { return 0; }\n'
    if run(compiler, *flags, '-x', language, '-', '-o', output, text=empty).status != 0:
        skip(f'{compiler} {" ".join(flags)} builds no program here')
    fail(f'{" ".join(command)}\n{result.err}')


def build_go(flags, output):
    need(GO)
    folder = os.path.dirname(output)
    environment = dict(os.environ, GO111MODULE='off', GOFLAGS='', HOME=folder, GOCACHE=os.path.join(folder, 'cache'))
    answer_of(GO, 'build', *flags, '-o', output, '.', cwd=os.path.join(SOURCES, 'go'), env=environment)


def enter_own_network():
    """Begins again in a network that has the loopback interface and no other, for servers that
    listen on all there are. False where none can be made."""
    IS_IN = 'KORVA_TEST_OWN_NETWORK'
    if IS_IN in os.environ:
        request = struct.pack('16sh', b'lo', 0x41)  # IFF_UP, IFF_RUNNING
        with socket.socket() as any_socket:
            fcntl.ioctl(any_socket, 0x8914, request)  # SIOCSIFFLAGS
        return True
    for way in (['unshare', '--net'], ['unshare', '--map-root-user', '--net']):
        if shutil.which('unshare') and run(*way, 'true').status == 0:
            os.environ[IS_IN] = '1'
            os.execvp(way[0], [*way, sys.executable, '-B', *sys.argv])
    return False
