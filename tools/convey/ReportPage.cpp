#include <map>

#include "tools/convey/Conversation.h"
#include "tools/convey/HtmlPage.h"

namespace convey_tool {
namespace {

// Only what can be seen is drawn: a conversation of any length scrolls as fast as a short one.
constexpr const char* kBeforeData = R"page(
<style>
body { margin: 0; padding: .6rem 1rem; display: flex; flex-direction: column; height: 100vh; box-sizing: border-box; }
form { margin: .4rem 0; display: flex; flex-wrap: wrap; gap: .4rem .8rem; align-items: center; }
details { max-height: 35vh; overflow: auto; flex: none; }
#view { flex: 1; min-height: 12rem; overflow: auto; border: 1px solid var(--line); position: relative; }
#room { position: relative; } svg { position: sticky; top: 0; left: 0; display: block; font: 12px system-ui, sans-serif; }
svg text { fill: CanvasText; } .life { stroke: var(--line); } .head { fill: Canvas; }
.request { color: var(--request); } .reply { color: var(--good); } .failed { color: var(--failed); } .late { color: var(--late); }
.arrow { stroke: currentColor; fill: none; stroke-width: 1.5; } .back { stroke-dasharray: 5 3; } .tip { fill: currentColor; } svg text.label { fill: currentColor; }
.marked { fill: #ffd54a55; } #one { min-height: 1.4em; overflow-wrap: anywhere; }
</style>
</head>
<body>
<h1>Conversation <small id="of"></small></h1>
<form onsubmit="return false">
<input id="filter" type="search" placeholder="Filter: names, types, texts" aria-label="Filter">
<label><input id="replies" type="checkbox" checked> replies</label>
<label><input id="notices" type="checkbox"> received, processed</label>
<label><input id="bad" type="checkbox"> only errors and time-outs</label>
<label>zoom <input id="zoom" type="range" min="8" max="48" value="22"></label>
<span id="count" role="status"></span>
</form>
<details><summary>Time to the answer</summary><table id="pairs"></table></details>
<div id="view" tabindex="0"><div id="room"></div></div>
<div id="one"></div>
<script type="application/json" id="data">)page";

constexpr const char* kBehindData = R"page(</script>
<script>
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const $ = id => document.getElementById(id);
const ms = us => us < 0 ? '–' : us < 1e6 ? (us / 1000).toFixed(3) + ' ms' : (us / 1e6).toFixed(3) + ' s';
$('of').textContent = data.name + ', from ' + data.start + ', ' + data.messages.length + ' messages' +
  (data.dropped ? ', ' + data.dropped + ' events dropped' : '');
// A message: time, type, from, to, number, size, text, events, request, answer, outcome, reply.
const T = 0, TYPE = 1, FROM = 2, TO = 3, NUMBER = 4, SIZE = 5, TEXT = 6, EVENTS = 7, REQUEST = 8, ANSWER = 9, OUTCOME = 10, REPLY = 11;
const table = $('pairs');
const row = (cells, tag) => {
  const line = table.insertRow();
  cells.forEach((cell, i) => { const c = document.createElement(tag); c.textContent = cell; if (i > 2) c.className = 'n'; line.append(c); });
};
row(['from', 'to', 'type', 'count', 'errors', 'time-outs', 'median', '99th percentile'], 'th');
for (const p of data.pairs) row([p.sender, p.target, p.type, p.count, p.failed, p.timedOut, ms(p.median), ms(p.p99)], 'td');
let shown = [], chosen = -1;
function choose() {
  const wanted = $('filter').value.toLowerCase();
  shown = [];
  data.messages.forEach((m, i) => {
    if (m[REPLY] && !$('replies').checked) return;
    if (/^(Received|Processed)/.test(m[TYPE]) && m[REPLY] && !$('notices').checked) return;
    if ($('bad').checked && m[OUTCOME] < 2) return;
    if (wanted && !(m[TYPE] + ' ' + data.names[m[FROM]] + ' ' + data.names[m[TO]] + ' ' + m[NUMBER] + ' ' + m[TEXT]).toLowerCase().includes(wanted)) return;
    shown.push(i);
  });
  $('count').textContent = shown.length + ' of ' + data.messages.length;
  draw();
}
const NS = 'http://www.w3.org/2000/svg';
const svg = document.createElementNS(NS, 'svg');
$('room').append(svg);
function put(parent, name, attributes, text) {
  const element = document.createElementNS(NS, name);
  for (const key in attributes) element.setAttribute(key, attributes[key]);
  if (text !== undefined) element.textContent = text;
  parent.append(element);
  return element;
}
const HEAD = 28, LEFT = 110;
function draw() {
  const view = $('view'), step = +$('zoom').value, height = view.clientHeight;
  const gap = Math.max(160, Math.min(320, (view.clientWidth - LEFT - 160) / Math.max(1, data.names.length - 1)));
  const width = Math.max(view.clientWidth - 2, LEFT + gap * (data.names.length - 1) + 100);
  $('room').style.height = Math.max(height, HEAD + shown.length * step + step) + 'px';
  $('room').style.width = width + 'px';
  svg.setAttribute('width', width); svg.setAttribute('height', height);
  svg.replaceChildren();
  const x = i => LEFT + 40 + gap * i;
  data.names.forEach((name, i) => put(svg, 'line', {class: 'life', x1: x(i), x2: x(i), y1: HEAD, y2: height}));
  const first = Math.max(0, Math.floor((view.scrollTop) / step) - 1);
  for (let k = first; k < shown.length; k++) {
    const y = HEAD + (k + 1) * step - view.scrollTop;
    if (y > height + step) break;
    const i = shown[k], m = data.messages[i];
    const kind = m[OUTCOME] === 2 ? 'failed' : m[OUTCOME] === 3 ? 'late' : m[REPLY] ? 'reply' : 'request';
    const group = put(svg, 'g', {class: kind, 'data-index': i});
    if (i === chosen || m[REQUEST] === chosen && chosen >= 0 || data.messages[chosen]?.[REQUEST] === i)
      put(group, 'rect', {class: 'marked', x: 0, y: y - step + 4, width: width, height: step});
    put(group, 'text', {x: 4, y: y}, '+' + ms(m[T]));
    const a = x(m[FROM]), b = x(m[TO]), way = Math.sign(b - a);
    if (way === 0) put(group, 'path', {class: 'arrow', d: `M${a} ${y - 6}h24v6h-20`});
    else put(group, 'line', {class: 'arrow' + (m[REPLY] ? ' back' : ''), x1: a, x2: b, y1: y, y2: y});
    const tip = way === 0 ? a + 4 : b, to = way || -1;
    put(group, 'path', {class: 'tip', d: `M${tip} ${y}l${-8 * to} -4v8z`});
    if (step >= 14) {
      // The time stands before the text, which may be cut.
      const label = m[TYPE] + ' #' + m[NUMBER] + (m[ANSWER] >= 0 ? ' ' + ms(m[ANSWER]) : '') + (m[TEXT] ? ' ' + m[TEXT] : '');
      const start = way === 0 ? a + 30 : Math.min(a, b) + 10, room = way === 0 ? gap - 40 : Math.abs(b - a) - 20;
      const text = put(group, 'text', {class: 'label', x: start, y: y - 4}, label);
      const needed = text.getComputedTextLength();
      for (let n = Math.floor(label.length * room / needed); n > 8 && text.getComputedTextLength() > room; --n) text.textContent = label.slice(0, n) + '…';
    }
  }
  put(svg, 'rect', {class: 'head', x: 0, y: 0, width: width, height: HEAD - 4});
  data.names.forEach((name, i) => put(svg, 'text', {x: x(i), y: 16, 'text-anchor': 'middle', 'font-weight': 600}, name.length > 22 ? name.slice(0, 21) + '…' : name));
}
svg.onclick = event => {
  const group = event.target.closest('g');
  if (!group) return;
  chosen = +group.dataset.index;
  const m = data.messages[chosen];
  $('one').textContent = '+' + ms(m[T]) + '  ' + m[TYPE] + ' #' + m[NUMBER] + '  ' + data.names[m[FROM]] + ' → ' + data.names[m[TO]] + '  ' + m[SIZE] + ' bytes  ' +
    (m[ANSWER] >= 0 ? 'answered after ' + ms(m[ANSWER]) + '  ' : '') + m[TEXT] + '  [' + m[EVENTS] + ']';
  draw();
};
$('view').onscroll = () => requestAnimationFrame(draw);
onresize = draw;
for (const id of ['filter', 'replies', 'notices', 'bad']) $(id).oninput = choose;
$('zoom').oninput = draw;
const wish = new URLSearchParams(location.hash.slice(1)); // #filter=TEXT&bad&open&at=N
if (wish.has('filter')) $('filter').value = wish.get('filter');
if (wish.has('bad')) $('bad').checked = true;
if (wish.has('open')) document.querySelector('details').open = true;
choose();
if (wish.has('at')) { $('view').scrollTop = +wish.get('at') * +$('zoom').value; draw(); }
document.body.dataset.shown = Math.round(performance.now());
</script>
</body>
</html>
)page";

} // namespace

