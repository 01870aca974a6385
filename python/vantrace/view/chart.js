// The timeline: asks for what is to be seen, draws it, and lets people move about in it.

import { byId, element, hideTip, showTip } from './dom.js';
import { counted, timeText } from './format.js';
import { kinds, rowHeight } from './lanes.js';
import { Painter, firstEndingAfter, rulerHeight } from './paint.js';
import { Latest } from './questions.js';

const clickSlack = 4;
const pageHeight = 200;

export class Chart {
  /** `tell` has moved() for a new span, and chosen(slice). */
  constructor(span, lanes, tell) {
    Object.assign(this, { span, lanes, tell, scroll: 0, rows: [], names: {}, selected: null, matches: null });
    this.canvas = byId('chart');
    this.labels = byId('names');
    this.painter = new Painter(this.canvas);
    this.windows = new Latest('window', (answer, asked) => this.take(answer, asked));
    this.listen();
    new ResizeObserver(() => this.changed()).observe(this.canvas);
  }

  // What is to be seen.

  /** Draws what is there, and asks for what is not. */
  changed() {
    this.scroll = Math.max(0, Math.min(this.scroll, this.lanes.height - this.height));
    this.draw();
    this.ask();
  }

  get height() {
    return this.canvas.clientHeight - rulerHeight;
  }

  draw() {
    if (this.isDrawing) return;
    this.isDrawing = true;
    requestAnimationFrame(() => {
      this.isDrawing = false;
      this.painter.paint(this);
      this.label();
      this.tellState();
    });
  }

  /** What is drawn, for whoever drives the page. */
  tellState() {
    const { begin, end } = this.span;
    const bars = this.rows.reduce((sum, { slices }) => sum + slices.length / 7, 0);
    const settled = this.windows.isIdle ? 'yes' : '';
    Object.assign(this.canvas.dataset, { begin, end, bars, settled, shown: this.shown ?? '', until: this.until ?? '' });
  }

  /** What is seen and as much again around it, so that moving finds something there. */
  ask() {
    if (this.activity) return;
    const { begin, end, width } = this.span;
    const [first, last] = this.lanes.between(this.scroll, this.scroll + this.height);
    const { asked } = this;
    const covers =
      asked && asked.begin <= Math.max(0, begin) && asked.end >= Math.min(end, this.span.duration) &&
      asked.first <= first && asked.last >= last && asked.per <= (1.3 * width) / this.canvas.clientWidth;
    if (covers) return;
    const from = Math.max(0, Math.floor(begin - width / 2));
    const to = Math.min(Math.ceil(this.span.duration) + 1, Math.ceil(end + width / 2));
    const pixels = Math.ceil((this.canvas.clientWidth * (to - from)) / width);
    this.asked = { begin: from, end: to, first: Math.max(0, first - 2), last: last + 2, pixels, per: (to - from) / pixels };
    const { per, ...given } = this.asked;
    this.windows.want(given);
  }

  /** Asks again, since more was read. */
  refresh() {
    this.asked = null;
    this.changed();
  }

  take({ rows = [], names = {}, exact, until }, { begin, end }) {
    this.rows = rows.map(([thread, kind, place, slices]) => ({ thread, kind, place, slices }));
    this.names = names;
    this.exact = exact;
    this.until = exact || until >= this.span.duration ? undefined : until;
    this.shown = `${begin}-${end}`;
    this.lanes.grow(this.rows);
    this.draw();
  }

  /** The threads' names beside the canvas. */
  label() {
    const look = [this.scroll, this.height, this.lanes.height, this.lanes.threads.length, ...this.lanes.folded].join(' ');
    if (look === this.labelled) return;
    this.labelled = look;
    const top = (y) => `${rulerHeight + y - this.scroll}px`;
    const isSeen = ({ y, height = 20 }) => y + height > this.scroll && y < this.scroll + this.height;
    const heads = this.lanes.heads.filter(isSeen).map(({ process, y }) => placed(element('h3', { title: process }, process), top(y)));
    const threads = this.lanes.threads.filter(isSeen).map(({ name, number, y }) => {
      const fold = () => {
        this.lanes.fold(number);
        this.changed();
      };
      const isOpen = !this.lanes.folded.has(number);
      return placed(element('button', { title: name, 'aria-expanded': String(isOpen), 'data-thread': number, click: fold }, name), top(y));
    });
    const isFocused = this.labels.contains(document.activeElement) && document.activeElement.dataset.thread;
    this.labels.replaceChildren(element('div', { class: 'ruler' }, 'thread'), ...heads, ...threads);
    if (isFocused) this.labels.querySelector(`[data-thread="${Number(isFocused)}"]`)?.focus();
  }

