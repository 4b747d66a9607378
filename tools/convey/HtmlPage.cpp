#include "tools/convey/HtmlPage.h"

#include <ctime>
#include <unistd.h>

#include "limits/Limits.h"
#include "tools/convey/Verdict.h"

namespace convey_tool {
namespace {

// One file that fetches nothing, and forbids that itself: what is shown comes from other processes.
constexpr const char* kHead = R"page(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<style>
:root { color-scheme: light dark; --line: #8885; --request: #2f6fc4; --good: #2e8b57; --failed: #c8362b; --late: #c77700; --mark: #ffd54a; }
@media (prefers-color-scheme: dark) { :root { --request: #7db2f5; --good: #6fcf97; --failed: #ff8a80; --late: #ffb74d; } }
body { font: 14px/1.45 system-ui, sans-serif; }
h1 { font-size: 1.2rem; margin: 0; } h1 small { font-weight: normal; opacity: .75; overflow-wrap: anywhere; }
input[type=search] { font: inherit; width: 18rem; max-width: 100%; box-sizing: border-box; }
button { font: inherit; }
table { border-collapse: collapse; }
td, th { padding: .1rem .7rem .1rem 0; text-align: left; border-bottom: 1px solid var(--line); vertical-align: top; }
td.n, th.n { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
</style>
<title>)page";

constexpr const char* kBeforeData = R"page(
<style>
body { margin: 0 auto; max-width: 76rem; padding: .8rem 1rem; }
h2 { font-size: 1rem; margin: 1.2rem 0 .3rem; }
#verdict { margin: .6rem 0; padding: .6rem .8rem; border-left: .4rem solid var(--good); background: #8881; font-size: 1.1rem; overflow-wrap: anywhere; }
#verdict.bad { border-color: var(--failed); }
#facts { opacity: .8; overflow-wrap: anywhere; }
#bar { position: sticky; top: 0; background: Canvas; border-bottom: 1px solid var(--line); padding: .4rem 0; display: flex; flex-wrap: wrap; gap: .4rem .8rem; align-items: center; z-index: 1; }
.queue { display: grid; grid-template-columns: minmax(7rem, 22rem) minmax(6rem, 1fr) minmax(7rem, auto); gap: 0 .8rem; align-items: center; }
.queue span { overflow-wrap: anywhere; }
.track { height: .8em; background: #8883; border-radius: .2em; overflow: hidden; } .track i { display: block; height: 100%; background: var(--request); min-width: 2px; }
.track i.age { background: var(--late); } .track i.full { background: var(--failed); }
.wide { overflow-x: auto; }
#messages tr { cursor: pointer; } #messages td { white-space: nowrap; max-width: 18rem; overflow: hidden; text-overflow: ellipsis; }
#messages td.text { white-space: normal; min-width: 12rem; overflow-wrap: anywhere; } #messages td.whole { max-width: none; white-space: normal; }
#tree details { margin-left: 1rem; border-left: 1px solid var(--line); padding-left: .5rem; } #tree > details { margin-left: 0; border: 0; padding: 0; }
summary { cursor: pointer; } .leaf { margin-left: 1rem; padding-left: .5rem; border-left: 1px solid var(--line); }
.value { font-family: ui-monospace, monospace; overflow-wrap: anywhere; white-space: pre-wrap; } .hit { background: var(--mark); color: black; }
</style>
</head>
<body>
<h1>Convey diagnostics <small id="of"></small></h1>
<div id="verdict" role="status"></div>
<div id="facts"></div>
<div id="bar">
<input id="search" type="search" placeholder="Search labels and values" aria-label="Search">
<button id="open-all" type="button">Unfold all</button><button id="close-all" type="button">Fold all</button>
<label><input id="empty" type="checkbox"> undefined rows</label>
<button id="copy" type="button">Copy the rows</button><span id="found" role="status"></span>
</div>
<h2>Queues</h2><div id="queues"></div>
<h2>Messages <small id="shown"></small></h2><div class="wide"><table id="messages"></table></div><button id="more" type="button" hidden>Show more</button>
<h2>All rows</h2><div id="tree"></div>
<script type="application/json" id="data">)page";

constexpr const char* kBehindData = R"page(</script>
<script>
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const $ = id => document.getElementById(id);
const PAGE = 200; // rows that are drawn at once: any number of messages shows as fast
const make = (tag, text, kind) => {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  if (kind) element.className = kind;
  return element;
};
const leaf = node => node.path.slice(node.path.lastIndexOf('/') + 1);
const child = (node, name) => node.children.find(c => leaf(c) === name);
const value = (node, name) => child(node, name)?.value ?? '';
const branches = data.root.children;
const own = name => branches.find(node => leaf(node) === name)?.value ?? '';
$('of').textContent = [data.name, 'process ' + own('process'), own('program'), data.host, data.date + ' ' + data.time,
  'version ' + own('version')].filter(text => !/^(process |version |)$/.test(text)).join(', ');
$('verdict').textContent = data.verdict;
$('verdict').classList.toggle('bad', !data.healthy);
$('verdict').hidden = !data.verdict;
$('facts').textContent = ['started ' + own('started'), 'ports in ' + own('ports')].filter(text => !/ $/.test(text)).join(', ');

// Ages. Only the time of day is known: what seems to lie ahead is of the day before.
const seconds = text => { const p = /^(\d+):(\d+):(\d+)$/.exec(text); return p ? (+p[1] * 60 + +p[2]) * 60 + +p[3] : null; };
const age = from => { const a = seconds(data.time), b = seconds(from); return a === null || b === null ? null : (a - b + 86400) % 86400; };
const people = s => s === null ? '' : s < 60 ? s + ' s' : s < 3600 ? Math.floor(s / 60) + ' min ' + s % 60 + ' s' : Math.floor(s / 3600) + ' h ' + Math.floor(s / 60) % 60 + ' min';
const dated = time => {
  const day = new Date(data.date + 'T12:00:00Z');
  if (seconds(time) > seconds(data.time)) day.setUTCDate(day.getUTCDate() - 1);
  return day.toISOString().slice(0, 10) + ' ' + time;
};

// The whole is in the rows behind it.
const shortened = text => text.length > 120 ? text.slice(0, 120) + '…' : text;

// Queues against their limits.
const messages = [];
function gauge(label, share, text, kind) {
  const line = make('div', undefined, 'queue'), track = make('div', undefined, 'track'), fill = make('i', undefined, share >= 1 ? 'full' : kind);
  fill.style.width = Math.min(100, 100 * share) + '%';
  if (share > 0) track.append(fill);
  line.append(make('span', label), track, make('span', text));
  $('queues').append(line);
}
for (const instance of branches.find(node => leaf(node) === 'instances')?.children ?? []) {
  for (const [name, label, limit] of [['in', 'came in', data.incoming], ['out', 'to go out', data.outgoing]]) {
    const queue = child(instance, name);
    if (!queue) continue;
    const without = name === 'in' ? +value(instance, 'full') : 0;
    gauge(instance.value + ', ' + label, +queue.value / limit,
      queue.value + ' of ' + limit + (without ? '; full for ' + without + (without > 1 ? ' senders' : ' sender') : ''), without ? 'full' : 'count');
    const bytes = +value(instance, name + 'bytes'), mega = bytes => (bytes / 1048576).toFixed(1);
    if (bytes > 0) gauge('bytes', bytes / data.bytes, mega(bytes) + ' of ' + mega(data.bytes) + ' MiB', 'count');
    let oldest = null;
    for (const node of queue.children) {
      if (!/^msg/.test(leaf(node))) continue;
      const time = value(node, 'timestamp'), old = age(time), body = child(node, 'body');
      if (old !== null && (oldest === null || old > oldest)) oldest = old;
      messages.push({node, queue: label, cells: [dated(time), label, value(node, 'type'), value(node, 'sender'), value(node, 'target'),
        +value(node, 'serialnumber'), people(old), body?.value ?? '', shortened(body ? value(body, 'text') : '')]});
    }
    if (oldest !== null) gauge('oldest', oldest / 600, people(oldest) + ' of 10 min', 'age');
  }
}

// Rows: made when they are unfolded, as there may be hundreds of thousands.
let wanted = '', hits = new Set(), ways = new Set();
const isHidden = node => node.value === 'undefined' && node.children.length === 0 && !$('empty').checked;
function addRow(parent, node, open) {
  if (isHidden(node) || wanted && !hits.has(node) && !ways.has(node) && !hits.has(parent.node)) return;
  const folds = node.children.length > 0;
  const element = make(folds ? 'details' : 'div', undefined, folds ? '' : 'leaf');
  const line = folds ? make('summary') : element;
  if (folds) element.append(line);
  line.append(make(folds ? 'b' : 'span', node.label));
  if (node.value !== '') line.append(folds ? ': ' : ' = ', make('span', node.value, 'value'));
  line.title = node.path;
  line.classList.toggle('hit', hits.has(node));
  element.node = node;
  if (folds) {
    const fill = () => { if (element.filled) return; element.filled = true; for (const c of node.children) addRow(element, c, open); };
    element.ontoggle = () => { if (element.open) fill(); };
    if (open(node)) { element.open = true; fill(); }
  }
  parent.append(element);
}
function draw(open) {
  $('tree').replaceChildren();
  for (const node of branches) addRow($('tree'), node, open);
}
const atFirst = () => false;

// The table of messages.
let chosen = messages, drawn = 0;
const heads = ['time', 'queue', 'type', 'from', 'to', 'number', 'age', 'size', 'first line'];
function more() {
  const end = Math.min(chosen.length, drawn + PAGE);
  for (; drawn < end; ++drawn) {
    const message = chosen[drawn], line = $('messages').insertRow();
    message.cells.forEach((cell, i) => line.append(make('td', cell, i === 5 || i === 6 ? 'n' : i === 8 ? 'text' : '')));
    line.onclick = () => {
      if (line.next) { line.next.remove(); line.next = null; return; }
      line.next = make('tr');
      const cell = make('td', undefined, 'whole');
      cell.colSpan = heads.length;
      for (const c of message.node.children) { cell.node = message.node; const before = wanted; wanted = ''; addRow(cell, c, () => true); wanted = before; }
      line.next.append(cell);
      line.after(line.next);
    };
  }
  $('more').hidden = drawn >= chosen.length;
  $('shown').textContent = chosen.length === 0 ? 'none' : drawn < chosen.length ? 'the first ' + drawn + ' of ' + chosen.length : chosen.length;
}
function list() {
  $('messages').replaceChildren();
  drawn = 0;
  if (chosen.length) $('messages').append(...[make('tr')].map(line => { heads.forEach((head, i) => line.append(make('th', head, i === 5 || i === 6 ? 'n' : ''))); return line; }));
  more();
}
$('more').onclick = more;

function search(text) {
  wanted = text.toLowerCase();
  hits = new Set(); ways = new Set();
  if (wanted) (function visit(node) {
    let found = false;
    for (const c of node.children) {
      const here = (c.label + '\n' + c.value).toLowerCase().includes(wanted);
      if (here) hits.add(c);
      const below = visit(c);
      if (below) ways.add(c);
      found = found || here || below;
    }
    return found;
  })(data.root);
  chosen = wanted ? messages.filter(m => hits.has(m.node) || ways.has(m.node)) : messages;
  $('found').textContent = wanted ? hits.size + (hits.size === 1 ? ' row' : ' rows') : '';
  list();
  let room = 2000; // unfolded at once; the rest by hand
  draw(wanted ? node => ways.has(node) && room-- > 0 : atFirst);
}
$('search').oninput = event => search(event.target.value);
$('empty').onchange = () => search($('search').value);
$('open-all').onclick = () => { let room = 20000; draw(() => room-- > 0); };
$('close-all').onclick = () => draw(atFirst);
const escaped = text => text.replace(/[\\;\n]/g, c => ({'\\': '\\\\', ';': '\\3b', '\n': '\\n'})[c]);
const rows = () => { let text = ''; (function visit(node) { for (const c of node.children) { text += c.path + ';' + (c.heading ? 1 : 0) + ';' + escaped(c.label) + ';' + escaped(c.value) + ';\n'; visit(c); } })(data.root); return text; };
$('copy').onclick = () => {
  const area = make('textarea', rows()); // also where a page of a file may not use the clipboard
  document.body.append(area); area.select(); document.execCommand('copy'); area.remove();
  $('found').textContent = 'copied';
};
// page.html#unfold, #search=TEXT, #undefined and #message=N open it so.
search('');
for (const wish of decodeURIComponent(location.hash.slice(1)).split('&')) {
  if (wish === 'unfold') $('open-all').click();
  if (wish === 'undefined') $('empty').click();
  if (wish.startsWith('search=')) { $('search').value = wish.slice(7); search(wish.slice(7)); }
  if (wish === 'clear') { $('search').value = ''; search(''); }
  if (wish.startsWith('message=')) $('messages').rows[+wish.slice(8)]?.click();
  if (wish === 'rows') document.body.append(make('pre', rows()));
}
document.body.dataset.scrolled = scrollY;
document.body.dataset.shown = Math.round(performance.now());
</script>
</body>
</html>
)page";

std::string hostName() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

std::string today() {
    const std::time_t now = std::time(nullptr);
    std::tm day{};
    char text[sizeof "2026-11-22"] = "";
    if (localtime_r(&now, &day) != nullptr) {
        (void)std::strftime(text, sizeof text, "%Y-%m-%d", &day); // else it stays empty
    }
    return text;
}

} // namespace

std::string inScript(const Json& data) {
    std::string text;
    for (const char c : data.dump(-1, ' ', false, Json::error_handler_t::replace)) {
        if (c == '<') {
            text += "\\u003c"; // a value must not end the script that holds it
        } else {
            text += c;
        }
    }
    return text;
}

std::string pageHead(const std::string& title) {
    return kHead + title + "</title>";
}

std::string htmlPage(const std::string& name, const std::string& time, const Node& root,
                     const Verdict* verdict) {
    return pageHead("Convey diagnostics") + kBeforeData +
           inScript({{"name", name},
                     {"time", time},
                     {"date", today()},
                     {"host", hostName()},
                     {"verdict", verdict == nullptr ? "" : verdict->sentence},
                     {"healthy", verdict == nullptr || verdict->isHealthy},
                     {"incoming", limits::of("queue.incoming.messages")},
                     {"outgoing", limits::of("queue.outgoing.messages")},
                     {"bytes", limits::of("queue.incoming.bytes")},
                     {"root", treeAsJson(root)}}) +
           kBehindData;
}

} // namespace convey_tool
