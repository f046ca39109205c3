#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Files that are not where they were: in the cache of debuginfod, at its servers, below a sysroot, in a container.

Everything is asked of this machine alone, in a network of its own. A real debuginfod serves what is served; beside it are servers that say nothing, and
others that send something else."""
import argparse
import contextlib
import hashlib
import http.server
import json
import os
import pty
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request

from support import SOURCES, answer_of, enter_own_network, fail, need, run, skip, write

LINE = re.compile(r'main\.c:\d+')


def build_id_of(file):
    return re.search(r'Build ID: (\w+)', answer_of('readelf', '-n', file)).group(1)


class Program:
    """Stripped at `path`, with its debug file and its whole self elsewhere."""

    def __init__(self, folder, name, *flags):
        self.path, self.debug, self.whole = (os.path.join(folder, name + ending) for ending in ('', '.debug', '.whole'))
        build_id = hashlib.sha1(name.encode()).hexdigest()
        answer_of('gcc', '-g', f'-Wl,--build-id=0x{build_id}', *flags, '-o', self.whole)
        answer_of('objcopy', '--only-keep-debug', self.whole, self.debug)
        answer_of('strip', '-o', self.path, self.whole)
        self.id = build_id_of(self.path)
        self.main = re.search(r'^0*(\w+) T main$', answer_of('nm', self.whole), re.M).group(1)


class Silent:
    """Keeps what it is asked for, and says nothing."""

    def __enter__(self):
        self.listening = socket.create_server(('127.0.0.1', 0))
        self.url = f'http://127.0.0.1:{self.listening.getsockname()[1]}'
        self.open, self.asked = [], set()
        threading.Thread(target=self.accept, daemon=True).start()
        return self

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                self.open.append(self.listening.accept()[0])
                self.asked.update(self.open[-1].recv(4096).split()[1:2])

    def __exit__(self, *_):
        self.listening.close()
        for connection in self.open:
            connection.close()


class Sender(http.server.ThreadingHTTPServer):
    """Sends the bytes of a file, whatever it is asked for, so many times; then it says nothing. Without a file it has none.
    Keeps what it was asked for."""

    def __init__(self, file=None, times=1000):
        super().__init__(('127.0.0.1', 0), self.Handler)
        self.url, self.asked, self.contents, self.times = f'http://127.0.0.1:{self.server_port}', [], None, times
        self.is_over = threading.Event()
        if file is not None:
            with open(file, 'rb') as opened:
                self.contents = opened.read()
        threading.Thread(target=self.serve_forever, args=(0.01,), daemon=True).start()

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = 'HTTP/1.1' # connections stay

        def do_GET(self):
            self.server.asked.append(self.path)
            if len(self.server.asked) > self.server.times:
                self.server.is_over.wait()
            if self.server.contents is None:
                self.send_error(404)
                return
            self.send_response(200)
            self.send_header('Content-Length', str(len(self.server.contents)))
            self.end_headers()
            with contextlib.suppress(ConnectionError): # whoever asked has gone
                self.wfile.write(self.server.contents)

        def log_message(self, *_):
            pass

    def __exit__(self, *_):
        self.is_over.set()
        self.shutdown()
        self.server_close()


def free_port():
    with socket.create_server(('127.0.0.1', 0)) as listening:
        return listening.getsockname()[1]


@contextlib.contextmanager
def real_server(folder, served, build_id):
    """debuginfod, once it knows the build-id. It has an own folder, and ends with the test."""
    port = free_port()
    url = f'http://127.0.0.1:{port}'
    environment = {**os.environ, 'HOME': folder, 'DEBUGINFOD_URLS': '', 'DEBUGINFOD_CACHE_PATH': f'{folder}/server_cache'}
    with open(f'{folder}/log', 'wb') as log, subprocess.Popen(
            ['debuginfod', '-F', '-t0', '-g0', '-c1', '-p', str(port), '-d', f'{folder}/files.sqlite', served],
            stdout=log, stderr=log, env=environment) as process:
        try:
            for _ in range(1500):
                with contextlib.suppress(urllib.error.URLError, ConnectionError):
                    with urllib.request.urlopen(f'{url}/buildid/{build_id}/debuginfo', timeout=5):
                        break
                if process.poll() is not None:
                    break
                time.sleep(0.02)
            else:
                fail('debuginfod does not find what it serves')
            if process.poll() is not None:
                with open(f'{folder}/log', encoding='utf-8', errors='replace') as told:
                    fail(f'debuginfod ended: {told.read()}')
            yield url
        finally:
            process.terminate()


class Client:
    """The program with a cache of its own, which is new for each case."""

    def __init__(self, korva, folder):
        self.korva, self.folder, self.made = korva, folder, 0
        self.fresh_cache()

    def fresh_cache(self):
        self.made += 1
        self.cache = f'{self.folder}/cache{self.made}'

    def cached(self, program, kind='debuginfo'):
        return os.path.join(self.cache, program.id, kind)

    def run(self, *arguments, urls=(), text='', stderr=subprocess.PIPE, **environment):
        clean = {name: value for name, value in os.environ.items() if 'DEBUGINFOD' not in name}
        began = time.monotonic()
        result = run(self.korva, *arguments, text=text, stderr=stderr, env={
            **clean, 'DEBUGINFOD_CACHE_PATH': self.cache, 'DEBUGINFOD_URLS': ' '.join(urls), 'DEBUGINFOD_TIMEOUT': '1',
            **environment})
        result.seconds = time.monotonic() - began
        return result

    def line(self, program, *options, **how):
        """The line of main, or None."""
        result = self.run('addr', '-e', program.path, *options, 'main', **how)
        found = LINE.search(result.out)
        return found and found.group(0), result

    def looked_for(self, program, *options, **how):
        """[(by, outcome, reason)] for the debug file."""
        result = self.run('explain', '-e', program.path, '--format=json', *options, '0x1139', **how)
        return [(place['by'], place['outcome'], place['reason'] or '') for place in
                json.loads(result.out)[0]['debug_file']['looked_for']]


def expect(condition, what, *facts):
    if not condition:
        fail(' '.join([what, *(repr(fact if not hasattr(fact, 'err') else (fact.status, fact.out, fact.err)) for fact in facts)]))


def test_servers(client, url, known, unknown):
    """What is asked, of whom, and what stays."""
    with Sender() as idle:
        for options, environment in ((), {}), ((), {'KORVA_DEBUGINFOD': '0'}), (('--debuginfod=false',), {'KORVA_DEBUGINFOD': '1'}):
            line, result = client.line(known, *options, urls=[idle.url], **environment)
            expect(line is None and not idle.asked, 'a server was asked though nobody told to:', idle.asked, result)
        client.line(known, '--raw', '--debuginfod', urls=[idle.url])
        client.line(known, urls=[idle.url], KORVA_DEBUGINFOD='1')
        expect(idle.asked == [f'/buildid/{known.id}/debuginfo'], 'asked was', idle.asked)
        # The other server may have what this one lacks, whatever that one answered first.
        client.fresh_cache()
        line, result = client.line(known, '--debuginfod', urls=[idle.url, url + '/'])
        expect(line is not None and not result.err, 'of two servers the second has it:', result)
    # What came stays, for others and without a server.
    line, result = client.line(known)
    expect(line is not None, 'in the cache:', client.cache, result)
    expect(('debuginfod-cache', 'taken', '') in client.looked_for(known), 'in the cache:', client.looked_for(known))
    # 404: told, and remembered by the cache.
    tried = client.looked_for(unknown, '--debuginfod', urls=[url])
    expect(tried[-1] == ('debuginfod', 'not there', ''), '404:', tried)
    with Sender(unknown.debug) as late:
        tried = client.looked_for(unknown, '--debuginfod', urls=[late.url])
        expect(tried[-1][:2] == ('debuginfod', 'not there') and not late.asked, 'the cache knows better:', tried, late.asked)
    _, result = client.line(known, '--debuginfod', DEBUGINFOD_CACHE_PATH=f'{client.folder}/none')
    expect('DEBUGINFOD_URLS: it names no server' in result.err, 'no servers:', result)


def test_bad_servers(client, url, known, unknown, other):
    """Each is told once, none is used, and none is asked twice."""
    log = ''.join(f'    #{i} 0x55d0c8 in f (/nowhere/{i}+0x{p.main}) (BuildId: {p.id})\n' for i, p in enumerate((known, unknown, other)))
    dead = f'http://127.0.0.1:{free_port()}'
    client.fresh_cache()
    with Silent() as silent:
        result = client.run('filter', '--debuginfod', urls=[silent.url], text=log)
        expect(len(silent.asked) == 1 and result.err.count('silent for 1 s') == 1, 'asked again:', silent.asked, result)
        expect(result.seconds < 10, 'waited for', result.seconds)
        client.fresh_cache()
        result = client.run('filter', '--debuginfod', urls=[silent.url, dead, url], text=log)
        expect('main.c' in result.out and len(silent.asked) == 1, 'a third that answers:', silent.asked, result)
        expect(re.search(rf'{dead}\S*: Connection refused', result.err), 'the dead one:', result)
        client.fresh_cache()
        tried = client.looked_for(unknown, '--debuginfod', urls=[dead, silent.url])
        expect([outcome for by, outcome, _ in tried if by == 'debuginfod'] == ['no answer'] * 2, 'told:', tried)
    with Sender(known.debug, times=1) as tired:
        client.fresh_cache()
        result = client.run('filter', '--debuginfod', urls=[tired.url], text=log)
        expect('main.c' in result.out and result.err.count('silent for 1 s') == 1 and len(set(tired.asked)) == 2 and result.seconds < 10,
               'silent after a while:', tired.asked, result)
    wrong = f'its build-id is {other.id}, not {known.id}'
    with Sender(other.debug) as liar:
        client.fresh_cache()
        line, result = client.line(known, '--debuginfod', urls=[liar.url])
        expect(line is None and f'{liar.url}/buildid/{known.id}/debuginfo is refused: {wrong}' in result.err, 'a liar:', result)
        expect(not os.path.exists(client.cached(known)), 'its file stays in', client.cache)
        line, result = client.line(known, '--debuginfod', urls=[liar.url, url])
        expect(line is not None and len(liar.asked) == 2, 'a liar before the right one:', liar.asked, result)
        client.fresh_cache()
        result = client.run('filter', '--debuginfod', urls=[liar.url], text=log)
        expect(len(set(path.split('/')[2] for path in liar.asked[2:])) == 1 and 'main.c' not in result.out, 'a liar is asked again:',
               liar.asked, result)
    with Sender(SOURCES + '/main.c') as liar:
        line, result = client.line(known, '--debuginfod', urls=[liar.url, url])
        expect(line is not None, 'no ELF file:', result)
    # What lies in the cache is refused; it goes when servers are asked, and only then.
    shutil.copy(other.debug, client.cached(known))
    line, result = client.line(known, urls=[url])
    expect(line is None and wrong in result.err and os.path.exists(client.cached(known)), 'a wrong file in the cache:', result)
    line, result = client.line(known, '--debuginfod', urls=[url])
    expect(line is not None and build_id_of(client.cached(known)) == known.id, 'a wrong file in the cache:', result)


def test_alternate(client, known, other):
    """The file that dwz lets several share."""
    if shutil.which('dwz') is None:
        print('left out: dwz is not installed')
        return
    both = [shutil.copy(program.whole, f'{program.whole}.shared') for program in (known, other)]
    common = f'{client.folder}/common'
    answer_of('dwz', '-m', common, '-M', f'{client.folder}/nowhere', *both)
    client.fresh_cache()
    with Sender(common) as sender:
        for options, is_there in ((), False), (('--debuginfod',), True), ((), True):
            result = client.run('addr', '-e', both[0], *options, 'main', urls=[sender.url])
            expect(('alternate file is not found' in result.err) != is_there, 'the shared file:', options, result)
        expect(sender.asked == [f'/buildid/{build_id_of(common)}/debuginfo'], 'asked for the shared file was', sender.asked)


def test_bounds(client, known):
    """A run does not ask for ever, whatever it is asked. What a terminal shows meanwhile."""
    client.fresh_cache()
    questions = ''.join(json.dumps({'build_id': f'{number:040x}', 'addr': '0x10'}) + '\n' for number in range(1 << 64, (1 << 64) + 510))
    with Sender() as idle:
        result = client.run('addr', '--jsonl', '--debuginfod', urls=[idle.url], text=questions)
        expect(len(idle.asked) == 1000 and result.err.count('servers were asked 1000 times: ') == 1 and 'given up' not in result.err,
               'asked without end:', len(idle.asked), result.err)
    client.fresh_cache()
    shown, terminal = pty.openpty()
    with Silent() as silent:
        result = client.run('addr', '-e', known.path, '--debuginfod', 'main', urls=[silent.url], stderr=terminal, DEBUGINFOD_TIMEOUT='100',
                            KORVA_DEBUGINFOD_SECONDS='2')
        os.close(terminal)
        text = os.read(shown, 1 << 16).decode()
        os.close(shown)
        line = rf'\r\x1b\[K{silent.url}/buildid/{known.id}/debuginfo \(KiB\) \.\.\.'
        expect(result.seconds < 20 and re.match(rf'({line})+\r\x1b\[Kkorva: servers have taken 2 s: .*\r\n', text), 'on a terminal:',
               result.seconds, text)


def wait_for_pause(process):
    """Until it sleeps in pause(2), which is number 34. False: it has ended."""
    for _ in range(1000):
        with contextlib.suppress(OSError):
            with open(f'/proc/{process.pid}/syscall', encoding='ascii') as syscall:
                if syscall.read().startswith('34 '):
                    return True
        if process.poll() is not None:
            return False
        time.sleep(0.01)
    return fail('the program does not get to its pause')


def core_of(program, folder):
    """A core file of the program, in the call-back of qsort; without its code, which stands in the file."""
    core = os.path.join(folder, 'core')
    with subprocess.Popen([program.path]) as process:
        try:
            expect(wait_for_pause(process), 'it ended')
            answer_of('gdb', '-nx', '-batch', '-iex', 'set debuginfod enabled off', '-p', str(process.pid), '-ex', f'gcore {core}')
        finally:
            process.kill()
    return core


def functions_of(result):
    return [frame['function'] for frame in json.loads(result.out)[0]['frames']]


def sources_of(result):
    """The functions that have a line in wait.c."""
    return [frame['function'] for frame in json.loads(result.out)[0]['frames'] if (frame['file'] or '').endswith('wait.c')]


def test_process(client, url, waiting):
    """A live process: servers are asked when it runs on."""
    client.fresh_cache()
    with subprocess.Popen([waiting.path]) as process:
        try:
            expect(wait_for_pause(process), 'it ended')
            result = client.run('stack', '-p', str(process.pid), '--format=json', '--debuginfod', urls=[url])
            expect(sources_of(result) == ['compare', 'main'], 'live:', result)
        finally:
            process.kill()


def test_core(client, url, waiting, core):
    """A core file whose executable is gone."""
    result = client.run('stack', '--core', core, '--format=json', urls=[url])
    expect('main' not in functions_of(result), 'the executable is still there:', result)
    result = client.run('stack', '--core', core, '--format=json', '--debuginfod', urls=[url])
    frames = json.loads(result.out)[0]['frames']
    expect(sources_of(result) == ['compare', 'main'], 'by build-id:', result)
    expect(os.path.exists(client.cached(waiting, 'executable')) and os.path.exists(client.cached(waiting)), 'cached are',
           os.listdir(client.cache))
    expect(len(os.listdir(client.cache)) <= 8, 'asked for files that no frame is in:', os.listdir(client.cache))
    result = client.run('stack', '--core', core, '--format=json')
    expect(json.loads(result.out)[0]['frames'] == frames, 'from the cache:', result)
    # An executable by build-id in a folder, with neither cache nor server; its debug file beside it.
    folder = os.path.join(client.folder, 'by_id', '.build-id', waiting.id[:2])
    os.makedirs(folder)
    shutil.copy(waiting.path, os.path.join(folder, waiting.id[2:]))
    shutil.copy(waiting.debug, os.path.join(folder, waiting.id[2:] + '.debug'))
    client.fresh_cache()
    result = client.run('stack', '--core', core, '--format=json', '--debug-dir', os.path.join(client.folder, 'by_id'))
    expect(json.loads(result.out)[0]['frames'] == frames, 'from a folder:', result)


def test_sysroot(client, waiting, recorded, core):
    """Another system's files below a folder, with links that are absolute there."""
    root = os.path.join(client.folder, 'root')
    place, moved = root + os.path.dirname(recorded), os.path.join(root, 'moved', os.path.basename(recorded))
    debug = os.path.join(root, 'usr', 'lib', 'debug', 'moved')
    for folder in os.path.dirname(place), os.path.dirname(moved), debug:
        os.makedirs(folder)
    os.symlink('/moved', place)
    answer_of('objcopy', f'--add-gnu-debuglink={waiting.debug}', waiting.path, moved)
    shutil.copy(waiting.debug, debug)
    result = client.run('stack', '--core', core, '--format=json', '--sysroot', root)
    libc = json.loads(result.out)[0]['frames'][0]['module']
    expect(len(functions_of(result)) == 1, 'a library from outside of the sysroot:', result)
    os.makedirs(root + os.path.dirname(libc), exist_ok=True)
    shutil.copy(libc, root + libc)
    result = client.run('stack', '--core', core, '--format=json', '--sysroot', root)
    expect(sources_of(result) == ['compare', 'main'], 'sysroot:', result)
    # A file that the user names, below the sysroot by another path.
    result = client.run('addr', '-e', moved, '--sysroot', os.path.relpath(root), 'main')
    expect('wait.c' in result.out, 'debug file below the sysroot:', result)


