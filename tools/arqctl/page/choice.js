// What is shown, kept in the page's address (#channel=1&span=300): a bookmark or the wall's start page has it again.

import { SPANS } from "./history.js";

export class Choice {
  channel = "";
  span = SPANS[0];

  constructor() {
    this.read();
  }

  read() {
    const words = new URLSearchParams(location.hash.slice(1));
    const seconds = Number(words.get("span"));
    this.channel = words.get("channel") ?? this.channel;
    this.span = SPANS.find((span) => span.seconds === seconds) ?? this.span;
  }

  write() {
    const words = new URLSearchParams({ channel: this.channel, span: this.span.seconds });
    history.replaceState(null, "", `#${words}`);
  }

  // The chosen channel of these, the first one when it is not there (any more), or undefined.
  pick(channels) {
    return channels.find((channel) => channel.id === this.channel) ?? channels[0];
  }
}
