#include <sagleme/diagram.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

constexpr char const* kHead = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Schema</title>
<style>
body { margin: 0; font: 15px/1.4 sans-serif; color: #1d2733; display: flex; height: 100vh; }
nav { width: 22em; overflow: auto; border-right: 1px solid #c8d2dc; padding: 1em; flex: none; }
main { overflow: auto; padding: 1em 2em; flex: auto; }
input { width: 100%; box-sizing: border-box; font: inherit; padding: .3em; margin-bottom: .6em; }
ul { list-style: none; margin: 0; padding-left: 1.1em; }
nav > ul { padding-left: 0; }
button { font: inherit; border: 0; background: none; padding: .1em .3em; cursor: pointer; }
button { color: inherit; text-align: left; }
button:hover, button:focus { background: #e6eef6; }
button.chosen { background: #cfe0f2; }
.hidden { display: none; }
table { border-collapse: collapse; margin: .6em 0 1.2em; }
th, td { border: 1px solid #c8d2dc; padding: .2em .6em; text-align: left; }
th { background: #eef3f8; }
.inherited { color: #66717d; }
@media (max-width: 45em) {
  body { display: block; height: auto; }
  nav { width: auto; max-height: 45vh; border-right: 0; border-bottom: 1px solid #c8d2dc; }
  main { padding: 1em; }
  h1 { font-size: 1.3em; overflow-wrap: anywhere; }
}
</style>
</head>
<body>
<nav>
<input id="search" type="search" placeholder="Search tables and columns" aria-label="Search">
<ul id="tree"></ul>
</nav>
<main id="table"><p>Choose a table.</p></main>
<script type="application/json" id="schema">)html";

constexpr char const* kTail = R"html(</script>
<script>
const tables = JSON.parse(document.getElementById('schema').textContent).tables;
const byName = new Map(tables.map(table => [table.name, table]));
const items = new Map();

function element(kind, text, parent) {
  const made = document.createElement(kind);
  if (text !== undefined) made.textContent = text;
  if (parent) parent.append(made);
  return made;
}

function addSubtree(table, list) {
  const item = element('li', undefined, list);
  const button = element('button', table.name, item);
  button.addEventListener('click', () => go(table.name));
  items.set(table.name, {item, button});
  const children = tables.filter(each => each.base === table.name);
  if (children.length === 0) return;
  const inner = element('ul', undefined, item);
  children.forEach(child => addSubtree(child, inner));
}

function line(table) {
  const bases = [];
  for (let at = table; at; at = byName.get(at.base)) bases.unshift(at);
  return bases;
}

function row(list, cells, kind) {
  const made = element('tr', undefined, list);
  cells.forEach(cell => {
    const field = element(kind || 'td', undefined, made);
    if (byName.has(cell) && kind !== 'th') {
      element('button', cell, field).addEventListener('click', () => go(cell));
    } else {
      field.textContent = cell;
    }
  });
  return made;
}

// The table is part of the page's address, so that links and the back button work.
function go(name) {
  location.hash = encodeURIComponent(name);
}

function show() {
  const name = decodeURIComponent(location.hash.slice(1));
  if (byName.has(name)) choose(name);
}

function takesNull(column) {
  return column.nullable || column.target || ['string', 'binary'].includes(column.type);
}

function choose(name) {
  const table = byName.get(name);
  const main = document.getElementById('table');
  main.replaceChildren();
  element('h1', name, main);
  const columns = element('table', undefined, main);
  row(columns, ['column', 'type', 'null', 'from'], 'th');
  line(table).forEach(from => (from.columns || []).forEach(column => {
    const made = row(columns, [column.name, column.target || column.type,
      takesNull(column) ? 'allowed' : 'never', from.name]);
    if (from !== table) made.className = 'inherited';
  }));
  const indexes = line(table).flatMap(from => from.indexes || []);
  if (indexes.length !== 0) {
    const list = element('table', undefined, main);
    row(list, ['index', 'columns'], 'th');
    indexes.forEach(index => row(list, [index.name + (index.unique ? ' (unique)' : ''),
      index.columns.map(each => each.name ? each.name + ' descending' : each).join(', ')]));
  }
  items.forEach(({button}, each) => button.classList.toggle('chosen', each === name));
  if (matchMedia('(max-width: 45em)').matches) main.scrollIntoView();
}

function search(text) {
  const wanted = text.toLowerCase();
  const has = name => name.toLowerCase().includes(wanted);
  const shown = new Set();
  tables.filter(table => has(table.name) || (table.columns || []).some(column => has(column.name)))
    .forEach(table => line(table).forEach(each => shown.add(each.name)));
  items.forEach(({item}, name) => item.classList.toggle('hidden', !shown.has(name)));
}

tables.filter(table => !byName.has(table.base))
  .forEach(table => addSubtree(table, document.getElementById('tree')));
document.getElementById('search').addEventListener('input', event => search(event.target.value));
addEventListener('hashchange', show);
show();
</script>
</body>
</html>
)html";

// JSON inside a page must not end its element.
std::string Embedded(std::string const& json) {
  std::string text;
  for (char const each : json) text += each == '<' ? "\\u003c" : std::string(1, each);
  return text;
}

}  // namespace

std::string HtmlDiagram(SchemaDoc const& schema) {
  return kHead + Embedded(SchemaJson(schema)) + kTail;
}

}  // namespace sagleme
