// Puts the page together: timeline, flame graph, search, details; follows how far reading is.

import { byId, element } from './dom.js';
import { countText, counted, timeText } from './format.js';
import { decodeStacks } from './data.js';
import { Flame } from './flame.js';
import { Chart } from './chart.js';
import { Details } from './details.js';
import { Finder } from './finder.js';
import { Lanes } from './lanes.js';
import { Latest, askActivity, askState, askThreads } from './questions.js';
import { Span } from './span.js';

const pause = 250; // milliseconds
const keyTexts = [
  ['+ − W S', 'zoom'],
  ['← → A D', 'move'],
  ['↑ ↓ PgUp PgDn', 'scroll the threads'],
  ['Shift + arrows', 'walk from event to event'],
  ['Enter', 'zoom to the chosen event'],
  ['0', 'show all'],
  ['/', 'search; Enter next, Shift + Enter the one before'],
  ['n N', 'next, the one before'],
  ['Esc', 'choose nothing'],
];

/** What the flame graph asks of the page's state. */
class FlameState {
  range = { from: 0, to: 1 };
  by = 'merged';
  at = '';

  constructor(finder) {
    this.finder = finder;
  }

  get q() {
    return this.finder.text;
  }

  matches(name) {
    return this.finder.matches(name);
  }

  set(changes) {
    Object.assign(this, changes);
    this.onChange();
  }
}

class Page {
  constructor() {
    this.span = new Span(1);
    this.lanes = new Lanes();
    this.details = new Details();
    this.finder = new Finder({
      searched: () => this.searched(),
      found: (event) => this.found(event),
      place: (isForward) => ({ start: Math.round(isForward ? this.span.begin : this.span.end), duration: 0, thread: 0, serial: 0 }),
    });
    this.chart = new Chart(this.span, this.lanes, {
      moved: () => this.moved(),
      chosen: (slice) => this.details.show(slice),
    });
    this.flameState = new FlameState(this.finder);
    this.flame = new Flame({ nodes: [] }, this.flameState);
    this.flameState.onChange = () => this.flame.draw();
    this.flames = new Latest('flame', (answer) => this.takeFlame(answer));
    this.listen();
  }

  async run() {
    const activity = await askActivity();
    this.showActivity(activity);
    for (;;) {
      const state = await askState();
      await this.takeState(state);
      document.documentElement.dataset.ready = 'yes';
      document.documentElement.dataset.phase = state.phase;
      if (state.phase === 'whole' || state.failure) return;
      await new Promise((resolve) => setTimeout(resolve, pause));
    }
  }

  /** Until the threads are known: when each wrote. */
  showActivity(tracks) {
    this.lanes.take(tracks.map(([process, thread]) => [process, undefined, thread, '', 1, 0, 0]));
    this.chart.activity = tracks.map(([, , begins]) => ({
      parts: begins.slice(0, -1).map((begin, i) => {
        const end = begins[i + 1];
        return { begin, end, weight: 1 / Math.max(1, end - begin) };
      }),
    }));
  }

  async takeState(state) {
    this.showHead(state);
    this.span.extend(state.duration);
    const { chart } = this;
    const before = this.phase;
    this.phase = state.phase;
    if (this.phase !== before) await this.takeThreads(before === 'ordered');
    else if (this.phase === 'ordered' && chart.until !== undefined && chart.windows.isIdle) chart.refresh();
    chart.changed();
    this.showRange();
  }

  /** They have other numbers in the outline, which some files do not have. */
  async takeThreads(areKnown) {
    const { lanes, chart } = this;
    const threads = await askThreads();
    if (this.phase === 'first' && threads.length === 0) return;
    if (!areKnown) {
      lanes.threads = [];
      chart.rows = [];
      chart.activity = null;
    }
    lanes.take(threads);
    chart.refresh();
    this.moved();
  }

