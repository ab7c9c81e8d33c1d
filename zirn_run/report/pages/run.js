// The picture of a run, live. The frames that are shown stand in the address (#frame-12, #frames-12-30), so that back,
// forward and a link to a colleague work.
'use strict';

const list = document.querySelector('ol.rows');
if (list) begin();

function begin() {
  const kBytesInALine = 16;
  const pane = document.querySelector('.pane');
  const panel = document.getElementById('frame');
  const frames = new Map(JSON.parse(document.getElementById('frames').textContent).map(one => [one[0], one]));
  const rows = [...list.children].map(row => ({
    row,
    transfer: row.dataset.transfer,
    is_short: 'short' in row.dataset,
    first: Number(row.dataset.first),
    last: Number(row.dataset.last),
    link: row.querySelector('a'),
  }));
  const width = Number(list.dataset.width);
  let zoom = Math.min(1.25, Math.max(pane.clientWidth / width, 0.7));
  let fixed = null;  // the frame that the address names

  function show_zoom() {
    for (const part of pane.children) part.style.width = width * zoom + 'px';
    document.getElementById('zoom').textContent = Math.round(zoom * 100) + ' %';
  }
  // What is in the middle stays there.
  function set_zoom(to) {
    const before = zoom;
    const [x, y] = [pane.scrollLeft + pane.clientWidth / 2, pane.scrollTop + pane.clientHeight / 2];
    zoom = Math.min(4, Math.max(0.25, to));
    show_zoom();
    pane.scrollTo(x * zoom / before - pane.clientWidth / 2, y * zoom / before - pane.clientHeight / 2);
  }

  // A transfer is its short row, or all the others.
  function fold(transfer, is_folded) {
    for (const one of rows)
      if (one.transfer === transfer) one.row.hidden = one.is_short !== is_folded;
  }
  const shortened = [...new Set(rows.filter(one => one.is_short).map(one => one.transfer))];
  for (const transfer of shortened) {
    const of_it = rows.filter(one => one.transfer === transfer);
    for (const [one, is_folded] of [[of_it[0], true], [of_it[1], false]]) {
      const button = one.row.appendChild(document.createElement('button'));
      button.type = 'button';
      button.textContent = is_folded ? '+' : '\u2212';
      button.title = (is_folded ? 'Unfold' : 'Fold') + ' this transfer';
      button.ariaLabel = button.title;
      button.ariaExpanded = String(!is_folded);
      button.addEventListener('click', () => {
        fold(transfer, !is_folded);
        of_it[is_folded ? 1 : 0].row.querySelector('button').focus();
      });
    }
  }

  function in_hexadecimal(hex) {
    const lines = [];
    for (let from = 0; from < hex.length; from += 2 * kBytesInALine) {
      const bytes = hex.slice(from, from + 2 * kBytesInALine).match(/../g);
      const letters = bytes.map(byte => parseInt(byte, 16)).map(code => code > 31 && code < 127 ? String.fromCharCode(code) : '.');
      lines.push((from / 2).toString(16).padStart(4, '0') + '  ' + bytes.join(' ').padEnd(3 * kBytesInALine + 1) + letters.join(''));
    }
    return lines.join('\n');
  }
  function show_frame(number, of_row) {
    const [title, bytes] = panel.children;
    const found = frames.get(number);
    const range = of_row && of_row.last > of_row.first ? `, of ${of_row.first} to ${of_row.last}` : '';
    if (!found) {
      title.textContent = `Frame ${number}${range}: its bytes are in the record only`;
      bytes.textContent = '';
      return;
    }
    const [, seconds, network, size, content] = found;
    if (network === null) {
      title.textContent = `Line ${number}${range}, ${seconds} s`;
      bytes.textContent = content;
      return;
    }
    const kept = content.length / 2;
    title.textContent = `Frame ${number}${range}, ${seconds} s, ${network || 'unnamed network'}, ${size} bytes` +
      (kept < size ? `, the first ${kept}:` : ':');
    bytes.textContent = in_hexadecimal(content);
  }

  // The transfer whose frames these are; or the rows whose frames all are among them; or the row that they are among.
  function rows_of(first, last) {
    const same = rows.find(one => one.is_short && one.first === first && one.last === last);
    if (same) return rows.filter(one => one.transfer === same.transfer);
    const among = rows.filter(one => one.first >= first && one.last <= last);
    if (among.length) return among;
    const around = rows.filter(one => one.first <= last && one.last >= first && !one.is_short);
    const least = Math.min(...around.map(one => one.last - one.first));
    return around.filter(one => one.last - one.first === least);
  }

  // Lights up what comes from these frames, and brings it into view.
  function light(first, last) {
    const lit = rows_of(first, last);
    const short = lit.filter(one => one.is_short).map(one => one.transfer);
    for (const {transfer} of lit) if (shortened.includes(transfer) && !short.includes(transfer)) fold(transfer, false);
    for (const one of rows) one.row.classList.toggle('lit', lit.includes(one));
    for (const claim of document.querySelectorAll('a.evidence'))
      claim.classList.toggle('lit', claim.hash === location.hash);
    const seen = lit.find(one => !one.row.hidden);
    if (!seen) return;
    const box = seen.row.getBoundingClientRect();
    const around = pane.getBoundingClientRect();
    pane.scrollTop += box.top - around.top - pane.clientHeight / 3;
    document.querySelector('.viewer').scrollIntoView({block: 'nearest'});
    fixed = {number: first, of_row: seen};
    show_frame(first, seen);
  }
  function follow() {
    const wanted = /^#frames?-(\d+)(?:-(\d+))?$/.exec(location.hash);
    if (wanted) return light(Number(wanted[1]), Number(wanted[2] || wanted[1]));
    fixed = null;
    for (const one of document.querySelectorAll('.lit')) one.classList.remove('lit');
  }

  for (const one of rows) {
    if (!one.first) continue;
    const show = () => show_frame(one.first, one);
    one.link.addEventListener('mouseenter', show);
    one.link.addEventListener('focus', show);
  }
  list.addEventListener('mouseleave', () => fixed && show_frame(fixed.number, fixed.of_row));

  // Up and down between the rows, left and right through the frames of one.
  list.addEventListener('keydown', event => {
    const seen = rows.filter(one => !one.row.hidden);
    const place = seen.findIndex(one => one.link === document.activeElement);
    const step = {ArrowDown: 1, ArrowUp: -1}[event.key];
    const aside = {ArrowRight: 1, ArrowLeft: -1}[event.key];
    if (place < 0 || !(step || aside)) return;
    event.preventDefault();
    if (step) {
      const next = seen[place + step];
      if (next) next.link.focus();
      return;
    }
    const one = seen[place];
    const known = [...frames.keys()].filter(number => number >= one.first && number <= one.last);
    const now = known.indexOf(Number(panel.dataset.number || one.first));
    const number = known[Math.min(known.length - 1, Math.max(0, now + aside))];
    if (number !== undefined) {
      panel.dataset.number = number;
      show_frame(number, one);
    }
  });
  list.addEventListener('focusin', () => delete panel.dataset.number);

  document.getElementById('nearer').addEventListener('click', () => set_zoom(zoom * 1.25));
  document.getElementById('farther').addEventListener('click', () => set_zoom(zoom / 1.25));
  document.getElementById('fitting').addEventListener('click', () => set_zoom(pane.clientWidth / width));
  document.getElementById('fold').addEventListener('click', () => shortened.forEach(one => fold(one, true)));
  document.getElementById('unfold').addEventListener('click', () => shortened.forEach(one => fold(one, false)));
  addEventListener('hashchange', follow);
  document.querySelector('.tools').hidden = panel.hidden = false;
  show_zoom();
  follow();
}
