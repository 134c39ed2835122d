import { Diagram } from '/diagram.js';
import { Station, outcomes } from '/station.js';

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
  { name: 'FeliCa card', uid: '0102030405060708', kind: 'felica', about: 'no UID is read of it', colour: '#b4530a' },
  { name: 'Malformed UID', uid: 'XYZ', kind: '', about: 'injected, no hex', colour: '#be123c' },
];

const station = new Station(find('post'));
const diagram = new Diagram(find('diagram'), find('transition'));
let snapshot;
let alive = 0;
let lastBeat = 0;

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

for (const [index, card] of cards.entries()) {
  const button = make('button', { type: 'button', className: 'card', draggable: true },
    make('b', { textContent: card.name }), make('code', { textContent: card.uid }),
    make('small', { textContent: card.about }));
  button.style.setProperty('--card', card.colour);
  button.dataset.uid = card.uid;
  button.addEventListener('click', () => present(card));
  button.addEventListener('dragstart', event => event.dataTransfer.setData('application/x-card', String(index)));
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

const zone = find('post');
const isCard = event => event.dataTransfer.types.includes('application/x-card');
zone.addEventListener('dragover', event => {
  if (!isCard(event)) return;
  event.preventDefault();
  zone.classList.add('over');
});
zone.addEventListener('dragleave', () => zone.classList.remove('over'));
zone.addEventListener('drop', event => {
  zone.classList.remove('over');
  if (!isCard(event)) return;
  event.preventDefault();
  present(cards[Number(event.dataTransfer.getData('application/x-card'))]);
});

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
  find('reader-text').textContent = !reader.simulated ? 'no simulated reader'
    : !reader.there ? 'virtual-nfc is gone' : !reader.plugged ? 'reader unplugged'
    : `${reader.name}: ${reader.polling ? 'polling' : reader.powered ? 'on' : 'off'}`;
  pill('reader-pill', Boolean(reader.polling), Boolean(reader.simulated && !reader.plugged));
  find('plug').dataset.do = reader.there && !reader.plugged ? 'plug' : 'unplug';
  find('plug').textContent = find('plug').dataset.do === 'plug' ? 'Plug reader in' : 'Unplug reader';
  if (snapshot.alive.count !== alive) {
    const heart = find('alive-pill');
    heart.classList.remove('beating');
    heart.getBoundingClientRect();
    if (snapshot.alive.count > alive) heart.classList.add('beating');
    alive = snapshot.alive.count;
    lastBeat = Date.now();
  }
  showLife();
}

// An enabled daemon sends an alive notification every four seconds.
function showLife() {
  if (!snapshot) return;
  const silent = Math.floor((Date.now() - lastBeat) / 1000);
  const missing = alive > 0 && snapshot.state === 'Enabled' && silent > 9;
  find('alive-pill').classList.toggle('missing', missing);
  find('alive-text').textContent = missing ? `silent for ${silent} s`
    : alive ? `alive ${snapshot.alive.time.slice(0, 8)}` : 'not alive yet';
}
setInterval(showLife, 1000);

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
  showText('notice', [settings.problem, snapshot.notice].filter(Boolean).join(' '));
}

let shownCards;
function showTimeline() {
  const text = JSON.stringify(snapshot.cards);
  if (text === shownCards) return;
  shownCards = text;
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

const shownSignals = new Map();
function showSignals() {
  for (const signal of snapshot.signals) {
    let item = shownSignals.get(signal.id);
    if (!item) {
      item = make('div', {}, make('dt'), make('dd'));
      item.dataset.signal = signal.id;
      shownSignals.set(signal.id, item);
      find('signals').append(item);
    }
    const key = `${signal.time} ${signal.value}`;
    if (item.dataset.key === key) continue;
    item.dataset.key = key;
    item.firstChild.textContent = signal.name;
    item.lastChild.textContent = `${signal.value || '(empty)'} ${signal.unit}`.trim();
    item.title = `${signal.id}, ${signal.time}`;
    item.classList.remove('changed');
    item.getBoundingClientRect();
    item.classList.add('changed');
  }
  if (!snapshot.signals.length) {
    find('signals').replaceChildren(make('p', { className: 'empty', textContent: 'No signal received yet.' }));
    shownSignals.clear();
  } else {
    find('signals').querySelector('.empty')?.remove();
  }
}

function showLines(lines) {
  const list = find('log');
  const atEnd = list.scrollHeight - list.scrollTop - list.clientHeight < 30;
  for (const line of lines) {
    const level = /\b(trace|debug|info|warning|error|critical)\b/.exec(line)?.[1] ?? 'info';
    const detail = level === 'trace' || level === 'debug' ? ' detail' : '';
    list.append(make('li', { className: level + detail, textContent: line.replace(/^\d{4}-\d\d-\d\d /, '') }));
  }
  while (list.childElementCount > 1000) list.firstChild.remove();
  if (atEnd) list.scrollTop = list.scrollHeight;
}

function show() {
  showText('banner', snapshot.there ? ''
    : `The daemon is gone (${snapshot.reason}). Waiting for it; the page follows when it is back.`);
  showStatus();
  showModes();
  showTimeline();
  showSignals();
  station.update(snapshot);
  diagram.update(snapshot.transitions);
}

let position = '';  // what the page has already

async function poll() {
  try {
    const response = await fetch(`/news?${position}`);
    if (!response.ok) throw new Error(await response.text());
    const news = await response.json();
    if (!position) {  // the bench, perhaps a new one, sends everything
      find('log').replaceChildren();
      diagram.restart();
      station.restart();
    }
    position = `revision=${news.revision}&line=${news.line}`;
    if (news.snapshot) {
      snapshot = news.snapshot;
      show();
    }
    showLines(news.lines);
  } catch {
    position = '';
    showText('banner', 'The bench does not answer. Start virtual-station bench again; the page follows.');
  }
  setTimeout(poll, 200);
}

poll();
