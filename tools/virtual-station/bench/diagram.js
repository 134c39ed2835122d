// The state machine's diagram: the nodes stand where layout.js puts them, the edges are the machine's own.
import { layouts } from '/layout.js';
import { machine } from '/machine.js';

// Reactions that lead to another state.
const edges = machine.transitions.map(({ from, to, event }) => [from, to, event]);
const { initial, last, anyState } = machine;

const stepTime = 900;  // a state that the machine passes in no time is shown that long
const make = (name, attributes, parent) => {
  const element = document.createElementNS('http://www.w3.org/2000/svg', name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (parent) parent.append(element);
  return element;
};

// The shortest way by the states' own reactions; failing that, the one that every state has.
function wayBetween(from, to) {
  const ways = [[from]];
  const seen = new Set([from]);
  while (ways.length) {
    const way = ways.shift();
    for (const [a, b] of edges) {
      if (a !== way.at(-1) || seen.has(b)) continue;
      if (b === to) return [...way, b];
      seen.add(b);
      ways.push([...way, b]);
    }
  }
  return edges.some(([a, b]) => a === anyState && b === to) ? [anyState, to] : [];
}

export class Diagram {
  constructor(root, caption) {
    this.root = root;
    this.caption = caption;
    this.queue = [];
    this.last = 0;
    this.narrow = matchMedia('(max-width: 799px)');
    this.narrow.addEventListener('change', () => this.draw());
    this.draw();
  }

  draw() {
    const layout = this.narrow.matches ? layouts.narrow : layouts.wide;
    this.svg = make('svg', { viewBox: `0 0 ${layout.width} ${layout.height}`, role: 'img' });
    this.title = make('title', {}, this.svg);
    this.edges = new Map();
    const [width, height] = layout.box;
    const reach = { Start: [8, 8], [last]: [15, 15] };
    // From the border of one box to the border of the other, on the line between their centres.
    const border = (from, to) => {
      const [x, y] = layout.at[from];
      const [dx, dy] = [layout.at[to][0] - x, layout.at[to][1] - y];
      const [w, h] = (reach[from] ?? [width / 2, height / 2]).map(half => half + 2);
      const part = Math.min(w / Math.abs(dx || 1e-9), h / Math.abs(dy || 1e-9));
      return [x + dx * part, y + dy * part];
    };
    for (const [from, to, event] of [['Start', initial, 'start'], ...edges]) {
      const [a, b] = [border(from, to), border(to, from)];
      const angle = Math.atan2(b[1] - a[1], b[0] - a[0]);
      const foot = [b[0] - 8 * Math.cos(angle), b[1] - 8 * Math.sin(angle)];
      const group = make('g', {}, this.svg);
      make('title', {}, group).textContent = event;
      const line = make('path', { d: `M${a}L${foot}`, class: from === anyState ? 'edge frame' : 'edge' }, group);
      const tip = make('path', { d: 'M0 0-10-5-10 5z', class: 'tip',
        transform: `translate(${b}) rotate(${angle * 180 / Math.PI})` }, group);
      this.edges.set(`${from} ${to}`, [line, tip]);
    }
    this.nodes = new Map();
    for (const [name, [x, y]] of Object.entries(layout.at)) {
      if (name === 'Start' || name === last) {
        make('circle', { cx: x, cy: y, r: name === 'Start' ? 7 : 8, class: 'dotmark' }, this.svg);
        if (name === last) make('circle', { cx: x, cy: y, r: 13, class: 'final' }, this.svg);
        continue;
      }
      const node = make('g', { class: name === anyState ? 'node any' : 'node', 'data-state': name }, this.svg);
      const rx = name === anyState ? height / 2 : 11;
      make('rect', { x: x - width / 2, y: y - height / 2, width, height, rx }, node);
      make('text', { x, y }, node).textContent = name === anyState ? 'any state' : name;
      this.nodes.set(name, node);
    }
    this.root.replaceChildren(this.svg);
    if (this.shown) this.show(this.shown);
  }

  // Shows what is new among the transitions, one after the other; at first only where the machine is.
  update(transitions) {
    const fresh = transitions.filter(transition => transition.number > this.last);
    if (!fresh.length) return;
    this.queue.push(...(this.last ? fresh.slice(-4) : fresh.slice(-1)));
    this.last = fresh.at(-1).number;
    if (!this.timer) this.step();
  }

  restart() {
    this.last = 0;
    this.queue = [];
  }

  step() {
    const transition = this.queue.shift();
    this.timer = null;
    if (!transition) return;
    this.show(transition);
    this.timer = setTimeout(() => this.step(), stepTime);
  }

  show(transition) {
    this.shown = transition;
    const { from, to, time } = transition;
    const way = from && to ? wayBetween(from, to) : [];
    for (const [name, node] of this.nodes) {
      node.classList.toggle('current', name === to);
      node.classList.toggle('passed', name !== to && (way.includes(name) || name === from && way.length > 0));
      node.classList.toggle('trouble', /Error/.test(name));
    }
    for (const parts of this.edges.values()) parts.forEach(part => part.classList.remove('last'));
    const events = [];
    way.slice(1).forEach((name, i) => {
      this.edges.get(`${way[i]} ${name}`).forEach(part => part.classList.add('last'));
      events.push(edges.find(([a, b]) => a === way[i] && b === name)[2]);
    });
    this.title.textContent = to ? `The state machine is in ${to}` : 'The state of the machine is unknown';
    this.describe(from, to, way, events, time);
  }

  describe(from, to, way, events, time) {
    const part = (tag, text) => Object.assign(document.createElement(tag), { textContent: text });
    if (!to) {
      this.caption.replaceChildren(part('b', 'The daemon is gone'), ` since ${time}; it was ${from}.`);
    } else if (!way.length) {
      this.caption.replaceChildren('Seen in ', part('b', to), ` at ${time}.`);
    } else {
      const steps = (way[0] === anyState ? [from, to] : way).flatMap((name, i) =>
        i ? [' → ', part('code', events[i - 1]), ' → ', part('b', name)] : [part('b', name)]);
      this.caption.replaceChildren(...steps, `, ${time}`);
    }
  }
}
