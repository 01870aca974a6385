// Where inside functions time passed, as samples tell: lines with their source, and threads.

import { bar, byId, element } from './dom.js';
import { measureCells } from './data.js';
import { counted, percentText, timeText } from './format.js';

const mostLineRows = 200;

export class Lines {
  constructor({ lines }, state) {
    this.lines = lines;
    this.state = state;
    byId('lines').hidden = !lines;
  }

  draw() {
    if (!this.lines) return;
    const measured = this.lines.lines
      .map(([file, name, number, text, cells]) => ({ file, name, number, text, ...measureCells(cells, this.state.range) }))
      .filter(({ self }) => self > 0);
    const whole = measured.reduce((sum, { self }) => sum + self, 0);
    const found = measured.filter((line) => this.state.matches(lineText(line)));
    const groups = functionsOf(found);
    const rows = groups.flatMap((group) => functionRows(group, whole)).slice(0, mostLineRows);
    byId('sampled').textContent =
      `${counted(found.length, 'line')} of ${counted(groups.length, 'function')}, ${counted(this.lines.ticks, 'sample')} in all`;
    byId('bylines').tBodies[0].replaceChildren(...rows);
    byId('bythreads').tBodies[0].replaceChildren(...this.threadRows());
  }

  threadRows() {
    return this.lines.threads
      .map(([name, cells]) => ({ name, ...measureCells(cells, this.state.range) }))
      .filter(({ self }) => self > 0)
      .map(({ name, ...sums }) =>
        element('tr', {}, element('th', { scope: 'row', title: name }, name || '(unnamed)'), ...cellsOf(sums, timeText(sums.self))),
      );
  }
}

function lineText({ file, name, number, text }) {
  return `${file}:${number} ${name} ${text}`;
}

/** Lines by function, those with the most time first. */
function functionsOf(lines) {
  const groups = new Map();
  for (const line of lines) {
    const key = `${line.file} ${line.name}`;
    if (!groups.has(key)) groups.set(key, { file: line.file, name: line.name, lines: [], self: 0, cpu: 0, held: 0 });
    const group = groups.get(key);
    group.lines.push(line);
    for (const sum of ['self', 'cpu', 'held']) group[sum] += line[sum];
  }
  const widestFirst = (a, b) => b.self - a.self;
  for (const group of groups.values()) group.lines.sort(widestFirst);
  return [...groups.values()].sort(widestFirst);
}

function functionRows({ file, name, lines, ...sums }, whole) {
  const base = file.slice(file.lastIndexOf('/') + 1);
  const head = element(
    'tr',
    { class: 'function' },
    element('th', { scope: 'row', colspan: 2, title: file }, `${name}  `, element('small', {}, base)),
    ...cellsOf(sums, shareBar(sums.self, whole)),
  );
  return [head, ...lines.map((line) => lineRow(line, whole))];
}

function lineRow({ file, number, text, ...sums }, whole) {
  return element(
    'tr',
    {},
    element('th', { scope: 'row', class: 'place', title: `${file}:${number}` }, `${number}`),
    element('td', { class: 'source' }, element('code', {}, text)),
    ...cellsOf(sums, shareBar(sums.self, whole)),
  );
}

function shareBar(self, whole) {
  return bar(self / (whole || 1), timeText(self), element('small', {}, percentText(self, whole)));
}

function cellsOf({ self, cpu, held }, time) {
  return [
    element('td', { class: 'self' }, time),
    element('td', { class: 'cpu' }, percentText(cpu, self)),
    element('td', { class: 'held' }, percentText(held, self)),
  ];
}
