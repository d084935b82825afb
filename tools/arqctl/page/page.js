// The parts of the page together: takes states, remembers the newest, draws while it can be seen.

import { Announcer } from "./announcer.js";
import { Choice } from "./choice.js";
import { Connection } from "./connection.js";
import { makeDialogs } from "./dialogs.js";
import { byId, make, setHidden, setText } from "./dom.js";
import { History, SPANS } from "./history.js";
import { Plots } from "./plots.js";
import { ReceiverTable } from "./receiver_table.js";
import { bitRate, count, isRed, known, stateOf } from "./text.js";
import { Tiles } from "./tiles.js";

export class Page {
  state = null; // the newest
  history = new History(); // of the shown channel
  #choice = new Choice();
  #connection = new Connection();
  #announcer = new Announcer(byId("said_politely"), byId("said_at_once"));
  #tiles = new Tiles(byId("tiles"), (id) => this.#chooseChannel(id));
  #plots = new Plots(byId("plots"), byId("plots_note"), this.history);
  #dialogs = makeDialogs((text) => this.#tell(text));
  #table = new ReceiverTable(byId("receiver_table"), (address) => this.#dialogs.remove(this.#shown, address));

  constructor() {
    byId("red").addEventListener("click", () => this.#tiles.showFirst(isRed));
    byId("open_add").addEventListener("click", () => this.#dialogs.add(this.#shown));
    byId("open_impair").addEventListener("click", () => this.#dialogs.impair(this.#shown));
    byId("spans").append(...SPANS.map((span) => this.#spanButton(span)));
    addEventListener("hashchange", () => this.#readChoice());
    this.#markSpan();
  }

  // A state of the server, `ageMs` old.
  take(state, ageMs) {
    if (!Array.isArray(state?.channels)) return;
    this.state = state;
    this.#connection.heard(ageMs);
    this.#follow();
    if (ageMs === 0 && this.#shown) this.history.take(this.#shown, state.time);
    this.#announcer.update(state.channels);
    this.draw();
  }

  lost(nextTry) {
    this.#connection.lost(nextTry);
    this.#drawAge();
  }

  // Draws everything anew, unless nobody sees it.
  draw() {
    if (document.hidden || !this.state) return;
    const { channels, time, allow_control: mayChange } = this.state;
    const shown = this.#shown;
    this.#tiles.update(this.state, shown?.id);
    setHidden(byId("no_channels"), channels.length > 0);
    for (const id of ["detail", "receivers"]) setHidden(byId(id), !shown);
    setHidden(byId("controls"), mayChange !== true);
    if (shown) this.#drawChannel(shown, time, mayChange === true);
    this.#drawTitle(channels);
    this.#drawAge();
  }

  // Figures grow old without any event: to be called about once a second.
  tick() {
    if (!document.hidden) this.#drawAge();
  }

  get #shown() {
    return this.#choice.pick(this.state?.channels ?? []);
  }

  #drawChannel(channel, time, mayChange) {
    const name = channel.name !== channel.id && channel.name;
    setText(byId("plots_title"), name || `Channel ${channel.id}`);
    setText(byId("facts"), factsOf(channel));
    setText(byId("receivers_title"), `Receivers of ${name || `channel ${channel.id}`}`);
    this.#plots.draw();
    const isEmpty = this.#table.update(channel, time, mayChange) === 0;
    setHidden(byId("receiver_table").parentElement, isEmpty);
    setHidden(byId("no_receivers"), !isEmpty);
    setText(byId("no_receivers"), channel.up ? "The proxy's list is empty." : "Not known: the proxy does not answer.");
  }

  #drawAge() {
    this.#connection.show(this.state?.time);
    this.#tiles.age(this.#connection.ageText);
    document.documentElement.dataset.old = this.#connection.isOld;
  }

  #drawTitle(channels) {
    const red = channels.filter((channel) => isRed(channel.state));
    setHidden(byId("red"), red.length === 0);
    setText(byId("red"), `✖ ${red.length} of ${channels.length} red`);
    const text =
      red.length === 0
        ? "tx_proxy"
        : red.length === 1
          ? `✖ ${red[0].name ?? red[0].id}: ${stateOf(red[0].state).word}`
          : `✖ ${red.length} channels are red`;
    if (document.title !== text) document.title = text;
  }

  #tell(text) {
    setText(byId("message"), text);
    setHidden(byId("message"), false);
  }

  // The history follows what is chosen.
  #follow() {
    if (this.#shown) this.history.choose(this.#shown.id, this.#choice.span);
  }

  #chooseChannel(id) {
    this.#choice.channel = id;
    this.#chosen();
  }

  #readChoice() {
    this.#choice.read();
    this.#chosen();
  }

  #chosen() {
    this.#choice.write();
    this.#markSpan();
    this.#follow();
    this.draw();
  }

  #spanButton(span) {
    const button = make("button", { type: "button", "data-span": span.seconds }, span.text);
    button.addEventListener("click", () => {
      this.#choice.span = span;
      this.#chosen();
    });
    return button;
  }

  #markSpan() {
    for (const button of byId("spans").children)
      button.setAttribute("aria-pressed", String(Number(button.dataset.span) === this.#choice.span.seconds));
  }
}

// What is set on the proxy, as far as it is known.
function factsOf({ options = {}, input = {}, restarts, resets }) {
  const rate = (value) => bitRate(value).join(" ");
  return [
    known(options.listen_port) && `input port ${options.listen_port}`,
    options.group && `group ${options.group}`,
    known(options.media_port) && `media port ${options.media_port}`,
    known(options.ring_packets) && `ring ${count(options.ring_packets)} packets`,
    options.pacing_bit_rate > 0 && `paced to ${rate(options.pacing_bit_rate)}`,
    input.kernel_drops > 0 && `${count(input.kernel_drops)} input packets dropped by the system`,
    restarts > 0 && `restarts seen ${restarts}`,
    resets > 0 && `resets seen ${resets}`,
  ]
    .filter(Boolean)
    .join(" · ");
}
