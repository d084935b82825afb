// One connection to the server's events, made again after every loss with a growing pause.
//
// The browser's own repeats are not used: they end for good at the first answer other than 200 (503: too many clients),
// and a server that was stopped or whose cable was pulled would never be noticed.

const FIRST_PAUSE_MS = 1000;
const LONGEST_PAUSE_MS = 15000;
const SILENCE_MS = 6000; // the server speaks once a second

// The pause before try number `tries` (0, 1, ...), a little different in every browser.
export function pauseMs(tries, random = Math.random()) {
  return Math.min(LONGEST_PAUSE_MS, FIRST_PAUSE_MS * 2 ** Math.min(tries, 10)) * (0.8 + 0.4 * random);
}

export class EventStream {
  #url;
  #onState;
  #onLost;
  #source = null;
  #timer = 0;
  #tries = 0;
  #heardAt = 0; // performance.now()

  // onState(object): an event; onLost(unix ms of the next try).
  constructor(url, onState, onLost) {
    this.#url = url;
    this.#onState = onState;
    this.#onLost = onLost;
  }

  get isOpen() {
    return this.#source !== null || this.#timer !== 0;
  }

  open() {
    if (!this.isOpen) this.#connect();
  }

  close() {
    clearTimeout(this.#timer);
    this.#timer = 0;
    this.#source?.close();
    this.#source = null;
    this.#tries = 0;
  }

  // To be called about once a second: a connection that has fallen silent is given up.
  watch(now = performance.now()) {
    if (this.#source && now - this.#heardAt > SILENCE_MS) this.#again();
  }

  #connect() {
    this.#timer = 0;
    this.#heardAt = performance.now();
    this.#source = new EventSource(this.#url);
    this.#source.addEventListener("state", (event) => this.#take(event.data));
    this.#source.addEventListener("error", () => this.#again());
  }

  #take(text) {
    let state;
    try {
      state = JSON.parse(text);
    } catch {
      return; // cut off by a loss, which is told of by itself
    }
    this.#heardAt = performance.now();
    this.#tries = 0;
    this.#onState(state);
  }

  #again() {
    this.#source?.close();
    this.#source = null;
    clearTimeout(this.#timer);
    const pause = pauseMs(this.#tries++);
    this.#timer = setTimeout(() => this.#connect(), pause);
    this.#onLost(Date.now() + pause);
  }
}
