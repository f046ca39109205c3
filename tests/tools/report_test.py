#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The page that `korva report` makes, as a browser shows it: what is in it, what names from anywhere do in it, and how it takes many traces.

  report_test.py --korva PROGRAM
"""
import argparse
import json
import os
import re
import sys
import tempfile
import time

import browser
from support import SKIPPED, answer_of, fail, run, write

MANY = 3000  # traces of a page
MARK = 'document.title=window.caught=1'
HOSTILE = [f'<img src=x onerror={MARK}>', f'</script><script>{MARK}</script>', f'<!--<script>{MARK}//', f'"><svg onload={MARK}>',
           f"' autofocus onfocus={MARK} '", f']]></style><script>{MARK}</script>', '\u2028\u2029\u202eevil\u0000\u001b[2J\r\n\u0085',
           f'</bdi></td></pre></details><iframe srcdoc="<script>parent.{MARK}</script>">', f'javascript:{MARK}', '{{script}}', 'x' * (1 << 20)]
SOURCE = [f'line {n} of the source' for n in range(1, 41)]
SOURCE[19] = f'if (a < b && c > d) "</pre><script>{MARK}</script>"; // line 20'


def frame(function, file=None, line=None, module='/srv/prog', **others):
    return {'function': function, 'file': file, 'line': line, 'column': None, 'inlined': False, 'signal_frame': False, 'module': module,
            'build_id': 'c0ffee', 'address': '0x1000', **others}


def trace(names_or_frames, owners, status='ok', end='outermost', why=None):
    """The outermost frame is the first."""
    frames = [each if isinstance(each, dict) else frame(each) for each in reversed(names_or_frames)]
    error = why and {'code': None, 'section': None, 'offset': None, 'unit': None, 'messages': [why]}
    return {'v': 1, 'status': status, 'error': error, 'count': sum(owner[3] for owner in owners), 'frames': frames, 'end': end,
            'owners': [dict(zip(('process', 'tid', 'name', 'count'), owner)) for owner in owners]}


def write_traces(folder, name, traces):
    return write(folder, name, ''.join(json.dumps(each) + '\n' for each in traces))


def plain_traces(folder):
    source = write(folder, 'prog.c', '\n'.join(SOURCE) + '\n')
    secret = write(folder, 'secret', 'a password\n' * 40)
    main = frame('main', source, 20)
    return [trace(['_start', main, frame('work', source, 5), 'poll'], [('core.1', 11, 'worker', 60), ('core.2', 12, 'worker', 20)]),
            trace(['_start', main, frame('idle', '/nowhere/idle.c', 7), frame(None, module='/lib/none.so', build_id=None)], [('core.1', 13, '', 15)]),
            trace([frame('lost', secret, 1), frame('cut', f'{secret}\0.c', 1)], [('4711', 4, 'io', 4)], 'error', 'no-fde', 'nothing covers 0x1234'),
            trace([], [('core.9', 0, '', 1)], 'error', None, 'core.9: no core file')]


def hostile_traces():
    return [trace(['main', frame(text, text, 3, text, build_id=text)], [(text, 1, text, 1)], 'error', text, text) for text in HOSTILE]


def many_traces(count):
    """Different ones, whose outer functions are few."""
    for i in range(count):
        inner = [f'f{depth}_{i // 7 ** depth % 5}' for depth in range(5)] + [f'leaf_{i % 997}']
        yield trace(['_start', 'main', *inner, frame('end', '/nowhere/end.c', i + 1)], [(f'core.{i}', i + 1, 'rank', 1)])


def make_page(korva, folder, name, traces):
    """Makes a page; its path and text."""
    page = os.path.join(folder, f'{name}.html')
    done = run(korva, 'report', '-o', page, write_traces(folder, f'{name}.jsonl', traces))
    if (done.status, done.out) != (0, ''):
        fail(f'report of {name}: status {done.status}, {done.out[:200]}{done.err[:2000]}')
    with open(page, encoding='utf-8', newline='') as file:
        return page, file.read()


def check_bytes(korva, folder, name, text, traces):
    """What holds whatever reads the page."""
    data = re.findall(r'^\{"v":1.*$', text, re.M)
    key = lambda each: json.dumps(each, sort_keys=True)
    if sorted((json.loads(line) for line in data), key=key) != sorted(traces, key=key):
        fail(f'{name}: the data of the page are not the traces')
    again = answer_of(korva, 'report', write(folder, 'again.jsonl', '\n'.join(data)))
    if again != text:
        fail(f'{name}: what is taken out of a page does not make the same page')
    if text.count('<script') != 2 or text.count('</script') != 2 or re.search('<(img|svg|iframe)', text):
        fail(f'{name}: a name has made an element')


def test_refusals(korva, folder):
    good, bad = write_traces(folder, 'good.jsonl', [trace(['main'], [('1', 1, '', 1)])]), write(folder, 'bad.jsonl', 'no trace\n')
    for arguments, status, told in [((bad,), 2, 'there are no traces'), ((good, bad), 1, 'line 1'), ((good, folder + '/none'), 1, 'No such file'),
                                    ((good, '-o', folder), 2, folder), ((good, '-o', '/dev/full'), 2, 'No space left')]:
        done = run(korva, 'report', *arguments)
        if done.status != status or told not in done.err or (status == 1 and told not in done.out):
            fail(f'report {arguments}: status {done.status}, {done.err}')
    if run(korva, 'report', '-', text=open(good, encoding='utf-8').read()).out != answer_of(korva, 'report', good):
        fail('standard input gives another page than the file')


def expect(page, **wanted):
    """Expressions by what they are about, each with what it is to come to."""
    for what, (script, value) in wanted.items():
        got = page.run(script)
        if got != value:
            fail(f'{what}: {got!r} is not {value!r}')


def check_plain(page):
    about = 'document.getElementById("about").innerText'
    box = '[...document.querySelectorAll("#flames .f")].find(e => e.textContent === "{}")'
    row = '[...document.querySelectorAll("#tree .row")].find(e => e.querySelector(".name").textContent === "{}")'
    expect(page,
           title=('document.title', 'Stacks of 4 processes'),
           figures=('document.querySelector(".figures").innerText.split(/\\s+/).join(" ")', 'traces 100 processes 4 different 4 ended early 4 not read 1'),
           tree=('[...document.querySelectorAll("#tree .row")].slice(0, 4).map(e => e.querySelector(".count").textContent + e.querySelector(".name").textContent)',
                 ['95_start', '95main', '80work', '80poll']),
           widths=(f'Math.round({box.format("work")}.getBoundingClientRect().width / document.getElementById("flames").clientWidth * 100)', 80),
           hidden=('getComputedStyle(document.getElementById("plain")).display', 'none'),
           missing=('["nothing covers 0x1234", "core.9: no core file", "there is no /nowhere/idle.c", "/lib/none.so", "its name is not that of a source"]'
                    '.filter(text => !document.getElementById("missing").innerText.includes(text))', []),
           secret=('document.documentElement.textContent.includes("a password")', False))
    page.click(box.format('work'))
    expect(page, source=('document.querySelector("#about mark").textContent', SOURCE[4]),
           around=('document.querySelectorAll("#about .code > *").length', 9),
           who=(f'["core.1", "11 worker", "core.2", "80 traces", "/srv/prog", "c0ffee"].filter(text => !{about}.includes(text))', []))
    page.click(row.format('main'))
    expect(page, quoted=('document.querySelector("#about mark").textContent', SOURCE[19]))
    page.click(box.format('idle'), times=2)
    expect(page, zoom=('[...document.querySelectorAll("#flames .f")].map(e => e.textContent)', ['idle', '[none.so]']))
    page.run('document.getElementById("flames").focus()')
    page.press('Escape')
    page.press('Home')
    expect(page, out=(f'{box.format("work")} !== undefined', True))
    page.press('ArrowUp')
    expect(page, keyboard=('document.querySelector("#about .title").textContent', 'main'))
    page.press('/')
    page.ask('Input.insertText', text='PRO')
    page.press('Enter')
    expect(page, found=('document.getElementById("found").textContent', '7 functions, in 99 % of the traces'))


def check_without_scripts(page, path):
    page.ask('Emulation.setScriptExecutionDisabled', value=True)
    page.open(path)
    shown = json.dumps(page.ask('DOMSnapshot.captureSnapshot', computedStyles=[])['strings'])
    live = page.ask('DOM.querySelector', nodeId=page.ask('DOM.getDocument')['root']['nodeId'], selector='#live[hidden]')['nodeId']
    page.ask('Emulation.setScriptExecutionDisabled', value=False)
    wanted = ['"work"', 'idle', '[none.so]', 'core.1/11 worker', SOURCE[4]]
    if live == 0 or any(text.strip('"') not in shown for text in wanted):
        fail(f'without scripts: {[text for text in wanted if text not in shown]}')


def check_hostile(page):
    """Clicks everything there is, and looks whether anything ran or became more than text."""
    for script in ('[...document.querySelectorAll("#flames .f")].forEach(e => e.click())',
                   '[...document.querySelectorAll("#tree .row, #tree .twist")].forEach(e => e.click())',
                   '[...document.querySelectorAll("details")].forEach(e => e.open = true)'):
        page.run(script)
    expect(page, ran=('[window.caught ?? null, document.title]', [None, f'Stacks of {len(HOSTILE)} processes']),
           elements=('document.querySelectorAll("img, svg, iframe, object, embed, link, base, form, [onerror], [onload], [onfocus]").length', 0),
           scripts=('document.scripts.length', 2),
           names=('[...document.querySelectorAll("#tree .name")].filter(e => e.children.length > 0 || /[\\u0000-\\u001f\\u202e\\u2028]/.test(e.textContent)).length', 0),
           shown=(f'[...document.querySelectorAll("#tree .name")].filter(e => e.textContent === {json.dumps(HOSTILE[1])}).length', 1),
           long=('Math.max(...[...document.querySelectorAll("#tree .name")].map(e => e.textContent.length)) < 300', True))
    # Had one got through, the policy would have held it, and the network.
    held = page.run(f'''new Promise(done => {{
        const held = [];
        document.addEventListener('securitypolicyviolation', e => {{ held.push(e.effectiveDirective); if (held.length === 3) done(held.sort()); }});
        const script = document.createElement('script');
        script.textContent = '{MARK}';
        document.body.append(script);
        const image = new Image();
        image.src = 'http://192.0.2.1/x.png';
        fetch('http://192.0.2.1/').catch(() => 0);
    }})''')
    expect(page, caught=('window.caught ?? null', None))
    if held != ['connect-src', 'img-src', 'script-src-elem']:
        fail(f'the policy held {held}')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--korva', required=True)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix='korva_report.') as folder:
        test_refusals(options.korva, folder)
        pages = {}
        for name, traces in [('plain', plain_traces(folder)), ('hostile', hostile_traces()), ('many', list(many_traces(MANY)))]:
            pages[name], text = make_page(options.korva, folder, name, traces)
            if name != 'many':
                check_bytes(options.korva, folder, name, text, traces)
        if browser.find() is None:
            print('SKIPPED: the bytes of the pages were tested, but none was seen in a browser: chromium is not installed')
            sys.exit(SKIPPED)
        with browser.Browser() as page:
            for name, check in [('plain', check_plain), ('hostile', check_hostile), ('many', lambda _: None)]:
                seconds = page.open(pages[name])
                faults = [event['params'] for event in page.events if event.get('method') in ('Runtime.exceptionThrown', 'Log.entryAdded')]
                if faults or page.run('document.getElementById("live").hidden'):
                    fail(f'{name}: the script of the page failed: {json.dumps(faults)[:2000]}')
                check(page)
                if page.requests() != [f'file://{pages[name]}'] and name != 'hostile':  # there the test itself asked
                    fail(f'{name}: requests {page.requests()}')
            print(f'a page of {MANY} traces, {os.path.getsize(pages["many"]) >> 20} MiB, opened in {seconds:.1f} s')
            if page.run('document.querySelectorAll("#flames .f").length') < 20 or seconds > browser.PATIENCE / 2:
                fail(f'{MANY} traces: {seconds} s')
            check_without_scripts(page, pages['plain'])


if __name__ == '__main__':
    begin = time.monotonic()
    main()
    print(f'{time.monotonic() - begin:.1f} s')
