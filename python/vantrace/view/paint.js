// Draws the timeline on its canvas.

import { hueOf, roundStep, timeText } from './format.js';
import { kinds, rowHeight } from './lanes.js';

export const rulerHeight = 24;
const barHeight = rowHeight - 2;
const leastText = 28;
const marks = { open: 2, elsewhere: 4, overlaps: 8 };

/** The colours and the font that the page's style gives. */
export function lookOf(element) {
  const style = getComputedStyle(element);
  const value = (name) => style.getPropertyValue(name).trim();
  return {
    lightness: value('--fill-l'),
    chroma: value('--fill-c'),
    text: value('--frame-text'),
    soft: value('--soft'),
    line: value('--line'),
    card: value('--card'),
    page: value('--page'),
    accent: value('--accent'),
    font: `12px ${style.fontFamily}`,
  };
}

export class Painter {
  #colours = new Map();
  #lengths = new Map();

  constructor(canvas) {
    this.canvas = canvas;
    this.context = canvas.getContext('2d', { alpha: false });
  }

  /** `scene` has span, lanes, scroll, rows, names, selected, matches, until, activity. */
  paint(scene) {
    this.#size();
    const { context, width, height } = this;
    this.scene = scene;
    this.scale = width / scene.span.width;
    context.fillStyle = this.look.card;
    context.fillRect(0, 0, width, height);
    this.#grid();
    context.save();
    context.beginPath();
    context.rect(0, rulerHeight, width, height - rulerHeight);
    context.clip();
    this.#threads();
    if (scene.activity) this.#activity();
    for (const row of scene.rows) this.#row(row);
    this.#unread();
    context.restore();
    this.#ruler();
  }

