import { Diagram } from '/diagram.js';
import { Station, animate, outcomes } from '/station.js';

const find = id => document.getElementById(id);
const make = (tag, properties = {}, ...children) => {
  const element = Object.assign(document.createElement(tag), properties);
  element.append(...children);
  return element;
};

// The cards to click. A card without a kind cannot be tapped, so it is injected.
const cards = [
  { name: 'Known card', uid: '04A12B5C', kind: 'mifare', about: 'MIFARE, 4 bytes', colour: '#0f766e' },
  { name: 'Unknown card', uid: '5A3C91F0', kind: 'mifare', about: 'MIFARE, 4 bytes', colour: '#475569' },
  { name: '7-byte card', uid: '04C2B7A25E6180', kind: 'iso14443a', about: 'ISO 14443-4, 7 bytes', colour: '#1d4ed8' },
  { name: 'Vicinity tag', uid: 'E007060504030201', kind: 'iso15693', about: 'ISO 15693, 8 bytes', colour: '#7c3aed' },
  { name: 'FeliCa card', uid: '0102030405060708', kind: 'felica', about: 'the reader reports no UID', colour: '#b4530a' },
  { name: 'Malformed UID', uid: 'XYZ', kind: '', about: 'injected, not hexadecimal', colour: '#be123c' },
];

const station = new Station();
const diagram = new Diagram(find('diagram'), find('transition'));
let snapshot;
let shown;  // the snapshot before

let toastTimer;
function toast(text, good) {
  const field = find('toast');
  field.textContent = text;
  field.className = good ? 'toast' : 'toast bad';
  field.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { field.hidden = true; }, good ? 2500 : 6000);
}

async function request(what, quiet = false) {
  try {
    const response = await fetch('/do', {
      method: 'POST', headers: { 'Content-Type': 'application/json', 'X-Bench': '1' }, body: JSON.stringify(what),
    });
    if (!response.ok) throw new Error(await response.text());
    const answer = await response.json();
    if (!answer.done || !quiet) toast(answer.text, answer.done);
  } catch (error) {
    toast(`The bench does not answer: ${error.message}`, false);
  }
}

function present(card) {
  if (card.kind) station.tap(card.colour);
  return request(card.kind ? { do: 'tap', kind: card.kind, uid: card.uid } : { do: 'inject', uid: card.uid }, true);
}

for (const card of cards) {
  const button = make('button', { type: 'button', className: 'card' },
    make('b', { textContent: card.name }), make('code', { textContent: card.uid }),
    make('small', { textContent: card.about }));
  button.style.setProperty('--card', card.colour);
  button.dataset.uid = card.uid;
  button.addEventListener('click', () => present(card));
  const item = make('li', {}, button);
  if (card.kind && card.kind !== 'felica') {
    const permit = make('button', { type: 'button', className: 'permit' });
    permit.dataset.permit = card.uid;
    permit.addEventListener('click', () =>
      request({ do: 'permit', uid: card.uid, on: permit.getAttribute('aria-pressed') !== 'true' }));
    item.append(permit);
  }
  find('deck').append(item);
}

for (const button of document.querySelectorAll('[data-do]')) {
  button.addEventListener('click', async () => {
    const what = { do: button.dataset.do };
    if (button.getAttribute('role') === 'switch') what.on = button.getAttribute('aria-checked') !== 'true';
    button.setAttribute('aria-busy', 'true');
    await request(what);
    button.removeAttribute('aria-busy');
  });
}
find('inject').addEventListener('submit', event => {
  event.preventDefault();
  request({ do: 'inject', uid: find('uid').value.trim() }, true);
});
find('trace').addEventListener('change', event => {
  find('log').classList.toggle('all', event.target.checked);
  find('log').scrollTop = find('log').scrollHeight;
});

const pill = (id, good, bad) => {
  find(id).classList.toggle('good', good);
  find(id).classList.toggle('bad', bad);
};

