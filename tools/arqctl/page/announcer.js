// Says aloud, for screen readers, when a channel's state changes: what is red at once, the rest politely.

import { setText } from "./dom.js";
import { isRed, stateOf } from "./text.js";

export class Announcer {
  #states = new Map(); // channel id: state, of the last update
  #polite;
  #atOnce;

  constructor(polite, atOnce) {
    this.#polite = polite;
    this.#atOnce = atOnce;
  }

  update(channels) {
    const changed = channels.filter(
      (channel) => this.#states.has(channel.id) && this.#states.get(channel.id) !== channel.state,
    );
    // Both are written, so that the same sentence is new when it comes again.
    if (changed.length) {
      setText(this.#atOnce, sentences(changed.filter((channel) => isRed(channel.state))));
      setText(this.#polite, sentences(changed.filter((channel) => !isRed(channel.state))));
    }
    this.#states = new Map(channels.map((channel) => [channel.id, channel.state]));
  }
}

const sentence = (channel) =>
  `Channel ${channel.name ?? channel.id}: ${stateOf(channel.state).word}. ${channel.state_text ?? ""}`;

const sentences = (channels) => channels.map(sentence).join(" ");
