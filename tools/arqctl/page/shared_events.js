// All tabs of one browser share one event stream: a browser opens only six connections to a host, over all its tabs.
//
// The tab that holds the lock leads: it has the connection and tells the others what it hears. When it is closed the
// browser gives the lock to the next one. A leader that the browser froze in the background says nothing any more: the
// first visible tab that misses it takes the lock away. Browsers have locks only on https and on this machine itself;
// elsewhere every visible tab has its own connection and hidden ones have none.

import { EventStream } from "./event_stream.js";

const NAME = "arqctl-events";
const MISSED_MS = 8000; // a leader speaks once a second, connected or not
const TURN_MS = 1000;

export class SharedEvents {
  #stream;
  #channel = null;
  #giveUp = null; // ends our lead
  #waiting = null; // AbortController of our place in the row for the lock
  #timer = 0;
  #heardAt = performance.now(); // of the leader, whoever it is
  #last = null; // {state, at: performance.now()} as heard last
  #nextTry = 0; // Unix ms, 0 while there is a connection
  #onState;
  #onLost;

  // onState(object, its age in ms); onLost(unix ms of the next try), repeated while it is so.
  constructor(url, onState, onLost) {
    this.#onState = onState;
    this.#onLost = onLost;
    this.#stream = new EventStream(
      url,
      (state) => this.#take(state),
      (nextTry) => this.#lose(nextTry),
    );
  }

  static get canShare() {
    return "locks" in navigator && "BroadcastChannel" in globalThis;
  }

  get isLeader() {
    return this.#giveUp !== null;
  }

  start() {
    this.#heardAt = performance.now();
    this.#timer = setInterval(() => this.#turn(), TURN_MS);
    if (!SharedEvents.canShare) return this.#followVisibility();
    this.#channel = new BroadcastChannel(NAME);
    this.#channel.addEventListener("message", (event) => this.#hear(event.data));
    this.#channel.postMessage({ kind: "hello" });
    this.#askForLead();
  }

  // Before the page is put away: the connection and the lock are free for others at once.
  stop() {
    clearInterval(this.#timer);
    this.#stream.close();
    this.#waiting?.abort();
    this.#giveUp?.();
    this.#giveUp = null;
    this.#channel?.close();
    this.#channel = null;
  }

  // Called when the page is hidden or shown.
  visibilityChanged() {
    if (!SharedEvents.canShare) this.#followVisibility();
    else this.#heardAt = performance.now(); // timers slept: judge the leader from now on
  }

  #followVisibility() {
    if (document.hidden) this.#stream.close();
    else this.#stream.open();
  }

  // Waits in the row for the lock.
  #askForLead() {
    const channel = this.#channel;
    const waiting = new AbortController();
    this.#waiting = waiting;
    navigator.locks
      .request(NAME, { signal: waiting.signal }, () => this.#lead(channel))
      .catch(() => waiting.signal.aborted || this.#deposed(channel));
  }

  // Takes the lock from who has it, instead of waiting.
  #takeLead() {
    const channel = this.#channel;
    this.#waiting.abort();
    navigator.locks.request(NAME, { steal: true }, () => this.#lead(channel)).catch(() => this.#deposed(channel));
  }

  // Has the lock until the promise is resolved.
  #lead(channel) {
    if (channel === null || this.#channel !== channel) return undefined; // stopped meanwhile
    this.#stream.open();
    return new Promise((resolve) => (this.#giveUp = resolve));
  }

  // Another tab took the lock away: it found us silent.
  #deposed(channel) {
    if (this.#channel !== channel || channel === null) return;
    this.#stream.close();
    this.#giveUp = null;
    this.#nextTry = 0;
    this.#heardAt = performance.now();
    this.#askForLead();
  }

  #turn() {
    this.#stream.watch();
    if (this.isLeader) {
      if (this.#nextTry) this.#say({ kind: "lost", nextTry: this.#nextTry });
    } else if (this.#channel && !document.hidden && performance.now() - this.#heardAt > MISSED_MS) {
      this.#heardAt = performance.now();
      this.#takeLead();
    }
  }

  #say(message) {
    this.#channel?.postMessage(message);
  }

  #take(state) {
    this.#nextTry = 0;
    this.#last = { state, at: performance.now() };
    this.#say({ kind: "state", state, ageMs: 0 });
    this.#onState(state, 0);
  }

  #lose(nextTry) {
    this.#nextTry = nextTry;
    this.#say({ kind: "lost", nextTry });
    this.#onLost(nextTry);
  }

  #hear(message) {
    if (message.kind === "hello") return this.#welcome();
    this.#heardAt = performance.now();
    if (message.kind === "lost") return this.#onLost(message.nextTry);
    this.#onState(message.state, message.ageMs);
  }

  // A new tab shows something at once.
  #welcome() {
    if (!this.isLeader || !this.#last) return;
    this.#say({ kind: "state", state: this.#last.state, ageMs: performance.now() - this.#last.at });
    if (this.#nextTry) this.#say({ kind: "lost", nextTry: this.#nextTry });
  }
}