function showStatus() {
  find('daemon-text').textContent = snapshot.there ? 'daemon connected' : 'daemon gone';
  pill('daemon-pill', snapshot.there, !snapshot.there);
  find('state-text').textContent = snapshot.state || 'unknown';
  const next = { Uninitialized: 'disable', Disabled: 'enable' }[snapshot.state];  // what leads to Enabled
  for (const button of document.querySelectorAll('[aria-label=Supervisor] button')) {
    button.classList.toggle('primary', button.dataset.do === next);
  }
  const reader = snapshot.reader ?? {};
  const device = reader.devices?.find(one => !one.removed);
  find('reader-text').textContent = !reader.simulated ? 'no simulated reader'
    : !reader.there ? 'virtual-nfc is gone' : !device ? 'reader unplugged'
    : `${device.name}: ${device.polling ? 'polling' : device.powered ? 'on' : 'off'}`;
  pill('reader-pill', Boolean(device?.polling), Boolean(reader.simulated && !device));
  find('plug').dataset.do = reader.there && !device ? 'plug' : 'unplug';
  find('plug').textContent = find('plug').dataset.do === 'plug' ? 'Plug reader in' : 'Unplug reader';
  const { count, time } = snapshot.alive;
  find('alive-text').textContent = count ? `alive ${time.slice(0, 8)}` : 'not alive yet';
  if (shown && count > shown.alive.count) animate(find('alive-pill'), 'beating');
}

// Does not set the same text again: a screen reader would repeat it.
function showText(id, text) {
  if (find(id).textContent !== text) find(id).textContent = text;
  find(id).hidden = !text;
}

function showModes() {
  const settings = snapshot.settings ?? {};
  for (const [id, on] of [['learning', snapshot.learning], ['ocpp', settings.ocpp], ['free', settings.free]]) {
    find(id).setAttribute('aria-checked', String(Boolean(on)));
  }
  for (const permit of document.querySelectorAll('[data-permit]')) {
    const permitted = (settings.permitted ?? []).includes(permit.dataset.permit);
    permit.setAttribute('aria-pressed', String(permitted));
    permit.textContent = permitted ? 'in the list' : 'not in the list';
    permit.title = permitted ? 'Take it out of the local list' : 'Put it into the local list';
    permit.setAttribute('aria-label', `${permit.dataset.permit} in the local list`);
  }
  showText('notice', settings.problem ?? '');
}

function showTimeline() {
  const items = [...snapshot.cards].reverse().map(card => {
    const [word, reason] = outcomes[card.outcome] ?? [card.outcome, ''];
    const badge = make('span', { className: 'badge', textContent: word });
    badge.dataset.outcome = card.outcome;
    return make('li', {}, make('time', { textContent: card.time }),
      make('code', { textContent: card.uid || '(no UID)' }), badge,
      make('small', { textContent: [card.how, card.kind, reason].filter(Boolean).join(' · ') }));
  });
  find('timeline').replaceChildren(...(items.length ? items
    : [make('li', { className: 'empty', textContent: 'No card yet.' })]));
}

function showSignals() {
  const items = Object.entries(snapshot.signals).map(([id, { name, value, unit, time }]) => {
    const item = make('div', { title: `${id}, ${time}` }, make('dt', { textContent: name }),
      make('dd', { textContent: `${value || '(empty)'} ${unit}`.trim() }));
    item.dataset.signal = id;
    if (shown?.signals[id]?.time !== time) item.className = 'changed';
    return item;
  });
  find('signals').replaceChildren(...(items.length ? items
    : [make('p', { className: 'empty', textContent: 'No signal received yet.' })]));
}

function showLog() {
  const list = find('log');
  const atEnd = list.scrollHeight - list.scrollTop - list.clientHeight < 30;
  list.replaceChildren(...snapshot.log.map(line => {
    const level = /\b(trace|debug|info|warning|error|critical)\b/.exec(line)?.[1] ?? 'info';
    const detail = level === 'trace' || level === 'debug' ? ' detail' : '';
    return make('li', { className: level + detail, textContent: line.replace(/^\d{4}-\d\d-\d\d /, '') });
  }));
  if (atEnd) list.scrollTop = list.scrollHeight;
}

const isChanged = part => JSON.stringify(snapshot[part]) !== JSON.stringify(shown?.[part]);

function show() {
  showText('banner', snapshot.there ? ''
    : `The daemon is gone (${snapshot.reason}). Waiting for it; the page follows when it is back.`);
  showStatus();
  showModes();
  if (isChanged('cards')) showTimeline();
  if (isChanged('signals')) showSignals();
  if (isChanged('log')) showLog();
  station.update(snapshot);
  diagram.update(snapshot.transitions);
}

let revision = 0;  // of what the page shows

async function poll() {
  try {
    const response = await fetch(`/news?revision=${revision}`);
    if (!response.ok) throw new Error(await response.text());
    const news = await response.json();
    revision = news.revision;
    if (news.snapshot) {
      snapshot = news.snapshot;
      show();
      shown = snapshot;
    }
  } catch {
    revision = 0;
    showText('banner', 'The bench does not answer. Start virtual-station bench again; the page follows.');
  }
  setTimeout(poll, 200);
}

poll();