std::string reportPage(const std::string& name, const Conversation& conversation) {
    Json names = Json::array();
    std::map<std::string, size_t> lanes;
    const auto lane = [&](const std::string& who) {
        const auto [at, isNew] = lanes.emplace(who, lanes.size());
        if (isNew) {
            names.push_back(who);
        }
        return at->second;
    };
    Json messages = Json::array();
    for (const Conversation::Sent& sent : conversation.messages()) {
        const size_t from = lane(sent.sender);
        // Without the names of the fields, which a long capture would repeat for each message.
        messages.push_back({sent.microseconds, sent.type, from, lane(sent.target), sent.serial,
                            sent.sizeBytes, sent.text, sent.events, sent.request,
                            sent.answerMicroseconds, static_cast<int>(sent.outcome),
                            sent.isReply ? 1 : 0});
    }
    Json pairs = Json::array();
    for (const Conversation::Latency& pair : conversation.latencies()) {
        pairs.push_back({{"sender", pair.sender},
                         {"target", pair.target},
                         {"type", pair.type},
                         {"count", pair.count},
                         {"failed", pair.failed},
                         {"timedOut", pair.timedOut},
                         {"median", pair.at(0.5)},
                         {"p99", pair.at(0.99)}});
    }
    return pageHead("Convey conversation") + kBeforeData +
           inScript({{"name", name},
                     {"start", conversation.start()},
                     {"dropped", conversation.dropped()},
                     {"names", std::move(names)},
                     {"messages", std::move(messages)},
                     {"pairs", std::move(pairs)}}) +
           kBehindData;
}

} // namespace convey_tool
