// The table of the shown channel's receivers; its headings sort it. Rows are kept and rewritten, not made again.

import { make, setChildren, setData, setText } from "./dom.js";
import { rowsOf, sortRows } from "./receiver_rows.js";
import { UNKNOWN, count, duration, milliseconds, moment } from "./text.js";

// `value` is what sorts, undefined when not known; `text` what is shown.
const COLUMNS = [
  { name: "address", title: "Receiver", value: (row) => row.address, text: (row) => row.address },
  { name: "state", title: "State", isWorst: true, startsDescending: true, text: stateText },
  { name: "name", title: "Name", value: (row) => row.report?.name, text: (row) => row.report?.name ?? UNKNOWN },
  { name: "since", title: "Since", value: (row) => row.since, text: (row, now) => moment(row.since, now) },
  ...[
    ["packets_missing", "Missing", "Packets that did not come at first"],
    ["packets_recovered", "Recovered", "Packets that came when they were asked for"],
    ["packets_lost", "Lost", "Packets that never came"],
  ].map(([name, title, help]) => reported(name, title, help, count)),
  reported("buffer_ms", "Buffer", "Length of its buffer", milliseconds),
  reported("round_trip_ms", "Round trip", "To the proxy and back", milliseconds),
  {
    name: "age",
    title: "Reported",
    isNumber: true,
    startsDescending: true,
    value: (row) => row.report?.age_s,
    text: ageText,
  },
];

function reported(name, title, help, text) {
  const value = (row) => row.report?.[name];
  return { name, title, help, isNumber: true, startsDescending: true, value, text: (row) => text(value(row)) };
}

function stateText(row) {
  const mark = row.state === "gone" ? "✖ " : row.isListed ? "● " : "";
  return `${mark}${row.state}`;
}

function ageText(row) {
  if (!row.report) return "no reports";
  const word = { gone: "✖ ", ended: "ended " }[row.report.state] ?? "";
  return row.isOld || word ? `${word}${duration(row.report.age_s)} ago` : "now";
}

export class ReceiverTable {
  #head;
  #body;
  #rows = new Map(); // key: {element, cells, button}
  #column = COLUMNS.find((column) => column.isWorst);
  #isDescending = true;
  #onDelete;
  #last = null; // arguments of update

  constructor(table, onDelete) {
    this.#head = table.tHead.rows[0];
    this.#body = table.tBodies[0];
    this.#onDelete = onDelete;
    this.#head.append(
      ...COLUMNS.map((column) => this.#heading(column)),
      make("th", { scope: "col", class: "act" }, make("span", { class: "unseen" }, "Delete")),
    );
    this.#markHeadings();
  }

  #heading(column) {
    const button = make("button", { type: "button", title: column.help ?? `Sort by ${column.title}` }, column.title);
    button.addEventListener("click", () => this.#sortBy(column));
    return make(
      "th",
      { scope: "col", "data-name": column.name, ...(column.isNumber ? { class: "number" } : {}) },
      button,
    );
  }

  #sortBy(column) {
    this.#isDescending = column === this.#column ? !this.#isDescending : column.startsDescending === true;
    this.#column = column;
    this.#markHeadings();
    if (this.#last) this.update(...this.#last);
  }

  #markHeadings() {
    COLUMNS.forEach((column, index) => {
      const order = column !== this.#column ? "none" : this.#isDescending ? "descending" : "ascending";
      this.#head.cells[index].setAttribute("aria-sort", order);
    });
  }

  // Returns how many rows there are.
  update(channel, now, mayChange) {
    this.#last = [channel, now, mayChange];
    const rows = sortRows(rowsOf(channel), this.#column, this.#isDescending);
    const keys = new Set(rows.map((row) => row.key));
    for (const key of this.#rows.keys()) if (!keys.has(key)) this.#rows.delete(key);
    setChildren(
      this.#body,
      rows.map((row) => this.#fill(row, now, mayChange)),
    );
    setData(this.#body.parentElement, "control", mayChange);
    return rows.length;
  }

  #fill(row, now, mayChange) {
    if (!this.#rows.has(row.key)) this.#rows.set(row.key, this.#make());
    const made = this.#rows.get(row.key);
    COLUMNS.forEach((column, index) => setText(made.cells[index], column.text(row, now)));
    setData(made.element, "state", row.state);
    setData(made.element, "report", row.report?.state ?? "none");
    setData(made.element, "lost", row.report?.packets_lost > 0);
    setData(made.element, "old", row.isOld);
    made.address = row.address;
    made.button.hidden = !(mayChange && row.isListed);
    made.button.setAttribute("aria-label", `Delete ${row.address}`);
    return made.element;
  }

  #make() {
    const cells = COLUMNS.map((column) =>
      make(column.name === "address" ? "th" : "td", {
        "data-name": column.name,
        ...(column.name === "address" ? { scope: "row" } : {}),
        ...(column.isNumber ? { class: "number" } : {}),
      }),
    );
    const button = make("button", { type: "button", class: "plain" }, "Delete…");
    const made = { cells, button, element: make("tr", {}, ...cells, make("td", { class: "act" }, button)) };
    button.addEventListener("click", () => this.#onDelete(made.address));
    return made;
  }
}