  // Moving about.

  moved() {
    this.changed();
    this.tell.moved();
  }

  zoom(factor, share) {
    this.span.zoom(factor, share);
    this.moved();
  }

  move(share) {
    this.span.move(share);
    this.moved();
  }

  whole() {
    this.span.whole();
    this.moved();
  }

  scrollBy(pixels) {
    this.scroll += pixels;
    this.changed();
  }

  /** Has a row be seen. */
  reveal(top) {
    if (top === undefined) return;
    if (top < this.scroll) this.scroll = top;
    if (top + rowHeight > this.scroll + this.height) this.scroll = top + rowHeight - this.height;
  }

  /** Goes to an event. */
  show({ start, duration, thread }) {
    this.span.show(start, duration);
    const lane = this.lanes.threads[thread];
    const isSeen = lane && lane.y < this.scroll + this.height && lane.y + lane.height > this.scroll;
    if (lane && !isSeen) this.reveal(lane.y);
    this.moved();
  }

  listen() {
    const { canvas } = this;
    canvas.addEventListener('wheel', (event) => this.onWheel(event), { passive: false });
    canvas.addEventListener('pointerdown', (event) => this.beginDrag(event));
    canvas.addEventListener('pointermove', (event) => this.hover(event));
    canvas.addEventListener('pointerleave', hideTip);
    canvas.addEventListener('dblclick', (event) => this.fill(this.sliceAt(event)));
    this.labels.addEventListener('wheel', (event) => this.scrollBy(event.deltaY), { passive: true });
  }