  #size() {
    const ratio = window.devicePixelRatio || 1;
    const { clientWidth, clientHeight } = this.canvas;
    const [width, height] = [Math.round(clientWidth * ratio), Math.round(clientHeight * ratio)];
    if (this.canvas.width !== width || this.canvas.height !== height) Object.assign(this.canvas, { width, height });
    Object.assign(this, { width: clientWidth, height: clientHeight });
    this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
    const look = lookOf(this.canvas);
    if (this.look?.lightness !== look.lightness) this.#colours.clear();
    this.look = look;
    this.context.font = look.font;
    this.context.textBaseline = 'middle';
  }

  x(time) {
    return (time - this.scene.span.begin) * this.scale;
  }

  #colour(name, fades) {
    const key = fades ? `-${name}` : name;
    if (!this.#colours.has(key)) {
      const { lightness, chroma } = this.look;
      this.#colours.set(key, `oklch(${lightness} ${fades ? 0 : chroma} ${hueOf(name)} / ${fades ? 0.35 : 1})`);
    }
    return this.#colours.get(key);
  }

  #steps() {
    const { span } = this.scene;
    const step = roundStep(span.width / Math.max(2, this.width / 110));
    const times = [];
    for (let time = Math.ceil(span.begin / step) * step; time < span.end; time += step) times.push(time);
    return { step, times };
  }

  #grid() {
    this.context.fillStyle = this.look.page;
    for (const time of this.#steps().times) this.context.fillRect(Math.round(this.x(time)), rulerHeight, 1, this.height);
  }

  #ruler() {
    const { context } = this;
    context.fillStyle = this.look.card;
    context.fillRect(0, 0, this.width, rulerHeight);
    context.fillStyle = this.look.line;
    context.fillRect(0, rulerHeight - 1, this.width, 1);
    const { step, times } = this.#steps();
    for (const time of times) {
      const x = Math.round(this.x(time));
      context.fillStyle = this.look.line;
      context.fillRect(x, rulerHeight - 7, 1, 6);
      context.fillStyle = this.look.soft;
      context.fillText(time === 0 ? '0' : timeText(time, digitsFor(time, step)), x + 4, rulerHeight / 2);
    }
  }

  #threads() {
    const { lanes, scroll } = this.scene;
    this.context.fillStyle = this.look.line;
    for (const { y } of [...lanes.threads, ...lanes.heads]) {
      const top = rulerHeight + y - scroll - 3;
      if (top > rulerHeight && top < this.height) this.context.fillRect(0, top, this.width, 1);
    }
  }

  #row({ thread, kind, place, slices }) {
    const { lanes, scroll, span } = this.scene;
    const top = lanes.rowTop(thread, kind, place);
    if (top === undefined) return;
    const y = rulerHeight + top - scroll + 1;
    if (y > this.height || y + barHeight < rulerHeight) return;
    for (let at = firstEndingAfter(slices, span.begin); at < slices.length && slices[at] < span.end; at += 7) {
      if (kind === kinds.instants) this.#instant(slices, at, y);
      else this.#slice(slices, at, y, kind);
    }
  }

  #slice(slices, at, y, kind) {
    const { context, scene } = this;
    const name = scene.names[slices[at + 2]];
    const x = Math.max(this.x(slices[at]), -2);
    const right = Math.min(this.x(slices[at] + slices[at + 1]), this.width + 2);
    const width = Math.max(right - x, 1);
    const fades = scene.matches && !scene.matches(name);
    context.fillStyle = this.#colour(name, fades);
    // A gap between neighbours that have room for one.
    context.fillRect(x, y, width > 3 ? width - 1 : width, barHeight);
    if (slices[at + 3] > 1) this.#merged(x, y, width, slices[at + 6] / Math.max(1, slices[at + 1]));
    else this.#marks(slices[at + 4], x, y, width, kind);
    if (this.#isSelected(slices, at)) this.#select(x, y, width);
    if (width > leastText) this.#text(slices[at + 3] > 1 ? `${slices[at + 3]} × ${name}` : name, x, y, width, fades);
  }

  /** Several events, drawn as one: as pale as there are gaps between them. */
  #merged(x, y, width, share) {
    this.context.fillStyle = this.look.card;
    this.context.globalAlpha = 0.65 * (1 - Math.min(1, share));
    this.context.fillRect(x, y, width, barHeight);
    this.context.globalAlpha = 1;
  }

  /** What overlaps or stops elsewhere has a frame; what had not ended an open right edge. */
  #marks(bits, x, y, width, kind) {
    const { context } = this;
    if (kind === kinds.beside && width > 4) {
      context.strokeStyle = this.look.accent;
      context.setLineDash(bits & marks.elsewhere ? [4, 3] : []);
      context.strokeRect(x + 0.5, y + 0.5, width - 2, barHeight - 1);
      context.setLineDash([]);
    }
    if (bits & marks.open && width > 8) {
      context.fillStyle = this.look.card;
      for (let at = 0; at < barHeight; at += 6) context.fillRect(x + width - 4, y + at, 4, 3);
    }
  }

  #instant(slices, at, y) {
    const { context, scene } = this;
    const name = scene.names[slices[at + 2]];
    const x = this.x(slices[at]);
    const right = Math.max(this.x(slices[at] + slices[at + 1]), x + 2);
    context.fillStyle = this.#colour(name, scene.matches && !scene.matches(name));
    context.fillRect(x - 1, y + 2, right - x, barHeight - 4);
    context.beginPath();
    context.moveTo(x - 4, y + 1);
    context.lineTo(x + 4, y + 1);
    context.lineTo(x, y + 7);
    context.fill();
    if (this.#isSelected(slices, at)) this.#select(x - 5, y, right - x + 9);
  }

  #isSelected(slices, at) {
    const { selected } = this.scene;
    return selected && selected.start === slices[at] && selected.serial === slices[at + 5] && selected.name === this.scene.names[slices[at + 2]];
  }

  #select(x, y, width) {
    this.context.strokeStyle = this.look.accent;
    this.context.lineWidth = 2;
    this.context.strokeRect(x, y, Math.max(width - 1, 3), barHeight);
    this.context.lineWidth = 1;
  }

  #text(text, x, y, width, fades) {
    const left = Math.max(x, 0) + 4;
    const shown = this.#fitting(text, x + width - left - 4);
    if (!shown) return;
    this.context.fillStyle = fades ? this.look.soft : this.look.text;
    this.context.fillText(shown, left, y + barHeight / 2 + 1);
  }

  /** As much of a text as there is room for. */
  #fitting(text, room) {
    if (!this.#lengths.has(text)) {
      if (this.#lengths.size > 5000) this.#lengths.clear();
      this.#lengths.set(text, this.context.measureText(text).width);
    }
    const length = this.#lengths.get(text);
    if (length <= room) return text;
    const letters = Math.floor((text.length * room) / length) - 1;
    return letters < 2 ? '' : `${text.slice(0, letters)}…`;
  }

  /** When threads wrote, before anything is read: the darker the more. */
  #activity() {
    const { lanes, scroll, activity } = this.scene;
    const most = Math.max(...activity.flatMap(({ parts }) => parts.map(({ weight }) => weight)));
    this.context.fillStyle = this.look.soft;
    for (const [number, { parts }] of activity.entries()) {
      const top = lanes.rowTop(number, kinds.nested, 0);
      if (top === undefined) continue;
      const y = rulerHeight + top - scroll + 1;
      for (const { begin, end, weight } of parts) {
        this.context.globalAlpha = 0.15 + (0.6 * weight) / most;
        this.context.fillRect(this.x(begin), y, Math.max(1, this.x(end) - this.x(begin)), barHeight);
      }
    }
    this.context.globalAlpha = 1;
  }

  /** What is not read yet. */
  #unread() {
    const { until } = this.scene;
    if (until === undefined) return;
    const x = Math.max(0, this.x(until));
    this.context.fillStyle = this.look.page;
    this.context.globalAlpha = 0.85;
    this.context.fillRect(x, 0, this.width - x, this.height);
    this.context.globalAlpha = 1;
  }
}

/** As many digits as neighbouring marks need to differ. */
function digitsFor(time, step) {
  return Math.min(15, Math.max(2, Math.floor(Math.log10(time)) - Math.floor(Math.log10(step)) + 1));
}

/** The place in a row of the first slice that ends after a time; slices are in order. */
export function firstEndingAfter(slices, time) {
  let low = 0;
  let high = slices.length / 7;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (slices[7 * middle] + slices[7 * middle + 1] < time) low = middle + 1;
    else high = middle;
  }
  return 7 * low;
}
