// The tables of runs and of stations: what is filtered, sorted and searched stands in the address, so that back, forward
// and a link work.
'use strict';

const kRowsAtOnce = 100;
const kRowsOnPaper = 2000;
const data = JSON.parse(document.getElementById('data').textContent);
const columns = ['start', 'name', 'station', 'unit', 'verdict', 'fault', 'step', 'duration', 'lost', 'repeated'];
const runs = data.runs.map((run, place) => {
  const [start, name, station, unit, verdict, cause, step, duration, lost, repeated, sentence, page] = run;
  const [id, owner, owner_words, color] = data.causes[cause];
  const one = {
    place, start, name, station: data.stations[station], unit, verdict: data.verdicts[verdict], cause: id, owner, color,
    fault: owner === 'none' ? '' : owner_words, step: data.steps[step], duration, lost, repeated, sentence, page,
  };
  one.text = [start, name, one.station, unit, one.verdict, id, one.fault, one.step, sentence].join('\n').toLowerCase();
  return one;
});

const table = document.getElementById('runs');
const body = table.tBodies[0];
const compared = document.getElementById('compared');
const stations = compared ? [...compared.tBodies[0].rows] : [];
let stations_by = null;
const form = document.getElementById('filter');
const more = document.getElementById('more');
const on_paper = document.getElementById('on-paper');
let chosen = [];
let drawn = 0;

function state() {
  return new URLSearchParams(decodable(location.hash.slice(1)));
}

// A broken link filters nothing.
function decodable(text) {
  try {
    decodeURIComponent(text);
    return text;
  } catch {
    return '';
  }
}

function cell(row, text, name) {
  const made = row.insertCell();
  made.textContent = text;
  if (name) made.className = name;
  return made;
}

function isolated(text) {
  const made = document.createElement('bdi');
  made.textContent = text;
  return made;
}

function whole(text) {
  const made = document.createElement('span');
  made.className = 'whole';
  made.textContent = text;
  return made;
}

function draw_row(run) {
  const row = body.insertRow();
  row.ariaRowIndex = drawn + 2;
  cell(row, '').append(whole(run.start.slice(0, 10)), ' ', whole(run.start.slice(11, 19)));
  const name = cell(row, '', 'name');
  if (run.page) {
    const link = name.appendChild(document.createElement('a'));
    link.href = 'runs/' + encodeURIComponent(run.page) + '.html';
    link.append(isolated(run.name));
  } else {
    name.append(isolated(run.name));
  }
  cell(row, '', 'less').append(isolated(run.station));
  cell(row, '', run.unit ? 'less' : 'less soft').append(run.unit ? isolated(run.unit) : 'no identity');
  cell(row, run.verdict === 'none' ? 'no verdict' : run.verdict.toUpperCase(), run.verdict);
  const fault = cell(row, '', run.owner === 'none' ? '' : 'words');
  if (run.owner !== 'none') {
    const owner = fault.appendChild(document.createElement('b'));
    owner.className = run.color;
    owner.textContent = run.fault;
    fault.append(' (' + run.cause + ') ', isolated(run.sentence));
  }
  cell(row, '', run.step ? 'less name' : 'less').append(isolated(run.step));
  cell(row, run.duration.toFixed(1), 'number less');
  cell(row, run.lost, 'number less');
  cell(row, run.repeated, 'number less');
  drawn += 1;
}

function draw_up_to(most) {
  const end = Math.min(most, chosen.length);
  while (drawn < end) draw_row(chosen[drawn]);
  more.hidden = drawn >= chosen.length;
  more.textContent = `Show more: ${drawn} of ${chosen.length} are drawn`;
}

function draw_more() {
  draw_up_to(drawn + kRowsAtOnce);
}

function compare(one, other, key) {
  const [a, b] = [one[key], other[key]];
  return a < b ? -1 : a > b ? 1 : 0;
}

// "-lost": by that column, falling.
function order_of(text, keys, otherwise) {
  const order = /^(-?)(\w+)$/.exec(text || '');
  return order && keys.includes(order[2]) ? {key: order[2], sign: order[1] ? -1 : 1} : otherwise;
}

function mark_order(sorted, {key, sign}) {
  for (const head of sorted.tHead.querySelectorAll('th')) {
    if (head.dataset.key === key) head.ariaSort = sign < 0 ? 'descending' : 'ascending';
    else head.removeAttribute('aria-sort');
  }
}