  onWheel(event) {
    event.preventDefault();
    const { left, width } = this.canvas.getBoundingClientRect();
    const lines = event.deltaMode === WheelEvent.DOM_DELTA_LINE ? 18 : 1;
    const sideways = event.shiftKey ? event.deltaX || event.deltaY : event.deltaX;
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) this.move((sideways * lines) / width);
    else this.zoom(1.0025 ** (event.deltaY * lines), (event.clientX - left) / width);
  }

  /** A press that does not move is a click. */
  beginDrag(down) {
    if (down.button !== 0) return;
    const { canvas, span } = this;
    let [x, y] = [down.clientX, down.clientY];
    let isDrag = false;
    canvas.setPointerCapture(down.pointerId);
    const move = (event) => {
      isDrag ||= Math.hypot(event.clientX - down.clientX, event.clientY - down.clientY) > clickSlack;
      if (!isDrag) return;
      canvas.classList.add('dragged');
      hideTip();
      span.move((x - event.clientX) / canvas.clientWidth);
      this.scroll += y - event.clientY;
      [x, y] = [event.clientX, event.clientY];
      this.moved();
    };
    const end = (event) => {
      for (const [name, listener] of Object.entries(listeners)) canvas.removeEventListener(name, listener);
      canvas.classList.remove('dragged');
      if (!isDrag && event.type === 'pointerup') this.choose(this.sliceAt(event));
    };
    const listeners = { pointermove: move, pointerup: end, pointercancel: end };
    for (const [name, listener] of Object.entries(listeners)) canvas.addEventListener(name, listener);
  }

  // Slices.

  choose(slice) {
    this.selected = slice;
    this.draw();
    this.tell.chosen(slice);
  }

  /** Has a slice fill most of the width. */
  fill(slice) {
    if (!slice) return;
    const margin = Math.max(slice.duration * 0.05, 5);
    this.span.set(slice.start - margin, slice.start + slice.duration + margin);
    this.moved();
  }

  slice(row, at) {
    const [start, duration, name, events, marks, serial, busy] = row.slices.slice(at, at + 7);
    const { thread, kind, place } = row;
    return { start, duration, name: this.names[name], events, marks, serial, busy, thread, kind, place, row, at };
  }

  /** What is drawn where the pointer is. */
  sliceAt(event) {
    const { left, top } = this.canvas.getBoundingClientRect();
    const y = event.clientY - top - rulerHeight + this.scroll;
    const time = this.span.begin + ((event.clientX - left) / this.canvas.clientWidth) * this.span.width;
    const slack = ((event.pointerType === 'touch' ? 8 : 2) * this.span.width) / this.canvas.clientWidth;
    for (const row of this.rows) {
      const rowTop = this.lanes.rowTop(row.thread, row.kind, row.place);
      if (rowTop === undefined || y < rowTop || y >= rowTop + rowHeight) continue;
      const reach = row.kind === kinds.instants ? 2 * slack : slack;
      const at = nearestSlice(row.slices, time, reach);
      return at === undefined ? null : this.slice(row, at);
    }
    return null;
  }

  hover(event) {
    if (event.buttons > 0) return;
    const slice = this.sliceAt(event);
    if (!slice) {
      hideTip();
      return;
    }
    showTip({ x: event.clientX, y: event.clientY }, describe(slice));
  }

  /** From the chosen slice to the one beside it in its row, or to the one it lies in or that lies in it. */
  walk(direction) {
    const selected = this.located();
    const row = selected && this.rows.find((other) => isSameRow(other, selected));
    if (!row) {
      const first = this.rows.find(({ kind, slices }) => kind === kinds.nested && slices.length > 0);
      if (first) this.choose(this.slice(first, Math.min(firstEndingAfter(first.slices, this.span.begin), first.slices.length - 7)));
      return;
    }
    const step = { left: -7, right: 7 }[direction];
    if (step) this.step(row, firstEndingAfter(row.slices, selected.start + selected.duration / 2) + step);
    else this.climb(selected, direction === 'up' ? -1 : 1);
  }

  /** The chosen slice; one that was searched for does not tell its row by itself. */
  located() {
    const { selected } = this;
    if (!selected || selected.row) return selected;
    for (const row of this.rows.filter(({ thread }) => thread === selected.thread)) {
      const at = firstEndingAfter(row.slices, selected.start + selected.duration);
      if (row.slices[at] === selected.start && row.slices[at + 5] === selected.serial) return this.slice(row, at);
    }
    return selected;
  }

  step(row, at) {
    if (at >= 0 && at < row.slices.length) this.go(this.slice(row, at));
  }

  climb(selected, by) {
    const { thread, kind, place, start, duration } = selected;
    const row = this.rows.find((other) => isSameRow(other, { thread, kind, place: place + by }));
    if (!row) return;
    const at = firstEndingAfter(row.slices, by < 0 ? start + duration / 2 : start);
    if (at < row.slices.length && row.slices[at] <= start + duration) this.go(this.slice(row, at));
  }

  go(slice) {
    this.choose(slice);
    const { begin, end, width } = this.span;
    if (slice.start + slice.duration < begin || slice.start > end) {
      this.span.set(slice.start - width / 2, slice.start + width / 2);
    }
    this.reveal(this.lanes.rowTop(slice.thread, slice.kind, slice.place));
    this.moved();
  }

  page(direction) {
    this.scrollBy(direction * pageHeight);
  }
}

function placed(made, top) {
  made.style.top = top;
  return made;
}

function isSameRow(a, b) {
  return a.thread === b.thread && a.kind === b.kind && a.place === b.place;
}

/** The slice at a time, or the nearest that is not farther than `reach`. */
function nearestSlice(slices, time, reach) {
  let nearest;
  let least = reach;
  for (let at = firstEndingAfter(slices, time - reach); at < slices.length && slices[at] <= time + reach; at += 7) {
    const away = Math.max(slices[at] - time, time - slices[at] - slices[at + 1], 0);
    if (away > least) continue;
    least = away;
    nearest = at;
  }
  return nearest;
}

/** A slice in a few lines. */
export function describe({ name, start, duration, events, busy, kind }) {
  if (events > 1) {
    return [`${counted(events, kind === kinds.instants ? 'instant' : 'event')}, mostly ${name}`, `${timeText(duration)} from ${timeText(start)} on, ${timeText(busy)} inside them`];
  }
  return [name, kind === kinds.instants ? `at ${timeText(start, 7)}` : `${timeText(duration)} from ${timeText(start, 7)} on`];
}
