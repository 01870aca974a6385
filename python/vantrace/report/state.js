// What the page shows, kept in its address: a link to it shows the same.

const defaults = { from: 0, to: 0, q: '', at: '', by: 'merged', sort: 'self', name: '', context: '', all: '' };
const sorts = ['name', 'calls', 'total', 'self', 'p50', 'p95', 'p99', 'max'];

export class State {
  #listeners = [];

  constructor(bins) {
    this.bins = bins;
    this.#read();
    window.addEventListener('hashchange', () => {
      this.#read();
      this.#tell();
    });
  }

  get range() {
    return { from: this.from, to: this.to };
  }

  get isWhole() {
    return this.from === 0 && this.to === this.bins;
  }

  /** Whether a text has what is searched for. */
  matches(text) {
    return text.toLowerCase().includes(this.q.toLowerCase());
  }

  onChange(listener) {
    this.#listeners.push(listener);
  }

  set(changes) {
    Object.assign(this, changes);
    history.replaceState(null, '', `#${this.#asText()}`);
    this.#tell();
  }

  setRange(from, to) {
    const first = Math.max(0, Math.min(from, this.bins - 1));
    this.set({ from: first, to: Math.max(first + 1, Math.min(to, this.bins)) });
  }

  #tell() {
    for (const listener of this.#listeners) listener();
  }

  #asText() {
    const known = { ...defaults, to: this.bins };
    const told = Object.keys(known).filter((key) => this[key] !== known[key]);
    return new URLSearchParams(told.map((key) => [key, this[key]])).toString();
  }

  /** The address may be anybody's: what it cannot mean is left out. */
  #read() {
    const said = new URLSearchParams(location.hash.slice(1));
    for (const key of Object.keys(defaults)) this[key] = said.get(key) ?? defaults[key];
    this.from = whole(this.from, 0, this.bins - 1, 0);
    this.to = whole(this.to, this.from + 1, this.bins, this.bins);
    if (!sorts.includes(this.sort)) this.sort = defaults.sort;
    if (this.by !== 'thread') this.by = defaults.by;
  }
}

function whole(text, least, most, otherwise) {
  const number = Number(text);
  return Number.isInteger(number) && number >= least && number <= most ? number : otherwise;
}
