// Time by name: a table that sorts, with a histogram a row, and what is known of the chosen name.

import { bar, byId, element, swatch } from './dom.js';
import { measureContext, measureNames, measureTree, neighbours } from './data.js';
import { countText, counted, hueOf, percentText, timeText } from './format.js';
import { histogram, spark } from './durations.js';
import { contextTable } from './contexts.js';

const columns = [
  ['name', 'name'],
  ['calls', 'calls'],
  ['total', 'total'],
  ['self', 'self'],
  ['p50', 'p50'],
  ['p95', 'p95'],
  ['p99', 'p99'],
  ['max', 'max'],
];
const mostRows = 50;
const mostNeighbours = 8;

export class Names {
  constructor(report, state) {
    this.report = report;
    this.state = state;
    this.head = byId('names').tHead.rows[0];
    this.body = byId('names').tBodies[0];
    for (const [key, title] of columns) this.head.append(this.header(key, title));
    this.head.append(element('th', { class: 'wide', scope: 'col' }, 'durations'));
    byId('more').addEventListener('click', () => state.set({ all: 'yes' }));
  }

  header(key, title) {
    const choose = () => this.state.set({ sort: key });
    return element('th', { scope: 'col', class: key, 'data-key': key }, element('button', { click: choose }, title));
  }

  draw() {
    const { sort } = this.state;
    for (const cell of this.head.querySelectorAll('[data-key]')) {
      const direction = sort === 'name' ? 'ascending' : 'descending';
      cell.setAttribute('aria-sort', cell.dataset.key === sort ? direction : 'none');
    }
    this.rows = measureNames(this.report.times, this.report.buckets, this.state.range);
    this.whole = this.rows.reduce((sum, { self }) => sum + self, 0);
    const found = this.rows.filter(({ name }) => this.state.matches(name)).sort(order(sort));
    const shown = this.state.all ? found : found.slice(0, mostRows);
    this.keepFocus(() => this.body.replaceChildren(...shown.flatMap((row) => this.rowsOf(row))));
    byId('more').hidden = shown.length === found.length;
    byId('more').textContent = `Show all ${countText(found.length)} names`;
    byId('found').textContent = this.state.q
      ? `${counted(found.length, 'name')} with “${this.state.q}”, ${percentText(sumOf(found), this.whole) || '0 %'} of the time`
      : counted(found.length, 'name');
  }

  /** A row is drawn anew when it is chosen; the keyboard stays where it was. */
  keepFocus(draw) {
    const focused = this.body.contains(document.activeElement) ? document.activeElement.dataset.name : undefined;
    draw();
    if (focused === undefined) return;
    [...this.body.querySelectorAll('[data-name]')].find(({ dataset }) => dataset.name === focused)?.focus();
  }

  rowsOf(row) {
    const isChosen = this.state.name === row.name;
    const choose = () => this.state.set({ name: isChosen ? '' : row.name });
    const name = element(
      'button',
      { class: 'name', click: choose, 'aria-expanded': isChosen, 'data-name': row.name, title: row.name },
      swatch(hueOf(row.name)),
      row.name,
    );
    const times = ['p50', 'p95', 'p99', 'max'].map((key) =>
      element('td', { class: key }, row.calls ? timeText(row[key], 3) : ''),
    );
    const made = element(
      'tr',
      { class: isChosen ? 'chosen' : undefined },
      element('th', { scope: 'row' }, name),
      element('td', { class: 'calls' }, countText(row.calls)),
      element('td', { class: 'total' }, timeText(row.total)),
      element(
        'td',
        { class: 'self' },
        bar(row.self / (this.whole || 1), timeText(row.self), element('small', {}, percentText(row.self, this.whole))),
      ),
      ...times,
      element('td', { class: 'wide' }, spark(row)),
    );
    return isChosen ? [made, this.detail(row)] : [made];
  }

  detail(row) {
    const { nodes, contexts, buckets } = this.report;
    const { callers, callees } = neighbours(nodes, measureTree(nodes, this.state.range), row.name);
    const tables = contexts
      .filter(({ name }) => name === row.name)
      .map((context) => [context, measureContext(context, this.state.range)])
      .filter(([, rows]) => rows.length > 0)
      .map(([context, rows]) => element('div', {}, element('h3', {}, `by ${context.key}`), contextTable(rows.slice(0, 8), context.key)));
    return element(
      'tr',
      { class: 'detail' },
      element(
        'td',
        { colspan: columns.length + 1 },
        element(
          'div',
          { class: 'panels' },
          element('div', { class: 'panel' }, element('h3', {}, 'durations'), histogram(row, buckets)),
          this.neighbourList('called by', callers),
          this.neighbourList('calls', callees),
          ...tables,
        ),
      ),
    );
  }

  neighbourList(title, list) {
    const widest = list[0]?.[1] || 1;
    const entries = list.slice(0, mostNeighbours).map(([name, time]) => {
      const choose = () => this.state.set({ name, q: '', all: 'yes' });
      const known = this.rows.some((row) => row.name === name);
      return element(
        'li',
        {},
        bar(time / widest, known ? element('button', { class: 'link', click: choose }, name) : name),
        element('small', {}, timeText(time, 3)),
      );
    });
    if (list.length > mostNeighbours) entries.push(element('li', {}, `and ${list.length - mostNeighbours} more`));
    if (list.length === 0) entries.push(element('li', { class: 'none' }, 'nothing recorded'));
    return element('div', { class: 'panel' }, element('h3', {}, title), element('ul', { class: 'bars' }, ...entries));
  }
}

function sumOf(rows) {
  return rows.reduce((sum, { self }) => sum + self, 0);
}

function order(key) {
  const byName = (a, b) => (a.name < b.name ? -1 : 1);
  return key === 'name' ? byName : (a, b) => b[key] - a[key] || byName(a, b);
}
