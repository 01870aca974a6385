// Threads over time: a lane each, filled as far as the thread was inside events, in the colours of
// what it was inside of. Dragging over it, or the arrow keys, choose the range of time.

import { byId, element, hideTip, showTip } from './dom.js';
import { hueOf, percentText, roundStep, timeText } from './format.js';
import { laneCells } from './data.js';

const mostSteps = 8;

export class Timeline {
  constructor(report, state) {
    this.report = report;
    this.state = state;
    this.lanes = laneCells(report.nodes, report.threads.length, report.bins.count);
    this.lane = report.threads.length <= 6 ? 40 : report.threads.length <= 16 ? 24 : 14;
    this.box = byId('timeline');
    this.canvas = element('canvas', { 'aria-hidden': 'true' });
    this.names = element('div', { class: 'lanes' });
    for (const thread of report.threads) {
      const name = element('div', { title: thread }, thread);
      name.style.height = `${this.lane}px`;
      name.style.lineHeight = `${this.lane}px`;
      this.names.append(name);
    }
    this.before = element('div', { class: 'outside' });
    this.after = element('div', { class: 'outside' });
    this.plot = element('div', { class: 'plot' }, this.canvas, this.before, this.after);
    this.axis = element('div', { class: 'axis', 'aria-hidden': 'true' });
    byId('lanes').append(this.names, this.plot);
    byId('lanes').after(this.axis);
    this.listen();
  }

  listen() {
    this.plot.addEventListener('pointerdown', (event) => this.beginDrag(event));
    this.plot.addEventListener('pointermove', (event) => this.hover(event));
    this.plot.addEventListener('pointerleave', hideTip);
    this.plot.addEventListener('dblclick', () => this.state.setRange(0, this.state.bins));
    this.box.addEventListener('keydown', (event) => this.onKey(event));
    byId('whole').addEventListener('click', () => this.state.setRange(0, this.state.bins));
  }

  binAt(event) {
    const { left, width } = this.plot.getBoundingClientRect();
    const share = (event.clientX - left) / width;
    return Math.max(0, Math.min(this.state.bins - 1, Math.floor(share * this.state.bins)));
  }

  beginDrag(event) {
    if (event.button !== 0) return;
    const first = this.binAt(event);
    this.plot.setPointerCapture(event.pointerId);
    const move = (moved) => {
      const last = this.binAt(moved);
      if (last !== first) this.state.setRange(Math.min(first, last), Math.max(first, last) + 1);
    };
    const end = () => {
      this.plot.removeEventListener('pointermove', move);
      this.plot.removeEventListener('pointerup', end);
      this.plot.removeEventListener('pointercancel', end);
    };
    this.plot.addEventListener('pointermove', move);
    this.plot.addEventListener('pointerup', end);
    this.plot.addEventListener('pointercancel', end);
  }

  /** Arrows move the range, with Shift its end; Escape takes it back. */
  onKey(event) {
    const { from, to, bins } = this.state;
    const step = Math.max(1, Math.round(bins / 48));
    const sign = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
    if (event.key === 'Escape') this.state.setRange(0, bins);
    else if (!sign) return;
    else if (event.shiftKey) this.state.setRange(from, Math.max(from + 1, to + sign * step));
    else if (this.state.isWhole) this.state.setRange(...(sign > 0 ? [bins >> 1, bins] : [0, bins >> 1]));
    else if (from + sign * step >= 0 && to + sign * step <= bins) {
      this.state.setRange(from + sign * step, to + sign * step);
    }
    event.preventDefault();
  }

  hover(event) {
    const { top } = this.plot.getBoundingClientRect();
    const lane = Math.floor((event.clientY - top) / this.lane);
    const names = this.lanes[lane]?.[this.binAt(event)];
    if (!names) return;
    const { width } = this.report.bins;
    const widest = [...names].sort((a, b) => b[1] - a[1]).slice(0, 5);
    showTip({ x: event.clientX, y: event.clientY }, [
      `${this.report.threads[lane]} at ${timeText(this.binAt(event) * width)}`,
      ...(widest.length ? widest.map(([name, self]) => `${percentText(self, width)} ${name}`) : ['nothing recorded']),
    ]);
  }

  draw() {
    this.drawRange();
    const { clientWidth } = this.plot;
    const colours = getComputedStyle(this.box);
    const ratio = window.devicePixelRatio || 1;
    // A range changes nothing in the lanes.
    const look = [clientWidth, ratio, this.state.q, colours.getPropertyValue('--fill-l')].join(' ');
    if (look === this.painted) return;
    this.painted = look;
    this.drawAxis();
    const height = this.lane * this.lanes.length;
    Object.assign(this.canvas, { width: clientWidth * ratio, height: height * ratio });
    this.canvas.style.height = `${height}px`;
    const context = this.canvas.getContext('2d');
    context.scale(ratio, ratio);
    this.paint(context, clientWidth / this.state.bins, {
      lightness: colours.getPropertyValue('--fill-l'),
      chroma: colours.getPropertyValue('--fill-c'),
      line: colours.getPropertyValue('--line'),
    });
  }

  paint(context, binWidth, look) {
    const room = this.lane - 3;
    // Whole pixels, so that no gaps are between bins.
    const ratio = window.devicePixelRatio || 1;
    const edge = (bin) => Math.round(bin * binWidth * ratio) / ratio;
    for (const [lane, bins] of this.lanes.entries()) {
      const bottom = (lane + 1) * this.lane - 1;
      context.fillStyle = look.line;
      context.fillRect(0, bottom, binWidth * bins.length, 1);
      for (const [bin, names] of bins.entries()) {
        let y = bottom;
        for (const [name, self] of names) {
          const height = (room * self) / this.report.bins.width;
          context.fillStyle = this.colourOf(name, look);
          context.fillRect(edge(bin), y - height, edge(bin + 1) - edge(bin), height);
          y -= height;
        }
      }
    }
  }

  colourOf(name, { lightness, chroma }) {
    const fades = this.state.q && !this.state.matches(name);
    return `oklch(${lightness} ${fades ? 0 : chroma} ${hueOf(name)} / ${fades ? 0.25 : 1})`;
  }

  drawRange() {
    const { from, to, bins, isWhole } = this.state;
    this.before.style.width = `${(100 * from) / bins}%`;
    this.after.style.width = `${(100 * (bins - to)) / bins}%`;
    const { width } = this.report.bins;
    const end = Math.min(to * width, this.report.duration);
    byId('range').textContent = isWhole
      ? `all ${timeText(this.report.duration)}`
      : `${timeText(from * width)} to ${timeText(end)}, ${timeText(end - from * width)} long`;
    byId('whole').hidden = isWhole;
  }

  drawAxis() {
    const whole = this.state.bins * this.report.bins.width;
    const step = roundStep(whole / Math.min(mostSteps, Math.max(2, this.plot.clientWidth / 90)));
    const marks = [];
    for (let time = 0; time < whole; time += step) {
      const mark = element('span', {}, time === 0 ? '0' : timeText(time, 3));
      mark.style.left = `${(100 * time) / whole}%`;
      marks.push(mark);
    }
    this.axis.replaceChildren(...marks);
  }
}
