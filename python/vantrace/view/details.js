// What is known of the chosen event.

import { byId, element, swatch } from './dom.js';
import { hueOf, timeText } from './format.js';
import { describe } from './chart.js';
import { askDetails } from './questions.js';

const remarks = [
  [2, 'had not ended: shown until the end'],
  [4, 'ended on another thread'],
  [8, 'outlives what it began in'],
];

export class Details {
  #box = byId('details');
  #shown = null;

  /** Of a slice; of none it says how to choose one. */
  async show(slice) {
    this.#shown = slice;
    if (!slice) {
      this.#box.replaceChildren(element('p', { class: 'none' }, 'Click on an event to see more of it.'));
      return;
    }
    if (slice.events > 1) {
      const [what, where] = describe(slice);
      this.#box.replaceChildren(
        element('p', { class: 'what' }, what),
        element('p', { class: 'where' }, `${where}. Too narrow to be drawn apart; a double click or Enter zooms in.`),
      );
      return;
    }
    const known = await askDetails(slice);
    if (this.#shown === slice) this.#tell(known);
  }

  #tell(known) {
    if (!known) {
      this.#box.replaceChildren(element('p', { class: 'none' }, 'It cannot be found in the file.'));
      return;
    }
    const { name, place, start, duration, marks, process, processId, thread, context } = known;
    const isInstant = (marks & 1) !== 0;
    const facts = [
      ['start', timeText(start, 9)],
      ...(isInstant ? [] : [['duration', timeText(duration, 6)]]),
      ['thread', `${thread} of ${process} ${processId}`],
      ...context.map(([key, value]) => [key, String(value)]),
    ];
    const said = remarks.filter(([bit]) => marks & bit).map(([, remark]) => remark);
    this.#box.replaceChildren(
      element('p', { class: 'what' }, swatch(hueOf(name)), ' ', name),
      element('p', { class: 'where' }, [place || 'its place in the source is not known', ...said].join(' · ')),
      element('dl', {}, ...facts.map(([key, value]) => element('div', {}, element('dt', {}, key), element('dd', {}, value)))),
    );
  }
}
