# SPDX-License-Identifier: Apache-2.0
"""Chromium without a screen, spoken to over a pipe by its DevTools protocol."""
import base64
import fcntl
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

PATIENCE = 120  # seconds for an answer


def find():
    return shutil.which('chromium') or shutil.which('chromium-headless-shell')


class Browser:
    """One page, in a browser that reaches no network. Use it in a with statement."""

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix='korva_browser.')
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 16) for pair in (os.pipe(), os.pipe()) for end in pair]
        read, self.to, self.come, write = ends

        def place():  # where the browser looks for them
            os.dup2(read, 3)
            os.dup2(write, 4)

        self.program = subprocess.Popen(
            [find(), '--headless=new', '--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-dev-shm-usage', '--remote-debugging-pipe',
             '--host-resolver-rules=MAP * ~NOTFOUND', '--disable-background-networking', '--disable-component-update',
             f'--user-data-dir={self.folder}', 'about:blank'],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, preexec_fn=place, pass_fds=(3, 4))
        os.close(read)
        os.close(write)
        self.number, self.bytes, self.events = 0, b'', []
        self.session = None
        page = next(t for t in self.ask('Target.getTargets')['targetInfos'] if t['type'] == 'page')
        self.session = self.ask('Target.attachToTarget', targetId=page['targetId'], flatten=True)['sessionId']
        for domain in ('Page', 'Network', 'Runtime', 'Log'):
            self.ask(f'{domain}.enable')
        return self

    def __exit__(self, *_):
        self.program.terminate()
        self.program.wait(30)
        os.close(self.to)
        os.close(self.come)
        shutil.rmtree(self.folder, ignore_errors=True)

    def receive(self, until):
        while b'\0' not in self.bytes:
            if not select.select([self.come], [], [], max(0, until - time.monotonic()))[0]:
                raise TimeoutError('the browser does not answer')
            got = os.read(self.come, 1 << 20)
            if not got:
                raise EOFError('the browser has ended')
            self.bytes += got
        text, self.bytes = self.bytes.split(b'\0', 1)
        return json.loads(text)

    def ask(self, method, **parameters):
        self.number += 1
        message = {'id': self.number, 'method': method, 'params': parameters}
        if self.session is not None:
            message['sessionId'] = self.session
        os.write(self.to, json.dumps(message).encode() + b'\0')
        until = time.monotonic() + PATIENCE
        while True:
            got = self.receive(until)
            if got.get('id') == self.number:
                if 'error' in got:
                    raise RuntimeError(f'{method}: {got["error"]["message"]}')
                return got['result']
            self.events.append(got)

    def open(self, path):
        """Opens a file; seconds until it is loaded. What happens from then on is in events."""
        self.events = []
        begin = time.monotonic()
        self.ask('Page.navigate', url=f'file://{path}')
        while not any(event.get('method') == 'Page.loadEventFired' for event in self.events):
            self.events.append(self.receive(begin + PATIENCE))
        return time.monotonic() - begin

    def run(self, script):
        """The value of an expression, or what its promise comes to."""
        got = self.ask('Runtime.evaluate', expression=script, returnByValue=True, awaitPromise=True)
        if 'exceptionDetails' in got:
            raise RuntimeError(got['exceptionDetails'].get('exception', {}).get('description', 'a script failed'))
        return got['result'].get('value')

    def press(self, key):
        for kind in ('rawKeyDown', 'keyUp'):
            self.ask('Input.dispatchKeyEvent', type=kind, key=key)

    def click(self, script, times=1):
        """Clicks the middle of the element that an expression has."""
        x, y = self.run(f'(e => {{ e.scrollIntoView({{block: "center"}}); const r = e.getBoundingClientRect(); '
                        f'return [r.x + r.width / 2, r.y + r.height / 2]; }})({script})')
        for count in range(1, times + 1):
            for kind in ('mousePressed', 'mouseReleased'):
                self.ask('Input.dispatchMouseEvent', type=kind, x=x, y=y, button='left', clickCount=count)

    def requests(self):
        return [event['params']['request']['url'] for event in self.events if event.get('method') == 'Network.requestWillBeSent']

    def picture(self, path, width, height, dark=False):
        self.ask('Emulation.setDeviceMetricsOverride', width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.ask('Emulation.setEmulatedMedia', features=[{'name': 'prefers-color-scheme', 'value': 'dark' if dark else 'light'}])
        self.run('new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))')
        with open(path, 'wb') as file:
            file.write(base64.b64decode(self.ask('Page.captureScreenshot')['data']))
