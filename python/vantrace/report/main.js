// Puts the page together: reads what it was given, draws it, and again when the state changes.

import { byId, element } from './dom.js';
import { countText, counted, percentText, timeText } from './format.js';
import { Contexts } from './contexts.js';
import { Counters } from './counters.js';
import { decode, measureNames } from './data.js';
import { Flame } from './flame.js';
import { Lines } from './lines.js';
import { Names } from './names.js';
import { State } from './state.js';
import { Timeline } from './timeline.js';

const headNames = 5;

function showHead(report, state) {
  const rows = measureNames(report.times, report.buckets, { from: 0, to: report.bins.count });
  const whole = rows.reduce((sum, { self }) => sum + self, 0);
  const facts = [
    ['wall time', timeText(report.duration)],
    ['inside events', timeText(whole)],
    ['events', countText(report.events)],
    ['names', countText(rows.length)],
    ['threads', countText(report.threads.length + Math.max(0, report.moreThreads - 1))],
  ];
  if (report.instants > 0) facts.push(['instants', countText(report.instants)]);
  if (report.processes > 1) facts.push(['processes', countText(report.processes)]);
  byId('facts').append(
    ...facts.map(([name, value]) => element('div', {}, element('dt', {}, name), element('dd', {}, value))),
  );
  byId('widest').append(...rows.slice(0, headNames).map((row) => widest(row, whole, state)));
  showLosses(report);
}

function widest(row, whole, state) {
  const choose = () => {
    state.set({ name: row.name, q: '', all: 'yes' });
    byId('names').scrollIntoView();
  };
  const share = element('i');
  share.style.width = `${(100 * row.self) / (whole || 1)}%`;
  return element(
    'li',
    {},
    element('button', { class: 'link', click: choose, title: row.name }, row.name),
    element('span', { class: 'meter' }, share),
    element('span', { class: 'number' }, timeText(row.self)),
    element('span', { class: 'number' }, percentText(row.self, whole)),
  );
}

function showLosses({ dropped, unfinished }) {
  const notes = [];
  if (dropped > 0) notes.push(`${counted(dropped, 'event')} did not fit into the recording and are not counted here.`);
  if (unfinished > 0) notes.push(`${counted(unfinished, 'event')} had not ended; they are shown until the end, and are not in the durations.`);
  byId('notes').append(...notes.map((note) => element('p', {}, note)));
}

function listenToKeys(state) {
  const search = byId('search');
  search.addEventListener('input', () => state.set({ q: search.value }));
  document.addEventListener('keydown', (event) => {
    const isTyping = event.target.matches('input, select');
    if (event.key === '/' && !isTyping) {
      search.focus();
      search.select();
      event.preventDefault();
    } else if (event.key === 'Escape' && event.target === search) {
      state.set({ q: '' });
    }
  });
}

/** However often it is asked for before the next frame: dragging asks very often. */
function oncePerFrame(draw) {
  let isAsked = false;
  return () => {
    if (!isAsked) {
      requestAnimationFrame(() => {
        isAsked = false;
        draw();
      });
    }
    isAsked = true;
  };
}

/** The address is for the state, so links to sections only scroll. */
function listenToLinks() {
  for (const link of document.querySelectorAll('[data-to]')) {
    const section = byId(link.dataset.to);
    link.hidden = section.hidden;
    link.addEventListener('click', (event) => {
      event.preventDefault();
      section.scrollIntoView();
    });
  }
}

function main() {
  const report = decode(JSON.parse(byId('data').textContent));
  const state = new State(report.bins.count);
  const parts = [Timeline, Flame, Names, Lines, Contexts, Counters].map((Part) => new Part(report, state));
  const drawAll = () => {
    if (byId('search').value !== state.q) byId('search').value = state.q;
    for (const part of parts) part.draw();
  };
  showHead(report, state);
  listenToKeys(state);
  listenToLinks();
  state.onChange(oncePerFrame(drawAll));
  drawAll();
  let { innerWidth } = window;
  window.addEventListener('resize', () => {
    if (innerWidth !== window.innerWidth) drawAll();
    innerWidth = window.innerWidth;
  });
  window.matchMedia('(prefers-color-scheme: dark)').addEventListener('change', drawAll);
  document.documentElement.dataset.ready = 'yes';
}

main();