// What to sort by when the head of a column is clicked; nothing for what is none.
function next_order(event) {
  const head = event.target.closest('th');
  if (!head || !head.dataset.key) return '';
  const falls = head.ariaSort ? head.ariaSort === 'ascending' : head.classList.contains('number');
  return (falls ? '-' : '') + head.dataset.key;
}

function sort_stations(wanted) {
  const asked = wanted.get('stations') || '';
  if (!compared || asked === stations_by) return;
  stations_by = asked;
  const heads = [...compared.tHead.rows[0].cells];
  const order = order_of(asked, heads.map(head => head.dataset.key), {key: 'station', sign: 1});
  const place = heads.findIndex(head => head.dataset.key === order.key);
  const value = row => 'value' in row.cells[place].dataset ? Number(row.cells[place].dataset.value) : row.cells[place].textContent;
  const rows = stations.map((row, before) => ({row, before, value: value(row)}));
  rows.sort((one, other) => order.sign * compare(one, other, 'value') || one.before - other.before);
  compared.tBodies[0].append(...rows.map(one => one.row));
  mark_order(compared, order);
}

function show() {
  const wanted = state();
  sort_stations(wanted);
  const words = (wanted.get('search') || '').toLowerCase().split(/\s+/).filter(Boolean);
  const exact = ['verdict', 'owner', 'station', 'cause', 'step'].filter(key => wanted.has(key));
  chosen = runs.filter(run => exact.every(key => run[key] === wanted.get(key)) &&
    words.every(word => run.text.includes(word)));
  const order = order_of(wanted.get('sort'), columns, {key: 'start', sign: -1});
  chosen.sort((one, other) => order.sign * compare(one, other, order.key) || one.place - other.place);
  mark_order(table, order);
  for (const control of form.elements)
    if (control.name && control.value !== (wanted.get(control.name) || '')) control.value = wanted.get(control.name) || '';
  const further = ['cause', 'step'].filter(one => wanted.has(one)).map(one => `, ${one} ${wanted.get(one)}`).join('');
  document.getElementById('shown').textContent =
    `${chosen.length.toLocaleString('en')} of ${runs.length.toLocaleString('en')} runs${further}`;
  body.replaceChildren();
  table.ariaRowCount = chosen.length + 1;
  drawn = 0;
  draw_more();
}

function change(key, value, is_step) {
  const wanted = state();
  if (value) wanted.set(key, value);
  else wanted.delete(key);
  const address = '#' + wanted;
  if (is_step) history.pushState(null, '', address);
  else history.replaceState(null, '', address);
  show();
}

for (const select of form.querySelectorAll('select'))
  select.addEventListener('change', () => change(select.name, select.value, true));
form.elements.search.addEventListener('input', event => change('search', event.target.value, false));
form.addEventListener('submit', event => event.preventDefault());
form.addEventListener('reset', event => {
  event.preventDefault();
  history.pushState(null, '', '#');
  show();
});
table.tHead.addEventListener('click', event => {
  const order = next_order(event);
  if (order) change('sort', order, true);
});
if (compared) {
  for (const head of compared.tHead.querySelectorAll('th[data-key]')) {
    const button = document.createElement('button');
    button.type = 'button';
    button.append(...head.childNodes);
    head.append(button);
  }
  compared.tHead.addEventListener('click', event => {
    const order = next_order(event);
    if (order) change('stations', order, true);
  });
}
more.addEventListener('click', draw_more);
addEventListener('beforeprint', () => {
  draw_up_to(kRowsOnPaper);
  on_paper.textContent = more.hidden ? '' :
    `The first ${drawn.toLocaleString('en')} of ${chosen.length.toLocaleString('en')} runs are on paper.`;
});
addEventListener('afterprint', () => on_paper.textContent = '');

// Looks again each time: whoever scrolls fast is at the new end before it was out of view.
const observer = new IntersectionObserver(seen => {
  if (!seen.some(one => one.isIntersecting)) return;
  draw_more();
  observer.unobserve(more);
  observer.observe(more);
}, {rootMargin: '800px'});
observer.observe(more);
addEventListener('hashchange', show);
addEventListener('popstate', show);
document.getElementById('table').hidden = false;
show();
