// The flame graph: who called whom, as wide as the time it took, the outermost on top.

import { byId, element, hideTip, showTip } from './dom.js';
import { childrenOf, measureTree, mergedTree } from './data.js';
import { counted, hueOf, percentText, timeText } from './format.js';

const rowHeight = 21;
const leastWidth = 1.5;
const mostFrames = 4000;

export class Flame {
  constructor(report, state) {
    this.state = state;
    this.show(report.nodes);
    this.box = byId('frames');
    this.box.addEventListener('keydown', (event) => this.onKey(event));
    this.box.addEventListener('click', (event) => this.onClick(event));
    this.box.addEventListener('pointermove', (event) => this.onHover(event));
    this.box.addEventListener('pointerleave', hideTip);
    this.box.addEventListener('focusin', (event) => this.tell(Number(event.target.dataset.node)));
    for (const button of document.querySelectorAll('#by button')) {
      button.addEventListener('click', () => state.set({ by: button.value, at: '' }));
    }
  }

  /** Takes other stacks, to be drawn next time. */
  show(nodes) {
    this.trees = { thread: nodes, merged: mergedTree(nodes) };
  }

  /** Measures what lies in the range; the rest of the page asks `tree` and `times` for it. */
  measure() {
    this.tree = this.trees[this.state.by];
    this.times = measureTree(this.tree, this.state.range);
    this.children = childrenOf(this.tree, this.times.total);
    this.roots = this.tree.flatMap((node, i) => (node.parent < 0 && this.times.total[i] > 0 ? [i] : []));
    this.roots.sort((a, b) => this.times.total[b] - this.times.total[a]);
    this.whole = this.roots.reduce((sum, root) => sum + this.times.total[root], 0);
  }

  /** The node that fills the width; none for all of them. */
  get zoomed() {
    const at = Number(this.state.at);
    const isOne = this.state.at !== '' && Number.isInteger(at) && at >= 0 && at < this.tree.length;
    return isOne && this.times.total[at] > 0 ? at : undefined;
  }

  draw() {
    this.measure();
    for (const button of document.querySelectorAll('#by button')) {
      button.setAttribute('aria-pressed', button.value === this.state.by);
    }
    const focused = document.activeElement?.dataset?.node;
    const frames = this.layOut();
    const depth = frames.reduce((most, { row }) => Math.max(most, row), 0);
    this.box.style.height = `${(depth + 1) * rowHeight}px`;
    this.box.replaceChildren(...frames.map((frame) => this.frame(frame)));
    if (frames.length === 0) this.box.append(element('p', { class: 'none' }, 'Nothing in this time.'));
    this.reach(focused ?? this.zoomed ?? frames[0]?.node, focused !== undefined);
    this.tell(this.zoomed ?? frames[0]?.node);
  }

  /** What is wide enough to be seen: node, row, and left and width as shares of the whole. */
  layOut() {
    const { zoomed } = this;
    const above = zoomed === undefined ? [] : this.pathTo(zoomed).slice(0, -1);
    const frames = above.map((node, row) => ({ node, row, left: 0, width: 1 }));
    const least = leastWidth / Math.max(this.box.clientWidth, 100);
    const waiting = [];
    const push = (nodes, row, left, scale) => {
      let at = left;
      for (const node of nodes) {
        const width = this.times.total[node] * scale;
        if (width >= least) waiting.push({ node, row, left: at, width });
        at += width;
      }
    };
    if (zoomed === undefined) push(this.roots, 0, 0, 1 / this.whole);
    else push([zoomed], above.length, 0, 1 / this.times.total[zoomed]);
    while (waiting.length > 0 && frames.length < mostFrames) {
      const frame = waiting.shift();
      frames.push(frame);
      push(this.children[frame.node], frame.row + 1, frame.left, frame.width / this.times.total[frame.node]);
    }
    return frames;
  }

  pathTo(node) {
    const path = [];
    for (let at = node; at >= 0; at = this.tree[at].parent) path.unshift(at);
    return path;
  }

