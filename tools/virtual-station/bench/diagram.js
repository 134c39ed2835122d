// The state machine's diagram: the nodes stand where layout.js puts them, the edges are those of the machine's own text.
import { layout } from '/layout.js';

const machine = await (await fetch('/statemachine.mmd')).text();
// Reactions that lead to another state. "AnyState" stands for the states that have no reaction of their own.
const edges = [...machine.matchAll(/^ +(\w+) --> (\w+) : (\w+)$/gm)].map(([, from, to, event]) => [from, to, event]);
const initial = /\[\*\] --> (\w+)/.exec(machine)[1];
const last = /(\w+) --> \[\*\]/.exec(machine)[1];
const anyState = 'AnyState';
const [width, height] = layout.box;
const reaches = { Start: [8, 8], [last]: [15, 15] };  // of the nodes that are no boxes

const stepTime = 900;  // ms for which a state is shown, however short it lasted
const make = (name, attributes, parent) => {
  const element = document.createElementNS('http://www.w3.org/2000/svg', name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  parent?.append(element);
  return element;
};

// From the border of one box to the border of the other, on the line between their centres.
function border(from, to) {
  const [x, y] = layout.at[from];
  const [dx, dy] = [layout.at[to][0] - x, layout.at[to][1] - y];
  const [w, h] = (reaches[from] ?? [width / 2, height / 2]).map(half => half + 2);
  const part = Math.min(w / Math.abs(dx || 1e-9), h / Math.abs(dy || 1e-9));
  return [x + dx * part, y + dy * part];
}

// The shortest way by the states' own reactions, or else by the reactions that all states share.
function wayBetween(from, to) {
  const ways = [[from]];
  const seen = new Set([from]);
  for (const way of ways) {
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
    this.caption = caption;
    this.queue = [];
    this.last = 0;
    this.edges = new Map();
    this.nodes = new Map();
    const svg = make('svg', { viewBox: `0 0 ${layout.width} ${layout.height}`, role: 'img' });
    this.title = make('title', {}, svg);
    for (const [from, to, event] of [['Start', initial, 'start'], ...edges]) this.drawEdge(svg, from, to, event);
    for (const [name, at] of Object.entries(layout.at)) this.drawNode(svg, name, at);
    root.replaceChildren(svg);
  }

  drawEdge(svg, from, to, event) {
    const [a, b] = [border(from, to), border(to, from)];
    const angle = Math.atan2(b[1] - a[1], b[0] - a[0]);
    const foot = [b[0] - 8 * Math.cos(angle), b[1] - 8 * Math.sin(angle)];
    const group = make('g', {}, svg);
    make('title', {}, group).textContent = event;
    make('path', { d: `M${a}L${foot}`, class: from === anyState ? 'edge frame' : 'edge' }, group);
    make('path', { d: 'M0 0-10-5-10 5z', class: 'tip',
      transform: `translate(${b}) rotate(${angle * 180 / Math.PI})` }, group);
    this.edges.set(`${from} ${to}`, group);
  }

  drawNode(svg, name, [x, y]) {
    if (name === 'Start' || name === last) {
      make('circle', { cx: x, cy: y, r: name === 'Start' ? 7 : 8, class: 'dotmark' }, svg);
      if (name === last) make('circle', { cx: x, cy: y, r: 13, class: 'final' }, svg);
      return;
    }
    const node = make('g', { class: name === anyState ? 'node any' : 'node', 'data-state': name }, svg);
    const rx = name === anyState ? height / 2 : 11;
    make('rect', { x: x - width / 2, y: y - height / 2, width, height, rx }, node);
    make('text', { x, y }, node).textContent = name === anyState ? 'any state' : name;
    this.nodes.set(name, node);
  }

  // Shows the new transitions one after the other. After the start, shows only the present state.
  update(transitions) {
    if (transitions.at(-1)?.number < this.last) this.last = 0;  // another bench
    const fresh = transitions.filter(transition => transition.number > this.last);
    if (!fresh.length) return;
    this.queue.push(...(this.last ? fresh.slice(-4) : fresh.slice(-1)));
    this.last = fresh.at(-1).number;
    if (!this.timer) this.step();
  }

  step() {
    const transition = this.queue.shift();
    this.timer = transition && setTimeout(() => this.step(), stepTime);
    if (transition) this.show(transition);
  }

  show({ from, to, time }) {
    const way = from && to ? wayBetween(from, to) : [];
    for (const [name, node] of this.nodes) {
      node.classList.toggle('current', name === to);
      node.classList.toggle('passed', name !== to && (way.includes(name) || name === from && way.length > 0));
      node.classList.toggle('trouble', /Error/.test(name));
    }
    for (const edge of this.edges.values()) edge.classList.remove('last');
    const events = way.slice(1).map((name, i) => {
      this.edges.get(`${way[i]} ${name}`).classList.add('last');
      return edges.find(([a, b]) => a === way[i] && b === name)[2];
    });
    this.title.textContent = to ? `The state machine is in ${to}` : 'The state of the machine is unknown';
    const part = (tag, text) => Object.assign(document.createElement(tag), { textContent: text });
    const steps = (way[0] === anyState ? [from, to] : way).flatMap((name, i) =>
      i ? [' → ', part('code', events[i - 1]), ' → ', part('b', name)] : [part('b', name)]);
    this.caption.replaceChildren(...(!to ? [part('b', 'The daemon is gone'), ` since ${time}; it was ${from}.`]
      : !way.length ? ['Seen in ', part('b', to), ` at ${time}.`] : [...steps, `, ${time}`]));
  }
}
