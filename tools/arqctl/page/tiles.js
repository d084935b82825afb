// A tile a channel: its state in words and colour, and the figures that are read from afar.

import { make, setChildren, setData, setHidden, setText } from "./dom.js";
import { bitRate, count, duration, isRed, known, moment, perSecond, stateOf } from "./text.js";

// The columns of the grid for so many tiles on a wide screen.
const columnsFor = (tiles) => (tiles <= 4 ? Math.max(1, tiles) : tiles <= 6 ? 3 : tiles <= MANY ? 4 : 6);
const MANY = 12; // beyond, tiles are as small as they can be read

class Tile {
  #parts = {};
  #select;

  constructor(select) {
    this.#select = make("button", { type: "button", class: "select" });
    this.#select.addEventListener("click", select);
    for (const name of ["mark", "word", "since", "sentence", "age", "badge"])
      this.#parts[name] = make("span", { class: name });
    const head = make(
      "header",
      {},
      make("h3", {}, this.#select),
      make("span", { class: "state" }, this.#parts.mark, this.#parts.word),
    );
    const figures = make(
      "dl",
      {},
      this.#figure("input", "Input", "large"),
      this.#figure("output", "Output", "large"),
      this.#figure("loss", "Loss"),
      this.#figure("resent", "Resent ≈"),
      this.#figure("receivers", "Receivers"),
    );
    const foot = make("p", { class: "foot" }, this.#parts.since, this.#parts.badge, this.#parts.age);
    this.element = make("article", { class: "tile" }, head, figures, this.#parts.sentence, foot);
    this.#parts.mark.setAttribute("aria-hidden", "true");
    setText(this.#parts.badge, "deliberate loss is on");
  }

  #figure(name, title, kind = "small") {
    const [value, unit, more] = ["value", "unit", "more"].map((part) => make("span", { class: part }));
    this.#parts[name] = { value, unit, more, box: make("div", { class: `figure ${kind}`, "data-name": name }) };
    this.#parts[name].box.append(make("dt", {}, title), make("dd", {}, value, unit, more));
    return this.#parts[name].box;
  }

  #put(name, value, unit = "", more = "", isBad = false) {
    const part = this.#parts[name];
    setText(part.value, value);
    setText(part.unit, unit);
    setText(part.more, more);
    setData(part.box, "bad", isBad);
  }

  // `now` is the server's clock, Unix seconds.
  update(channel, now, isSelected) {
    const state = stateOf(channel.state);
    setText(this.#select, channel.name ?? channel.id);
    this.#select.title = this.#select.textContent; // where there is no room for all of it
    this.#select.setAttribute("aria-pressed", String(isSelected));
    setData(this.element, "state", channel.state);
    setData(this.element, "selected", isSelected);
    setData(this.element, "id", channel.id);
    setText(this.#parts.mark, state.mark);
    setText(this.#parts.word, state.word);
    setText(
      this.#parts.since,
      known(channel.since) ? `since ${moment(channel.since, now)}, ${duration(now - channel.since)}` : "",
    );
    setText(this.#parts.sentence, channel.state === "good" ? "" : (channel.state_text ?? ""));
    this.#parts.sentence.title = this.#parts.sentence.textContent;
    setHidden(this.#parts.badge, channel.impairment !== true);
    this.#putFigures(channel);
  }

  #putFigures({ input = {}, output = {}, receivers = [], state }) {
    this.#put("input", ...bitRate(input.bit_rate), "", isRed(state));
    this.#put("output", ...bitRate(output.bit_rate));
    this.#put(
      "loss",
      perSecond(input.loss_rate),
      known(input.loss_rate) ? "/s" : "",
      total(input.lost),
      input.loss_rate > 0,
    );
    this.#put(
      "resent",
      perSecond(output.sent_beyond_rate),
      known(output.sent_beyond_rate) ? "/s" : "",
      total(output.sent_beyond),
    );
    const gone = receivers.filter((receiver) => receiver.state !== "receiving").length;
    const answers = state !== "down";
    this.#put("receivers", answers ? count(receivers.length - gone) : "–", "", gone ? `${gone} gone` : "", gone > 0);
  }

  age(text) {
    setText(this.#parts.age, text);
    setData(this.element, "old", text !== "");
  }
}

const total = (value) => (known(value) ? `${count(value)} in all` : "");

export class Tiles {
  #box;
  #tiles = new Map(); // channel id: Tile, only of channels that there are
  #onSelect;

  constructor(box, onSelect) {
    this.#box = box;
    this.#onSelect = onSelect;
  }

  update(state, selectedId) {
    const { channels } = state;
    const ids = new Set(channels.map((channel) => channel.id));
    for (const id of this.#tiles.keys()) if (!ids.has(id)) this.#tiles.delete(id);
    for (const channel of channels) this.#tileOf(channel.id).update(channel, state.time, channel.id === selectedId);
    setChildren(
      this.#box,
      channels.map((channel) => this.#tiles.get(channel.id).element),
    );
    setData(this.#box, "count", Math.min(channels.length, 9));
    setData(this.#box, "many", channels.length > MANY);
    this.#box.style.setProperty("--columns", columnsFor(channels.length));
  }

  // Marks all figures as old; an empty text: they are live.
  age(text) {
    for (const tile of this.#tiles.values()) tile.age(text);
  }

  // Brings the first tile whose state the function says yes to onto the screen.
  showFirst(isWanted) {
    const found = [...this.#box.children].find((tile) => isWanted(tile.dataset.state));
    found?.scrollIntoView({ block: "center" });
    found?.querySelector("button").focus({ preventScroll: true });
  }

  #tileOf(id) {
    if (!this.#tiles.has(id)) this.#tiles.set(id, new Tile(() => this.#onSelect(id)));
    return this.#tiles.get(id);
  }
}
