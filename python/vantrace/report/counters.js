// Counters: what instants measured or counted, over the time that is chosen.

import { byId, drawing, element, hideTip, showTip } from './dom.js';
import { counted, timeText, valueText } from './format.js';
import { measureCounter } from './data.js';

const width = 360;
const height = 76;

export class Counters {
  constructor(report, state) {
    this.report = report;
    this.state = state;
    byId('counters').hidden = report.counters.length === 0;
  }

  draw() {
    const cards = this.report.counters
      .map((counter) => [titleOf(counter), counter])
      .filter(([title]) => this.state.matches(title))
      .map(([title, counter]) => this.card(title, counter));
    const none = element('p', { class: 'none' }, 'Nothing found.');
    byId('charts').replaceChildren(...(cards.length > 0 ? cards : [none]));
  }

  card(title, counter) {
    const measured = measureCounter(counter, this.state.range);
    const { bins, count } = measured;
    const isMeasure = counter.key !== null;
    const facts = [counted(count, isMeasure ? 'value' : 'time')];
    if (isMeasure && bins.length > 0) {
      facts.push(`last ${valueText(bins.at(-1).last)}`, `${valueText(measured.lowest)} to ${valueText(measured.highest)}`);
    }
    return element(
      'figure',
      { class: 'counter' },
      element('figcaption', {}, element('b', { title }, title), element('small', {}, facts.join(' · '))),
      this.chart(measured, isMeasure, title),
    );
  }

  chart(measured, isMeasure, title) {
    const { from, to } = this.state;
    const xOf = (bin) => (width * (bin - from)) / (to - from);
    const shapes = isMeasure ? curve(measured, xOf) : bars(measured, xOf);
    const chart = drawing(
      'svg',
      { viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none', role: 'img', 'aria-label': title },
      ...shapes,
    );
    chart.addEventListener('pointermove', (event) => this.hover(event, chart, measured, isMeasure));
    chart.addEventListener('pointerleave', hideTip);
    return chart;
  }

  hover(event, chart, { bins }, isMeasure) {
    const { from, to } = this.state;
    const box = chart.getBoundingClientRect();
    const at = from + ((event.clientX - box.left) / box.width) * (to - from);
    const nearest = bins.reduce(
      (best, bin) => (best && Math.abs(best.bin + 0.5 - at) <= Math.abs(bin.bin + 0.5 - at) ? best : bin),
      undefined,
    );
    if (!nearest) return;
    const { bin, count, lowest, highest, last } = nearest;
    const lines = [`${timeText(bin * this.report.bins.width)}: ${counted(count, isMeasure ? 'value' : 'time')}`];
    if (isMeasure) lines.push(`last ${valueText(last)}`, `${valueText(lowest)} to ${valueText(highest)}`);
    showTip({ x: event.clientX, y: event.clientY }, lines);
  }
}

// What the one value of a counter is called in the recording.
const plainKeys = [null, 'value', 'counter value'];

function titleOf({ name, key }) {
  return plainKeys.includes(key) ? name : `${name}: ${key}`;
}

/** The range of each bin, and a line through the last values. */
function curve({ bins, lowest, highest }, xOf) {
  const span = highest - lowest || 1;
  const yOf = (value) => height - 4 - ((height - 8) * (value - lowest)) / span;
  const middles = bins.map(({ bin }) => (xOf(bin) + xOf(bin + 1)) / 2);
  const upper = bins.map((bin, i) => `${middles[i]},${yOf(bin.highest)}`);
  const lower = bins.map((bin, i) => `${middles[i]},${yOf(bin.lowest)}`).reverse();
  const line = bins.map((bin, i) => `${middles[i]},${yOf(bin.last)}`);
  const dots = bins.length === 1 ? [drawing('circle', { cx: middles[0], cy: yOf(bins[0].last), r: 2 })] : [];
  return [
    drawing('polygon', { class: 'span', points: [...upper, ...lower].join(' ') }),
    drawing('polyline', { class: 'last', points: line.join(' ') }),
    ...dots,
  ];
}

function bars({ bins }, xOf) {
  const most = Math.max(1, ...bins.map(({ count }) => count));
  return bins.map(({ bin, count }) => {
    const tall = ((height - 4) * count) / most;
    const x = xOf(bin);
    return drawing('rect', { x, y: height - tall, width: Math.max(1, xOf(bin + 1) - x), height: tall });
  });
}
