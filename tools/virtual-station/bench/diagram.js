// The state machine's diagram: the nodes stand where the two tables put them, the edges are drawn between them.

const wide = {
  width: 720, height: 385, box: [118, 42],
  at: {
    Start: [70, 36], Uninitialized: [70, 120], Initializing: [225, 120], Disabled: [385, 120],
    Enabling: [517, 45], Enabled: [650, 120], Disabling: [517, 195], Recovering: [385, 250], Error: [650, 250],
    Final: [36, 345], Terminating: [175, 345], any: [385, 345], FatalError: [650, 345],
  },
};
const narrow = {
  width: 360, height: 470, box: [104, 36],
  at: {
    Start: [60, 18], Uninitialized: [60, 72], Initializing: [60, 142], Disabled: [60, 222],
    Enabling: [180, 172], Enabled: [300, 222], Disabling: [180, 272], Recovering: [60, 312], Error: [300, 312],
    any: [180, 372], FatalError: [300, 442], Terminating: [60, 442], Final: [180, 442],
  },
};

// Reactions that lead to another state. "any": every state has them.
const edges = [
  ['Uninitialized', 'Initializing', 'ExtDisableReq'],
  ['Initializing', 'Disabled', 'IntInitializingDone'],
  ['Disabled', 'Enabling', 'ExtEnableReq'],
  ['Enabling', 'Enabled', 'IntEnablingDone'],
  ['Enabled', 'Disabling', 'ExtDisableReq'],
  ['Disabling', 'Disabled', 'IntDisablingDone'],
  ['any', 'Error', 'IntError'],
  ['Error', 'Recovering', 'IntRecover'],
  ['Recovering', 'Disabled', 'IntRecoveringDone'],
  ['any', 'FatalError', 'IntFatalError'],
  ['any', 'Terminating', 'IntTerminate'],
  ['Terminating', 'Final', 'IntTerminatingDone'],
];

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
  return edges.some(([a, b]) => a === 'any' && b === to) ? ['any', to] : [];
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
    const layout = this.narrow.matches ? narrow : wide;
    this.svg = make('svg', { viewBox: `0 0 ${layout.width} ${layout.height}`, role: 'img' });
    this.title = make('title', {}, this.svg);
    this.edges = new Map();
    const [width, height] = layout.box;
    const reach = { Start: [8, 8], Final: [15, 15] };
    // From the border of one box to the border of the other, on the line between their centres.
    const border = (from, to) => {
      const [x, y] = layout.at[from];
      const [dx, dy] = [layout.at[to][0] - x, layout.at[to][1] - y];
      const [w, h] = (reach[from] ?? [width / 2, height / 2]).map(half => half + 2);
      const part = Math.min(w / Math.abs(dx || 1e-9), h / Math.abs(dy || 1e-9));
      return [x + dx * part, y + dy * part];
    };
    for (const [from, to, event] of [['Start', 'Uninitialized', 'start'], ...edges]) {
      const [a, b] = [border(from, to), border(to, from)];
      const angle = Math.atan2(b[1] - a[1], b[0] - a[0]);
      const foot = [b[0] - 8 * Math.cos(angle), b[1] - 8 * Math.sin(angle)];
      const group = make('g', {}, this.svg);
      make('title', {}, group).textContent = event;
      const line = make('path', { d: `M${a}L${foot}`, class: from === 'any' ? 'edge frame' : 'edge' }, group);
      const tip = make('path', { d: 'M0 0-10-5-10 5z', class: 'tip',
        transform: `translate(${b}) rotate(${angle * 180 / Math.PI})` }, group);
      this.edges.set(`${from} ${to}`, [line, tip]);
    }
    this.nodes = new Map();
    for (const [name, [x, y]] of Object.entries(layout.at)) {
      if (name === 'Start' || name === 'Final') {
        make('circle', { cx: x, cy: y, r: name === 'Start' ? 7 : 8, class: 'dotmark' }, this.svg);
        if (name === 'Final') make('circle', { cx: x, cy: y, r: 13, class: 'final' }, this.svg);
        continue;
      }
      const node = make('g', { class: name === 'any' ? 'node any' : 'node', 'data-state': name }, this.svg);
      make('rect', { x: x - width / 2, y: y - height / 2, width, height, rx: name === 'any' ? height / 2 : 11 }, node);
      make('text', { x, y }, node).textContent = name === 'any' ? 'any state' : name;
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
      const steps = (way[0] === 'any' ? [from, to] : way).flatMap((name, i) =>
        i ? [' → ', part('code', events[i - 1]), ' → ', part('b', name)] : [part('b', name)]);
      this.caption.replaceChildren(...steps, `, ${time}`);
    }
  }
}