def test_container(client, folder):
    """A process with another root, whose files are only there. The ways that this machine allows."""
    static = Program(folder, 'contained', '-static', os.path.join(SOURCES, 'wait.c'))
    root = os.path.join(folder, 'container')
    os.makedirs(root + '/usr/lib/debug/bin')
    os.makedirs(root + '/bin')
    shutil.copy(static.path, root + '/bin/contained')
    answer_of('objcopy', f'--add-gnu-debuglink={static.debug}', root + '/bin/contained')
    shutil.copy(static.debug, root + '/usr/lib/debug/bin')
    for name in 'path', 'debug', 'whole':
        os.remove(getattr(static, name))
    enter = f'mount --bind {root} {root} && cd {root} && mkdir -p old && pivot_root . old && exec "$0"'
    tried = []
    for way in ['chroot', root], ['unshare', '--mount', 'sh', '-c', enter], ['unshare', '--user', '--map-root-user', 'chroot', root]:
        with subprocess.Popen([*way, '/bin/contained'], stderr=subprocess.PIPE) as process:
            try:
                if not wait_for_pause(process):
                    print(f'left out: {" ".join(way)}: {process.stderr.read().decode().strip()}')
                    continue
                result = client.run('stack', '-p', str(process.pid), '--format=json')
                places = [(f['function'], os.path.basename(f['file'] or '')) for f in json.loads(result.out)[0]['frames']]
                expect(('compare', 'wait.c') in places and ('main', 'wait.c') in places, f'{way}:', places, result)
                tried.append(way[0])
            finally:
                process.kill()
    return tried


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--korva', required=True)
    korva = os.path.realpath(parser.parse_args().korva)
    need('gcc', 'readelf', 'objcopy', 'strip', 'nm', 'gdb')
    is_alone = enter_own_network()
    with tempfile.TemporaryDirectory() as folder:
        folder = os.path.realpath(folder)
        client = Client(korva, folder)
        os.makedirs(f'{folder}/served')
        both = [os.path.join(SOURCES, name) for name in ('main.c', 'table.c')]
        known, unknown, other = (Program(folder, name, *both) for name in ('known', 'unknown', 'other'))
        waiting = Program(folder, 'waiting', os.path.join(SOURCES, 'wait.c'))
        core = core_of(waiting, folder)
        for file in known.debug, waiting.debug, waiting.path:
            shutil.copy(file, f'{folder}/served')
        recorded = waiting.path
        os.rename(waiting.path, waiting.path + '.gone')
        waiting.path += '.gone'
        test_sysroot(client, waiting, recorded, core)
        print('other roots:', *test_container(client, folder))
        if shutil.which('debuginfod') is None:
            skip('debuginfod is not installed')
        if not is_alone:
            skip('no network of its own can be made here, and debuginfod would listen on those of the machine')
        with real_server(folder, f'{folder}/served', known.id) as url:
            test_servers(client, url, known, unknown)
            test_bad_servers(client, url, known, unknown, other)
            test_alternate(client, known, other)
            test_bounds(client, known)
            test_core(client, url, waiting, core)
            test_process(client, url, waiting)
    print('passed')


main()
