// Where threads and their rows lie, from the top: processes, their threads, and in each the rows of
// instants, of nested events, and of events that do not nest.

export const rowHeight = 18;
const headHeight = 20;
const gap = 6;

export const kinds = { nested: 0, beside: 1, instants: 2 };

export class Lanes {
  constructor() {
    this.threads = [];
    this.heads = [];
    this.folded = new Set();
    this.height = 0;
  }

  /** Threads are [process, process id, name, thread id, nested, beside, instants]. */
  take(threads) {
    this.threads = threads.map(([process, processId, name, threadId, nested, beside, instants], number) => {
      const known = this.threads[number];
      return {
        number,
        process: processId === undefined ? process : `${process} ${processId}`.trim(),
        name: name || `thread ${threadId}`,
        nested: Math.max(nested, known?.nested ?? 0),
        beside: Math.max(beside, known?.beside ?? 0),
        instants: Math.max(instants, known?.instants ?? 0),
      };
    });
    this.layOut();
  }

  /** Makes room for rows that an answer has. */
  grow(rows) {
    let hasGrown = false;
    for (const { thread, kind, place } of rows) {
      const name = ['nested', 'beside', 'instants'][kind];
      const known = this.threads[thread];
      if (!known || known[name] > place) continue;
      known[name] = place + 1;
      hasGrown = true;
    }
    if (hasGrown) this.layOut();
  }

  fold(number) {
    if (!this.folded.delete(number)) this.folded.add(number);
    this.layOut();
  }

  layOut() {
    let y = 0;
    this.heads = [];
    const processes = new Map();
    for (const thread of this.threads) {
      if (!processes.has(thread.process)) processes.set(thread.process, []);
      processes.get(thread.process).push(thread);
    }
    for (const [process, threads] of processes) {
      if (processes.size > 1) {
        this.heads.push({ process, y });
        y += headHeight;
      }
      for (const thread of threads) {
        thread.y = y;
        thread.height = this.rowsOf(thread) * rowHeight;
        y += thread.height + gap;
      }
    }
    this.height = y;
  }

  rowsOf(thread) {
    if (this.folded.has(thread.number)) return 1;
    return Math.max(1, thread.instants + thread.nested + thread.beside);
  }

  /** The top of a row; none for what is folded away. */
  rowTop(number, kind, place) {
    const thread = this.threads[number];
    if (!thread) return undefined;
    if (this.folded.has(number)) return kind === kinds.nested && place === 0 ? thread.y : undefined;
    const before = { [kinds.instants]: 0, [kinds.nested]: thread.instants, [kinds.beside]: thread.instants + thread.nested };
    return thread.y + (before[kind] + place) * rowHeight;
  }

  /** The numbers of the first and last thread that are seen from `top` to `bottom`. */
  between(top, bottom) {
    const seen = this.threads.filter(({ y, height }) => y < bottom && y + height > top).map(({ number }) => number);
    return seen.length > 0 ? [Math.min(...seen), Math.max(...seen)] : [0, 0];
  }
}
