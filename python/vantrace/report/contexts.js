// "Time of solve by n": how the time of a name breaks down by what its context says.

import { bar, byId, element } from './dom.js';
import { countText, timeText } from './format.js';
import { measureContext } from './data.js';

export class Contexts {
  constructor({ contexts }, state) {
    this.contexts = contexts;
    this.state = state;
    this.choice = byId('context');
    this.choice.addEventListener('change', () => state.set({ context: this.choice.value }));
    byId('contexts').hidden = contexts.length === 0;
  }

  draw() {
    const found = this.contexts
      .map((context) => [textOf(context), context])
      .filter(([text]) => this.state.matches(text));
    const [text, context] =
      found.find(([known]) => known === this.state.context) ??
      found.find(([, { name }]) => name === this.state.name) ??
      found[0] ??
      [];
    this.choice.replaceChildren(
      ...found.map(([known]) => element('option', { value: known, selected: known === text }, known)),
    );
    const rows = context ? measureContext(context, this.state.range) : [];
    this.choice.hidden = found.length === 0;
    byId('breakdown').replaceChildren(
      rows.length > 0 ? contextTable(rows, context.key) : element('p', { class: 'none' }, 'Nothing found.'),
    );
  }
}

function textOf({ name, key }) {
  return `${name} by ${key}`;
}

/** A table of values, their calls and times. */
export function contextTable(rows, key) {
  const widest = Math.max(1, ...rows.map(({ total }) => total));
  const head = [key, 'calls', 'mean', 'time'].map((title) => element('th', { scope: 'col', class: title === 'time' ? title : undefined }, title));
  const lines = rows.map(({ value, calls, total }) =>
    element(
      'tr',
      {},
      element('th', { scope: 'row', title: value }, value || '(empty)'),
      element('td', {}, countText(calls)),
      element('td', {}, timeText(total / calls, 3)),
      element('td', { class: 'grow' }, bar(total / widest, timeText(total))),
    ),
  );
  return element(
    'table',
    { class: 'values' },
    element('thead', {}, element('tr', {}, ...head)),
    element('tbody', {}, ...lines),
  );
}
