// The search box: marks names, and goes from one event of such a name to the next.

import { byId } from './dom.js';
import { counted } from './format.js';
import { askFind } from './questions.js';

export class Finder {
  #input = byId('search');
  #said = byId('found');
  #at = null;

  /** `tell` has searched() for a new text, found(event), and place(): where to begin. */
  constructor(tell) {
    this.tell = tell;
    this.#input.addEventListener('input', () => this.#changed());
    byId('finder').addEventListener('submit', (event) => {
      event.preventDefault();
      this.go(true);
    });
    byId('before').addEventListener('click', () => this.go(false));
    this.#input.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') this.#empty();
      else if (event.key === 'Enter' && event.shiftKey) {
        event.preventDefault();
        this.go(false);
      }
    });
  }

  get text() {
    return this.#input.value;
  }

  matches(name) {
    return name.toLowerCase().includes(this.text.toLowerCase());
  }

  focus() {
    this.#input.focus();
    this.#input.select();
  }

  #empty() {
    this.#input.value = '';
    this.#changed();
  }

  #changed() {
    this.#at = null;
    this.#said.value = '';
    this.tell.searched();
  }

  /** To the next event of such a name, or the one before; around the end where there is none. */
  async go(isForward) {
    const { text } = this;
    if (!text) return;
    const ends = { start: isForward ? -1 : 1e18 - 1, duration: 0, thread: 0, serial: 0 };
    let answer = await askFind(text, this.#at ?? this.tell.place(isForward), isForward);
    if (answer && !answer.hit && answer.events > 0) answer = await askFind(text, ends, isForward);
    if (text !== this.text) return;
    if (!answer) {
      this.#said.value = 'not all is read yet';
      return;
    }
    this.#said.value = `${counted(answer.events, 'event')} of ${counted(answer.names, 'name')}`;
    if (!answer.hit) return;
    const [start, duration, name, thread, serial] = answer.hit;
    this.#at = { start, duration, thread, serial };
    this.tell.found({ ...this.#at, name, events: 1 });
  }
}