  showHead({ file, phase, percent, failure, duration, events, threads, processes, dropped, damaged, originUtc }) {
    byId('title').textContent = file;
    document.title = `${file} · vantrace`;
    const facts = [timeText(duration)];
    if (phase === 'whole') facts.push(counted(events, 'event'));
    if (threads !== undefined) facts.push(counted(threads, 'thread'));
    if (processes > 1) facts.push(`${countText(processes)} processes`);
    if (dropped > 0) facts.push(`${countText(dropped)} more did not fit into the recording`);
    if (damaged > 0) facts.push(`${counted(damaged, 'part')} of the file damaged and left out`);
    if (originUtc > 0) facts.push(`recorded ${new Date(Number(originUtc) / 1e6).toLocaleString()}`);
    byId('subtitle').textContent = facts.join(' · ');
    const progress = byId('progress');
    progress.hidden = phase === 'whole' && !failure;
    progress.classList.toggle('failed', Boolean(failure));
    progress.firstElementChild.style.width = `${percent}%`;
    const early = this.chart.activity ? 'the timeline shows when threads wrote' : 'the timeline is an outline';
    progress.lastElementChild.textContent = failure
      ? `reading ended: ${failure}`
      : `reading, ${percent} % · ${phase === 'first' ? early : 'what is zoomed into is there already'}`;
  }

  showRange() {
    const { begin, end, width, isWhole, duration } = this.span;
    byId('range').value = isWhole ? `all ${timeText(duration)}` : `${timeText(begin, 7)} to ${timeText(end, 7)}, ${timeText(width)} wide`;
    byId('whole').disabled = isWhole;
  }

  moved() {
    this.showRange();
    clearTimeout(this.flameTimer);
    this.flameTimer = setTimeout(() => this.askFlame(), pause);
  }

  askFlame() {
    this.flames.want({ begin: Math.floor(this.span.begin), end: Math.ceil(this.span.end) + 1 });
  }

  takeFlame(answer) {
    if (!answer.tree) return;
    this.flame.show(decodeStacks(answer).nodes);
    this.flameState.at = '';
    byId('flamed').value = `of ${timeText(Math.max(0, answer.begin), 5)} to ${timeText(answer.end, 5)}`;
    this.flame.draw();
    byId('flame').dataset.of = `${answer.begin}-${answer.end}`;
  }

  searched() {
    this.chart.matches = this.finder.text ? (name) => this.finder.matches(name) : null;
    this.chart.draw();
    this.flame.draw();
  }

  found(event) {
    this.chart.show(event);
    this.chart.choose(event);
  }

  listen() {
    byId('in').addEventListener('click', () => this.chart.zoom(0.5));
    byId('out').addEventListener('click', () => this.chart.zoom(2));
    byId('whole').addEventListener('click', () => this.chart.whole());
    byId('keys').append(...keyTexts.map(([keys, text]) => element('span', {}, element('b', {}, keys), ` ${text}`)));
    document.addEventListener('keydown', (event) => this.onKey(event));
    window.matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.chart.changed());
    this.details.show(null);
  }

  onKey(event) {
    if (event.ctrlKey || event.metaKey || event.altKey || event.target.matches('input, select')) return;
    const { chart } = this;
    const isInFlame = byId('frames').contains(event.target);
    if (isInFlame && /^(Arrow|Enter|Escape| )/.test(event.key)) return;
    if (event.shiftKey && event.key.startsWith('Arrow')) chart.walk(event.key.slice(5).toLowerCase());
    else if (event.key === 'Enter' && event.target.matches('button')) return;
    else if (this.actions[event.key]) this.actions[event.key]();
    else return;
    event.preventDefault();
  }

  actions = {
    '/': () => this.finder.focus(),
    '?': () => byId('keys').toggleAttribute('hidden'),
    '+': () => this.chart.zoom(0.6),
    '=': () => this.chart.zoom(0.6),
    '-': () => this.chart.zoom(1 / 0.6),
    w: () => this.chart.zoom(0.6),
    s: () => this.chart.zoom(1 / 0.6),
    a: () => this.chart.move(-0.15),
    d: () => this.chart.move(0.15),
    ArrowLeft: () => this.chart.move(-0.15),
    ArrowRight: () => this.chart.move(0.15),
    ArrowUp: () => this.chart.scrollBy(-36),
    ArrowDown: () => this.chart.scrollBy(36),
    PageUp: () => this.chart.page(-1),
    PageDown: () => this.chart.page(1),
    0: () => this.chart.whole(),
    Home: () => this.chart.whole(),
    n: () => this.finder.go(true),
    N: () => this.finder.go(false),
    Enter: () => this.chart.fill(this.chart.selected),
    Escape: () => this.chart.choose(null),
  };
}

new Page().run();
