// Asks the command that serves this page.

async function ask(question, given = {}) {
  const response = await fetch(`${question}?${new URLSearchParams(given)}`);
  if (!response.ok) throw new Error(`${question}: ${response.status}`);
  return response.json();
}

export const askState = () => ask('state');
export const askActivity = () => ask('activity');
export const askThreads = () => ask('threads');
export const askDetails = ({ start, thread, serial }) => ask('details', { start, thread, serial });
export const askFind = (text, { start, duration, thread, serial }, forward) =>
  ask('find', { text, start, duration, thread, serial, forward });

/** Asks for the latest of what is wanted, one at a time; what came between is skipped. */
export class Latest {
  #question;
  #take;
  #wanted = null;
  #isAsking = false;

  /** `take(answer, given)` gets the answers. */
  constructor(question, take) {
    this.#question = question;
    this.#take = take;
  }

  get isIdle() {
    return !this.#isAsking;
  }

  async want(given) {
    this.#wanted = given;
    if (this.#isAsking) return;
    this.#isAsking = true;
    try {
      while (this.#wanted) {
        const asked = this.#wanted;
        this.#wanted = null;
        const answer = await ask(this.#question, asked);
        this.#take(answer, asked);
      }
    } finally {
      this.#isAsking = false;
    }
  }
}
