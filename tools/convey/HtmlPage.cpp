#include "tools/convey/HtmlPage.h"

namespace convey_tool {
namespace {

// One file that fetches nothing, and forbids that itself: what is shown comes from other processes.
constexpr const char* kBeforeData = R"page(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<title>Convey diagnostics</title>
<style>
:root { color-scheme: light dark; --line: #8885; --bar: #3a7bd5; --old: #d5803a; --mark: #ffd54a; }
body { font: 14px/1.5 system-ui, sans-serif; margin: 0 auto; max-width: 70rem; padding: 1rem; }
header { position: sticky; top: 0; background: Canvas; border-bottom: 1px solid var(--line); padding: .5rem 0; z-index: 1; }
h1 { font-size: 1.2rem; margin: 0 0 .5rem; }
h1 small { font-weight: normal; opacity: .7; }
input { font: inherit; padding: .2rem .5rem; width: 20rem; max-width: 60%; }
button { font: inherit; padding: .2rem .6rem; }
details { margin-left: 1rem; border-left: 1px solid var(--line); padding-left: .5rem; }
main > details { margin-left: 0; border: 0; }
summary { cursor: pointer; }
summary b { font-weight: 600; }
.leaf { margin-left: 1rem; padding-left: .5rem; border-left: 1px solid var(--line); overflow-wrap: anywhere; }
.value { font-family: ui-monospace, monospace; overflow-wrap: anywhere; }
.undefined { opacity: .5; }
.bar { display: inline-block; height: .7em; margin-left: .6em; border-radius: .2em; background: var(--bar); vertical-align: baseline; min-width: 2px; }
.bar.age { background: var(--old); }
.hidden { display: none; }
mark { background: var(--mark); color: black; }
#found { margin-left: .6rem; opacity: .7; }
</style>
</head>
<body>
<header>
<h1>Convey diagnostics <small id="of"></small></h1>
<input id="search" type="search" placeholder="Search rows" aria-label="Search rows" autofocus>
<button id="unfold" type="button">Unfold all</button>
<button id="fold" type="button">Fold all</button>
<span id="found" role="status"></span>
</header>
<main id="tree"></main>
<script type="application/json" id="data">)page";

constexpr const char* kBehindData = R"page(</script>
<script>
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
document.getElementById('of').textContent = data.name + ', ' + data.time;
const tree = document.getElementById('tree');
const barWidth = 200;

function seconds(text) {
  const parts = /^(\d+):(\d+):(\d+)$/.exec(text);
  return parts ? (+parts[1] * 60 + +parts[2]) * 60 + +parts[3] : null;
}
// Only the time of day is known: what seems to lie ahead is of yesterday.
function age(from) {
  const now = seconds(data.time), then = seconds(from);
  return now === null || then === null ? null : (now - then + 86400) % 86400;
}
function bar(kind, share, title) {
  const element = document.createElement('span');
  element.className = 'bar ' + kind;
  element.style.width = Math.max(2, Math.round(barWidth * Math.min(1, share))) + 'px';
  element.title = title;
  return element;
}
let longest = 1;
(function measure(node) {
  if (isQueue(node)) longest = Math.max(longest, +node.value);
  node.children.forEach(measure);
})(data.root);
function isQueue(node) {
  return (node.label === 'Incoming' || node.label === 'Outgoing') && /^\d+$/.test(node.value);
}
function add(parent, node, depth) {
  const folds = node.heading || node.children.length > 0;
  const element = document.createElement(folds ? 'details' : 'div');
  const line = folds ? document.createElement('summary') : element;
  if (folds) {
    element.open = depth < 2;
    element.append(line);
  } else {
    element.className = 'leaf';
  }
  const label = document.createElement(folds ? 'b' : 'span');
  label.textContent = node.label;
  line.append(label);
  if (node.value !== '') {
    const value = document.createElement('span');
    value.className = 'value' + (node.value === 'undefined' ? ' undefined' : '');
    value.textContent = node.value;
    line.append(folds ? ': ' : ' = ', value);
  }
  if (isQueue(node) && +node.value > 0) {
    line.append(bar('queue', +node.value / longest, node.value + ' messages'));
  }
  if (node.label === 'Timestamp') {
    const old = age(node.value);
    if (old !== null) {
      const life = parent.dataset.timeout ? +parent.dataset.timeout : 600;
      line.append(bar('age', old / life, old + ' of ' + life + ' seconds'));
    }
  }
  for (const child of node.children) {
    if (child.label === 'Timeout' && /^\d+$/.test(child.value)) element.dataset.timeout = child.value;
  }
  line.dataset.text = (node.label + ' ' + node.value + ' ' + node.path).toLowerCase();
  line.title = node.path;
  parent.append(element);
  for (const child of node.children) add(element, child, depth + 1);
  return element;
}
for (const node of data.root.children) add(tree, node, 0);

function setAll(open) {
  for (const element of tree.querySelectorAll('details')) element.open = open;
}
document.getElementById('unfold').onclick = () => setAll(true);
document.getElementById('fold').onclick = () => setAll(false);

function search(wanted) {
  wanted = wanted.toLowerCase();
  let found = 0;
  // Shows what matches, and what leads there; true when any of it does.
  function visit(element) {
    const line = element.tagName === 'DETAILS' ? element.querySelector(':scope > summary') : element;
    const here = wanted !== '' && line.dataset.text.includes(wanted);
    let below = false;
    for (const child of element.querySelectorAll(':scope > details, :scope > .leaf')) {
      below = visit(child) || below;
    }
    found += here ? 1 : 0;
    line.firstChild.classList.toggle('hit', here);
    line.style.background = here ? 'var(--mark)' : '';
    line.style.color = here ? 'black' : '';
    element.classList.toggle('hidden', wanted !== '' && !here && !below);
    if (below) element.open = true;
    return here || below;
  }
  for (const element of tree.children) visit(element);
  document.getElementById('found').textContent = wanted === '' ? '' : found + ' rows';
}
document.getElementById('search').oninput = event => search(event.target.value);
// page.html#unfold and page.html#search=TEXT open it so.
const wish = decodeURIComponent(location.hash.slice(1));
if (wish === 'unfold') {
  setAll(true);
} else if (wish.startsWith('search=')) {
  document.getElementById('search').value = wish.slice(7);
  search(wish.slice(7));
}
</script>
</body>
</html>
)page";

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

std::string htmlPage(const std::string& name, const std::string& time, const Node& root) {
    return kBeforeData + inScript({{"name", name}, {"time", time}, {"root", treeAsJson(root)}}) +
           kBehindData;
}

} // namespace convey_tool