  frame({ node, row, left, width }) {
    const { name, parent } = this.tree[node];
    const matches = this.state.q && this.state.matches(name);
    const made = element(
      'div',
      {
        class: `frame${parent < 0 ? ' root' : ''}${matches ? ' found' : this.state.q ? ' faded' : ''}`,
        role: 'treeitem',
        'aria-level': row + 1,
        'aria-label': `${name}, ${timeText(this.times.total[node])}`,
        tabindex: -1,
        'data-node': node,
      },
      width * this.box.clientWidth > 24 ? name : '',
    );
    made.style.setProperty('--hue', hueOf(name));
    made.style.left = `${100 * left}%`;
    made.style.width = `calc(${100 * width}% - 1px)`;
    made.style.top = `${row * rowHeight}px`;
    return made;
  }

  elementOf(node) {
    return node === undefined ? null : this.box.querySelector(`[data-node="${Number(node)}"]`);
  }

  /** Lets the Tab key come to a frame; gives it the focus if asked. */
  reach(node, isFocused) {
    const frame = this.elementOf(node) ?? this.box.querySelector('.frame');
    if (!frame) return;
    this.box.querySelector('[tabindex="0"]')?.setAttribute('tabindex', -1);
    frame.setAttribute('tabindex', 0);
    if (isFocused) frame.focus();
  }

  zoom(node) {
    const isWhole = this.tree[node] === undefined || (this.tree[node].parent < 0 && this.roots.length === 1);
    this.state.set({ at: isWhole ? '' : String(node) });
  }

  onClick(event) {
    const frame = event.target.closest('.frame');
    if (!frame) return;
    this.reach(frame.dataset.node, true);
    this.zoom(Number(frame.dataset.node));
  }

  /** Arrows walk the tree, Enter fills the width with a frame, Escape goes out by one. */
  onKey(event) {
    const node = Number(event.target.dataset.node);
    if (!Number.isInteger(node) || event.ctrlKey || event.metaKey || event.altKey) return;
    if (event.key === 'Enter' || event.key === ' ') this.zoom(node);
    else if (event.key === 'Escape') this.zoom(this.tree[this.zoomed]?.parent);
    else if (event.key.startsWith('Arrow')) this.reach(this.beside(node, event.key.slice(5)), true);
    else return;
    event.preventDefault();
  }

  beside(node, direction) {
    const { parent } = this.tree[node];
    const siblings = parent < 0 ? this.roots : this.children[parent];
    const at = siblings.indexOf(node);
    const next = {
      Up: parent < 0 ? node : parent,
      Down: this.children[node][0],
      Left: siblings[at - 1],
      Right: siblings[at + 1],
    }[direction];
    return this.elementOf(next) ? next : node;
  }

  onHover(event) {
    const frame = event.target.closest('.frame');
    if (!frame) return hideTip();
    const node = Number(frame.dataset.node);
    return showTip({ x: event.clientX, y: event.clientY }, [this.tree[node].name, ...this.facts(node)]);
  }

  facts(node) {
    const { calls, self, total } = this.times;
    const facts = [`${timeText(total[node])}, ${percentText(total[node], this.whole)} of all`];
    if (this.tree[node].parent >= 0) {
      facts.push(`${timeText(self[node])} in itself`);
      if (calls[node] > 0) facts.push(counted(calls[node], 'call'));
    }
    return facts;
  }

  /** The line below the graph: the way to a frame, and its times. */
  tell(node) {
    if (node === undefined || !this.tree[node]) {
      byId('path').replaceChildren();
      return;
    }
    const path = this.pathTo(node);
    const shown = path.length > 6 ? [...path.slice(0, 2), null, ...path.slice(-3)] : path;
    const steps = shown.map((step) => (step === null ? '…' : this.tree[step].name));
    byId('path').replaceChildren(
      element('span', { class: 'steps' }, steps.join(' › ')),
      element('span', { class: 'facts' }, this.facts(node).join(' · ')),
    );
  }
}
