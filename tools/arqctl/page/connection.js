// How fresh the figures are: live, old, or without a connection since when. Times here are this browser's.

import { byId, setData, setText } from "./dom.js";
import { duration, moment } from "./text.js";

const OLD_MS = 3000; // older figures are shown as old, never as live

export class Connection {
  #heardAt = null; // performance.now() of the newest figures
  #heardUnix = 0; // the same on the wall clock, in seconds
  #lostUnix = 0; // since when there is no connection; 0: there is one
  #nextTry = 0; // Unix ms

  heard(ageMs) {
    this.#heardAt = performance.now() - ageMs;
    this.#heardUnix = (Date.now() - ageMs) / 1000;
    this.#lostUnix = 0;
  }

  lost(nextTry) {
    this.#nextTry = nextTry;
    if (!this.#lostUnix) this.#lostUnix = this.#heardUnix || Date.now() / 1000;
  }

  get isOld() {
    return this.#heardAt !== null && performance.now() - this.#heardAt > OLD_MS;
  }

  // What a tile of old figures says; empty while they are live.
  get ageText() {
    return this.isOld ? `old: of ${moment(this.#heardUnix)}` : "";
  }

  // Writes the line at the top; `serverTime` is the time of the newest figures.
  show(serverTime) {
    const [kind, text, detail] = this.#line(serverTime);
    setData(byId("connection"), "kind", kind);
    setText(byId("connection_text"), text);
    setText(byId("connection_detail"), detail);
  }

  #line(serverTime) {
    if (this.#lostUnix) return ["lost", `No connection since ${moment(this.#lostUnix)}`, this.#nextText()];
    if (this.#heardAt === null) return ["wait", "Connecting", ""];
    if (this.isOld)
      return ["old", "Old figures", `${duration((performance.now() - this.#heardAt) / 1000)} without news`];
    return ["live", "Live", moment(serverTime)];
  }

  #nextText() {
    const seconds = Math.ceil((this.#nextTry - Date.now()) / 1000);
    return seconds > 0 ? `next try in ${seconds} s` : "trying now";
  }
}
