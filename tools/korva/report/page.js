// SPDX-License-Identifier: Apache-2.0
//
// The page at work. Every text of the data is foreign: it goes into the page through textContent alone.
'use strict';
(() => {
const ROW = 20;          // height of a row of the flame graph, as the style sheet has it
const MOST_ROWS = 80;    // of the flame graph; what is deeper is seen zoomed in
const THINNEST = 3;      // pixels; what is thinner is drawn as one with its neighbours
const MOST_LINES = 400;  // of the tree at once
const MOST_OWNERS = 40;
const MOST_LETTERS = 240;
const byId = id => document.getElementById(id);

// Texts

/** Without what would drive a line or its direction: those become \xNN. */
function visible(text) {
  return text.replace(/[\u0000-\u001f\u007f-\u009f\u200e\u200f\u2028-\u202e\u2066-\u2069]/g,
    c => '\\x' + c.charCodeAt(0).toString(16).padStart(2, '0'));
}
function shown(text, most = MOST_LETTERS) {
  return visible(text.length > most ? text.slice(0, most) + '\u2026' : text);
}
const basename = path => path.slice(path.lastIndexOf('/') + 1);
const plural = (n, one, many) => `${n.toLocaleString('en')} ${n === 1 ? one : many}`;
function percent(part, whole) {
  const share = whole === 0 ? 0 : part / whole * 100;
  return share >= 10 ? `${share.toFixed(0)} %` : share >= 0.1 ? `${share.toFixed(1)} %` : '< 0.1 %';
}
function nameOf(frame) {
  return frame.function ?? (frame.signal_frame ? '<signal handler called>' : frame.module ? `[${basename(frame.module)}]` : '??');
}
function placeOf(frame, short) {
  if (frame.file === null)
    return '';
  const file = short ? basename(frame.file) : frame.file;
  return frame.line === null ? file : `${file}:${frame.line}`;
}

/** An element; children are elements or texts. */
function make(tag, className, ...children) {
  const made = document.createElement(tag);
  if (className)
    made.className = className;
  made.append(...children); // a text becomes a text node, whatever is in it
  return made;
}
function foreign(text, most) {
  return make('bdi', '', shown(text, most));
}
function action(label, act) {
  const made = make('button', '', label);
  made.type = 'button';
  made.addEventListener('click', act);
  return made;
}

// Data

const traces = [];
for (const line of byId('traces').textContent.split('\n'))
  if (line !== '') {
    const trace = JSON.parse(line);
    trace.count = Number(trace.count); // beyond 2^53 it is a text
    traces.push(trace);
  }

let nodes = 0;
function makeNode(parent, name, frame) {
  return {id: nodes++, parent, name, frame, count: 0, kids: new Map(), places: new Map(), ends: [], open: false,
    depth: parent === null ? 0 : parent.depth + 1, early: false, unread: false};
}
const root = makeNode(null, 'all', null);
for (const trace of traces) {
  let at = root;
  root.count += trace.count;
  const way = trace.frames.length === 0 ? [null] : trace.frames;
  for (let i = way.length - 1; i >= 0; --i) {
    const frame = way[i], name = frame === null ? '[not read]' : nameOf(frame);
    const key = frame === null ? '' : name;
    let next = at.kids.get(key);
    if (next === undefined) {
      next = makeNode(at, name, frame);
      next.unread = frame === null;
      at.kids.set(key, next);
    }
    next.count += trace.count;
    if (frame !== null) {
      const where = `${frame.file ?? ''}\n${frame.line ?? ''}`, known = next.places.get(where);
      if (known === undefined)
        next.places.set(where, {frame, count: trace.count});
      else
        known.count += trace.count;
    }
    if (i === way.length - 1 && trace.status !== 'ok')
      next.early = true;
    at = next;
  }
  at.ends.push(trace);
}

/** All below a node, itself first, each before what is below it. */
function* walk(from) {
  const left = [from];
  while (left.length > 0) {
    const node = left.pop();
    yield node;
    for (let i = node.kids.length - 1; i >= 0; --i)
      left.push(node.kids[i]);
  }
}
{ // from here on what most came to is first
  const left = [root];
  while (left.length > 0) {
    const node = left.pop();
    node.kids = [...node.kids.values()].sort((a, b) => b.count - a.count || (a.name < b.name ? -1 : 1));
    for (const kid of node.kids)
      left.push(kid);
  }
}

// A colour for each of the modules that most frames are in.
const moduleClass = new Map();
{
  const sums = new Map();
  for (const node of walk(root))
    if (node.frame?.module)
      sums.set(node.frame.module, (sums.get(node.frame.module) ?? 0) + node.count);
  const order = [...sums].sort((a, b) => b[1] - a[1] || (a[0] < b[0] ? -1 : 1));
  const legend = byId('legend');
  order.slice(0, 7).forEach(([module], i) => {
    moduleClass.set(module, `m${i}`);
    const entry = make('span', '', make('i', `m${i}`), foreign(basename(module), 60));
    entry.title = shown(module);
    legend.append(entry);
  });
  if (order.length > 7)
    legend.append(make('span', '', make('i', 'mx'), plural(order.length - 7, 'other', 'others')));
}
const classOf = node => node.unread ? 'unread' : moduleClass.get(node.frame.module) ?? 'mx';

// State

let chosen = root.kids[0] ?? null, zoomed = root, wanted = '';
for (let at = chosen; at?.kids.length > 0 && at.kids[0].count * 3 > root.count;) // where many came by, and its lines are known
  if ((at = at.kids[0]).frame?.line)
    chosen = at;
const isHit = new Map(); // name and places as searched, by text
function hits(node) {
  if (wanted === '' || node === root)
    return false;
  const text = node.frame === null ? node.name : `${node.name}\n${node.frame.file ?? ''}\n${node.frame.module ?? ''}`;
  let is = isHit.get(text);
  if (is === undefined)
    isHit.set(text, is = text.toLowerCase().includes(wanted));
  return is;
}
function choose(node, {reveal = true, zoom = false} = {}) {
  chosen = node;
  if (zoom)
    zoomed = node;
  else if (!isBelow(node, zoomed))
    zoomed = root;
  if (reveal)
    for (let up = node.parent; up !== null; up = up.parent)
      up.open = true;
  drawFlames();
  drawTree(reveal);
  drawAbout();
}
function isBelow(node, above) {
  while (node !== null && node.depth > above.depth)
    node = node.parent;
  return node === above;
}

// Flame graph

const flames = byId('flames');
let drawn = []; // nodes by their number in the picture
function drawFlames() {
  const width = flames.clientWidth || 1000, picture = document.createDocumentFragment();
  drawn = [];
  let deepest = 0, hidden = false, left = zoomed === root ? [] : [[zoomed, 0, 0]];
  const layDown = (of, x, row) => { // from the left, what most came to first
    let rest = 0, from = 0;
    for (const kid of of.kids) {
      const size = kid.count / zoomed.count;
      if (size * width >= THINNEST) {
        left.push([kid, x, row]);
      } else {
        from = rest === 0 ? x : from;
        rest += size;
      }
      x += size;
    }
    if (rest * width >= 1)
      addBox(picture, null, from, rest, row, width);
  };
  if (zoomed === root)
    layDown(root, 0, 0);
  while (left.length > 0) {
    const [node, x, row] = left.pop();
    deepest = Math.max(deepest, row);
    addBox(picture, node, x, node.count / zoomed.count, row, width);
    if (row + 1 < MOST_ROWS)
      layDown(node, x, row + 1);
    else
      hidden ||= node.kids.length > 0;
  }
  const height = make('div');
  height.style.height = `${(deepest + (hidden ? 2 : 1)) * ROW}px`;
  if (hidden) {
    const note = make('div', 'dim', 'It goes deeper: zoom in to see more.');
    Object.assign(note.style, {position: 'absolute', top: `${(deepest + 1) * ROW}px`, left: '6px'});
    picture.append(note);
  }
  picture.append(height);
  flames.replaceChildren(picture);
  flames.classList.toggle('searched', wanted !== '');
  markFlame();
  drawCrumbs();
}
function addBox(picture, node, x, size, row, width) {
  const box = make('div', node === null ? 'f rest' : `f ${classOf(node)}`);
  Object.assign(box.style, {left: `${x * 100}%`, width: `${size * 100}%`, top: `${row * ROW}px`});
  if (node === null) {
    box.title = 'more functions, each too thin to be drawn: zoom in to see them';
  } else {
    if (size * width < 34)
      box.classList.add('thin');
    else
      box.textContent = shown(node.name, 120);
    box.title = `${shown(node.name)}\n${plural(node.count, 'trace', 'traces')}, ${percent(node.count, root.count)}`;
    box.classList.toggle('hit', hits(node));
    box.setAttribute('role', 'treeitem');
    box.setAttribute('aria-level', row + 1);
    box.id = `f${drawn.length}`;
    box.dataset.number = drawn.length;
    drawn.push(node);
  }
  picture.append(box);
}
function markFlame() {
  for (const box of flames.querySelectorAll('.chosen'))
    box.classList.remove('chosen');
  const number = drawn.indexOf(chosen), box = number < 0 ? null : byId(`f${number}`);
  box?.classList.add('chosen');
  if (box)
    flames.setAttribute('aria-activedescendant', box.id);
  else
    flames.removeAttribute('aria-activedescendant');
  if (box && document.activeElement === flames)
    box.scrollIntoView({block: 'nearest', inline: 'nearest'});
}
function drawCrumbs() {
  const way = [];
  for (let up = zoomed; up !== null; up = up.parent)
    way.unshift(up);
  const crumbs = byId('crumbs');
  crumbs.replaceChildren();
  if (zoomed === root)
    return;
  way.forEach((node, i) => {
    if (i > 1 && i < way.length - 4) { // the middle of a long way
      if (i === 2)
        crumbs.append('\u2026 \u203a');
      return;
    }
    if (i === way.length - 1)
      crumbs.append(foreign(node.name, 60));
    else
      crumbs.append(action(node === root ? 'all' : foreign(node.name, 60), () => { zoomed = node; drawFlames(); }), '\u203a');
  });
}
const nodeOf = event => {
  const number = event.target.closest?.('[data-number]')?.dataset.number;
  return number === undefined ? null : drawn[number];
};
flames.addEventListener('click', event => {
  const node = nodeOf(event);
  if (node === null)
    return;
  if (event.detail > 1)
    choose(node, {zoom: true});
  else
    choose(node);
});
function step(by) { // to a neighbour, in the order of the picture
  const all = chosen.parent.kids, next = all[all.indexOf(chosen) + by];
  if (next !== undefined && chosen !== zoomed)
    choose(next);
}
flames.addEventListener('keydown', event => {
  if (chosen === null)
    return;
  const keys = {
    ArrowDown: () => chosen.kids.length > 0 && choose(chosen.kids[0]),
    ArrowUp: () => chosen.parent !== root && chosen !== zoomed && choose(chosen.parent),
    ArrowLeft: () => step(-1),
    ArrowRight: () => step(1),
    Enter: () => choose(chosen, {zoom: true}),
    Escape: () => { zoomed = zoomed.parent ?? root; drawFlames(); },
    Home: () => { zoomed = root; drawFlames(); },
  };
  if (Object.hasOwn(keys, event.key)) {
    event.preventDefault();
    keys[event.key]();
  }
});

// Tree

const tree = byId('tree');
let lines = [], lineLimit = MOST_LINES;
const isStep = node => node.parent !== root && node.parent.kids.length === 1 && node.parent.ends.length === 0;
/** The lines that are to be seen: a node and how far it is indented. What has one way to go on is not. */
function listLines() {
  lines = [];
  const left = [];
  const push = (node, indent) => {
    for (let i = node.kids.length - 1; i >= 0; --i)
      left.push([node.kids[i], node === root ? 0 : isStep(node.kids[i]) ? indent : indent + 1]);
  };
  push(root, 0);
  while (left.length > 0 && lines.length < lineLimit) {
    const [node, indent] = left.pop();
    lines.push([node, indent]);
    if (node.open)
      push(node, indent);
  }
  return left.length > 0;
}
function setOpen(node, open) {
  node.open = open;
  for (let at = node, i = 0; open && at.kids.length === 1 && at.ends.length === 0 && i < 64; ++i)
    (at = at.kids[0]).open = true;
}
function drawTree(scroll) {
  let more = listLines();
  if (scroll && chosen !== null)
    while (more && !lines.some(([node]) => node === chosen)) {
      lineLimit *= 2;
      more = listLines();
    }
  const picture = document.createDocumentFragment();
  lines.forEach(([node, indent], i) => picture.append(makeRow(node, indent, i)));
  if (more)
    picture.append(make('div', 'more', action('Show more', () => { lineLimit *= 2; drawTree(false); })));
  tree.replaceChildren(picture);
  const number = lines.findIndex(([node]) => node === chosen), row = number < 0 ? null : byId(`t${number}`);
  if (row === null) {
    tree.removeAttribute('aria-activedescendant');
    return;
  }
  tree.setAttribute('aria-activedescendant', row.id);
  if (scroll) { // within the tree alone: the page stays where it is
    const top = row.offsetTop - tree.offsetTop;
    if (top < tree.scrollTop || top + row.offsetHeight > tree.scrollTop + tree.clientHeight)
      tree.scrollTop = top - tree.clientHeight / 3;
  }
}
function makeRow(node, indent, number) {
  const bar = make('i');
  bar.style.width = `${node.count / root.count * 100}%`;
  const twist = make('span', 'twist', node.kids.length === 0 ? '' : node.open ? '\u25be' : '\u25b8');
  twist.style.marginLeft = `${Math.min(indent, 30) * 14}px`;
  const row = make('div', 'row', make('span', 'count', node.count.toLocaleString('en')), make('span', 'share', bar), twist,
    make('span', 'name', shown(node.name)));
  if (node.frame !== null && node.frame.file !== null) {
    const others = node.places.size - 1;
    row.append(make('span', 'place', shown(placeOf(node.frame, true)) + (others > 0 ? ` and ${plural(others, 'other line', 'other lines')}` : '')));
  }
  if (node.frame?.inlined)
    row.append(make('span', 'chip', 'inlined'));
  if (node.frame?.signal_frame)
    row.append(make('span', 'chip', 'signal'));
  if (node.early && !node.unread)
    row.append(make('span', 'chip warn', 'ended early above'));
  row.classList.toggle('chosen', node === chosen);
  row.classList.toggle('hit', hits(node));
  row.id = `t${number}`;
  row.dataset.line = number;
  row.setAttribute('role', 'treeitem');
  row.setAttribute('aria-level', node.depth);
  row.setAttribute('aria-selected', node === chosen);
  if (node.kids.length > 0)
    row.setAttribute('aria-expanded', node.open);
  return row;
}
tree.addEventListener('click', event => {
  const number = event.target.closest('[data-line]')?.dataset.line;
  if (number === undefined)
    return;
  const node = lines[number][0];
  if (event.target.classList.contains('twist')) {
    setOpen(node, !node.open);
    drawTree(false);
  } else {
    choose(node, {reveal: false});
  }
});
tree.addEventListener('dblclick', event => {
  const number = event.target.closest('[data-line]')?.dataset.line;
  if (number !== undefined && !event.target.classList.contains('twist')) {
    setOpen(lines[number][0], !lines[number][0].open);
    drawTree(false);
  }
});
tree.addEventListener('keydown', event => {
  const at = lines.findIndex(([node]) => node === chosen);
  if (at < 0)
    return;
  const go = number => lines[number] !== undefined && choose(lines[number][0]);
  const toggle = open => { setOpen(chosen, open); drawTree(true); };
  const keys = {
    ArrowDown: () => go(at + 1),
    ArrowUp: () => go(at - 1),
    ArrowRight: () => chosen.open ? go(at + 1) : toggle(true),
    ArrowLeft: () => chosen.open && chosen.kids.length > 0 ? toggle(false) : chosen.parent !== root && choose(chosen.parent),
    Enter: () => toggle(!chosen.open),
    Home: () => go(0),
    End: () => go(lines.length - 1),
  };
  if (Object.hasOwn(keys, event.key)) {
    event.preventDefault();
    keys[event.key]();
  }
});

// What is told of the chosen function

const sources = new Map();
for (const each of document.querySelectorAll('#sources details'))
  sources.set(`${each.dataset.file}\n${each.dataset.line}`, each);

function drawAbout() {
  const about = byId('about');
  about.replaceChildren();
  about.hidden = chosen === null;
  if (chosen === null)
    return;
  const frame = chosen.frame, facts = make('dl');
  const tell = (what, ...value) => facts.append(make('dt', '', what), make('dd', '', ...value));
  const close = action('Close', () => { about.hidden = true; });
  close.className = 'close';
  about.append(close, make('div', 'title', foreign(chosen.name, 4000)));
  about.append(make('p', 'dim', `${plural(chosen.count, 'trace', 'traces')}, ${percent(chosen.count, root.count)} of all`));
  if (frame !== null) {
    if (frame.module !== null)
      tell('module', foreign(frame.module, 1000));
    if (frame.build_id !== null)
      tell('build-id', foreign(frame.build_id, 100));
    if (frame.address !== null)
      tell('address', foreign(frame.address, 30));
    if (frame.inlined)
      tell('inlined', 'into its caller');
  }
  about.append(facts);
  drawPlaces(about);
  drawEnds(about);
  about.scrollTop = 0;
}
function drawPlaces(about) {
  const places = [...chosen.places.values()].sort((a, b) => b.count - a.count);
  for (const {frame, count} of places.slice(0, 4)) {
    if (frame.file === null)
      continue;
    const from = make('p', 'from', foreign(placeOf(frame, false), 1000));
    if (places.length > 1)
      from.append(` (${plural(count, 'trace', 'traces')})`);
    about.append(from);
    const source = sources.get(`${frame.file}\n${frame.line}`);
    if (source !== undefined)
      for (const part of [...source.children].slice(1)) {
        const copy = about.appendChild(part.cloneNode(true));
        copy.removeAttribute('id');
      }
  }
  if (places.length > 4)
    about.append(make('p', 'from', `and ${plural(places.length - 4, 'other line', 'other lines')}`));
}
function drawEnds(about) {
  const owners = new Map(), early = new Map();
  for (const node of walk(chosen))
    for (const trace of node.ends) {
      if (trace.status !== 'ok') {
        const why = `${trace.end === null ? '' : trace.end + ': '}${trace.error?.messages.join('; ') ?? ''}`;
        early.set(why, (early.get(why) ?? 0) + trace.count);
      }
      for (const owner of trace.owners) {
        const list = owners.get(owner.process) ?? new Map();
        owners.set(owner.process, list);
        const thread = `${owner.tid}\n${owner.name}`, known = list.get(thread);
        if (known === undefined)
          list.set(thread, {...owner, count: Number(owner.count)});
        else
          known.count += Number(owner.count);
      }
    }
  if (early.size > 0) {
    about.append(make('h3', '', chosen.unread ? 'Why' : 'Walks that ended early'));
    for (const [why, count] of [...early].sort((a, b) => b[1] - a[1]).slice(0, 8))
      about.append(make('p', 'warn', `${count.toLocaleString('en')} \u00d7 `, foreign(why, 400)));
  }
  about.append(make('h3', '', `Who: ${plural(owners.size, 'process', 'processes')}`));
  const list = make('ul', 'who');
  for (const [process, threads] of [...owners].slice(0, MOST_OWNERS)) {
    const item = make('li', '', foreign(process, 200));
    const names = [...threads.values()].slice(0, 12).filter(each => each.tid !== 0).map(each =>
      `${each.tid}${each.name === '' ? '' : ` ${shown(each.name, 40)}`}${each.count === 1 ? '' : ` \u00d7 ${each.count}`}`);
    if (names.length > 0)
      item.append(make('span', 'dim', ` / ${names.join(', ')}${threads.size > 12 ? ` and ${threads.size - 12} more` : ''}`));
    list.append(item);
  }
  if (owners.size > MOST_OWNERS)
    list.append(make('li', 'dim', `and ${plural(owners.size - MOST_OWNERS, 'other', 'others')}`));
  about.append(list);
}

// Search

const search = byId('search');
function find() {
  wanted = search.value.trim().toLowerCase();
  isHit.clear();
  let within = 0;
  const names = new Set(), left = [[root, false]];
  while (wanted !== '' && left.length > 0) {
    const [node, inside] = left.pop(), is = hits(node);
    if (is) {
      names.add(node.name);
      within += inside ? 0 : node.count; // once, where it is met first
    }
    for (const kid of node.kids)
      left.push([kid, inside || is]);
  }
  byId('found').textContent = wanted === '' ? '' : names.size === 0 ? 'nothing found'
    : `${plural(names.size, 'function', 'functions')}, in ${percent(within, root.count)} of the traces`;
  drawFlames();
  drawTree(false);
}
function findNext(backwards) {
  const found = [...walk(root)].filter(hits);
  const at = found.findIndex(node => chosen !== null && node.id === chosen.id);
  if (found.length > 0)
    choose(found.at(backwards ? (at < 0 ? -1 : at - 1) : (at + 1) % found.length));
}
let timer = 0;
search.addEventListener('input', () => {
  clearTimeout(timer);
  timer = setTimeout(find, 100);
});
search.addEventListener('keydown', event => {
  if (event.key === 'Enter') {
    clearTimeout(timer);
    find();
    findNext(event.shiftKey);
  }
});
document.addEventListener('keydown', event => {
  if (event.key === '/' && document.activeElement !== search && !event.ctrlKey && !event.metaKey) {
    event.preventDefault();
    search.focus();
    search.select();
  }
});

// At the beginning the branches that most came to are open.
{
  const seen = root.kids.slice(0, 40);
  for (let count = seen.length; seen.length > 0 && count < 40;) {
    const node = seen.reduce((a, b) => b.count > a.count ? b : a);
    seen.splice(seen.indexOf(node), 1);
    node.open = true;
    count += node.kids.length;
    seen.push(...node.kids.slice(0, 40));
  }
}
document.documentElement.className = 'js';
byId('live').hidden = false;
let lastWidth = 0;
new ResizeObserver(() => {
  if (flames.clientWidth !== lastWidth) {
    lastWidth = flames.clientWidth;
    drawFlames();
  }
}).observe(flames);
drawTree(false);
drawAbout();
if (matchMedia('(max-width: 900px)').matches) // there it lies over the page
  byId('about').hidden = true;
})();
