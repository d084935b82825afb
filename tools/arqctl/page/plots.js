// Four plots side by side with one cursor: rates from zero on, units, gaps where nothing is known.

import { make, setData, setHidden, setText } from "./dom.js";
import { UNKNOWN, bitRateUnit, digits, known, moment, perSecond, tick } from "./text.js";

const { uPlot } = globalThis; // vendor/uplot

// Curves differ by dashes too, not by colour alone. `colour` is a custom property of colours.css.
const PLOTS = [
  {
    title: "Input",
    isBitRate: true,
    curves: [{ name: "input_bit_rate", text: "bit rate", colour: "--curve-1", fill: true }],
  },
  {
    title: "Output",
    isBitRate: true,
    curves: [{ name: "output_bit_rate", text: "bit rate", colour: "--curve-2", fill: true }],
  },
  {
    title: "Loss",
    curves: [
      { name: "lost", text: "on the input", colour: "--curve-bad" },
      { name: "reported_lost", text: "at receivers", colour: "--curve-3", dash: [6, 3] },
      { name: "withheld", text: "on purpose", colour: "--curve-4", dash: [2, 3] },
    ],
  },
  {
    title: "Repair",
    curves: [
      { name: "reported_recovered", text: "recovered", colour: "--curve-1" },
      { name: "reported_missing", text: "missing", colour: "--curve-3", dash: [6, 3] },
      { name: "sent_beyond", text: "resent ≈", colour: "--curve-4", dash: [2, 3] },
    ],
  },
];
const LEAST_TOP = { bitRate: 1000, packets: 4 }; // of a scale over nothing but zeros
const HEADROOM = 1.12;
const TIME_STEPS = [60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 14400, 21600, 43200, 86400]; // seconds

function colourOf(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

// The rows of points without neighbours: a line alone would not show them.
function lonely(plot, seriesIndex) {
  const values = plot.data[seriesIndex];
  const isGap = (row) => values[row] === null || values[row] === undefined;
  const rows = [];
  for (let row = 0; row < values.length; row++) if (!isGap(row) && isGap(row - 1) && isGap(row + 1)) rows.push(row);
  return rows.length ? rows : null;
}

class Plot {
  #plan;
  #history;
  #uplot;
  #unit;
  #cells;
  #colours = new Map();
  #canvasBox;

  constructor(plan, history) {
    this.#plan = plan;
    this.#history = history;
    this.#unit = make("span", { class: "unit" });
    this.#cells = plan.curves.map(() => make("b"));
    this.#canvasBox = make("div", { class: "canvas", role: "img" });
    const legend = make("p", { class: "legend" }, ...plan.curves.map((curve, index) => this.#legendOf(curve, index)));
    const caption = make("figcaption", {}, make("h3", {}, plan.title, " ", this.#unit), legend);
    this.element = make("figure", { class: "plot" }, caption, this.#canvasBox);
  }

  #legendOf(curve, index) {
    const line = make("span", {
      class: "line",
      "data-curve": curve.colour.slice(2),
      "data-dash": curve.dash?.[0] ?? 0,
    });
    return make("span", { class: "entry" }, line, ` ${curve.text} `, this.#cells[index]);
  }

  // Once the element is in the page and has a size.
  start() {
    this.readColours();
    this.#uplot = new uPlot(this.#options(), this.#data(), this.#canvasBox);
    new ResizeObserver(() => this.#fit()).observe(this.#canvasBox);
  }

  readColours() {
    for (const name of ["--axis", "--grid", ...this.#plan.curves.map((curve) => curve.colour)])
      this.#colours.set(name, colourOf(name));
    this.#uplot?.redraw(false);
  }

  draw() {
    this.#uplot.setData(this.#data());
    this.#tell();
  }

  #data() {
    const { columns } = this.#history;
    return [columns.time, ...this.#plan.curves.map((curve) => columns.curve(curve.name))];
  }

  #size() {
    return { width: Math.max(100, this.#canvasBox.clientWidth), height: Math.max(80, this.#canvasBox.clientHeight) };
  }

  #fit() {
    const { width, height } = this.#size();
    if (width !== this.#uplot.width || height !== this.#uplot.height) this.#uplot.setSize({ width, height });
  }

  #options() {
    return {
      ...this.#size(),
      padding: [8, 20, 0, 0],
      legend: { show: false },
      cursor: { sync: { key: "arqctl", setSeries: false }, drag: { x: false, y: false }, points: { size: 7 } },
      scales: {
        x: { time: true, range: () => this.#timeRange() },
        y: { range: (_, least, most) => [0, this.#top(most)] },
      },
      series: [{}, ...this.#plan.curves.map((curve) => this.#series(curve))],
      axes: [this.#timeAxis(), this.#valueAxis()],
      hooks: { setCursor: [() => this.#tell()] },
    };
  }

  #series(curve) {
    const colour = () => this.#colours.get(curve.colour);
    const series = {
      stroke: colour,
      width: 2,
      dash: curve.dash,
      spanGaps: false,
      points: { show: false, filter: lonely, size: 4 },
    };
    return curve.fill ? { ...series, fill: () => `${this.#colours.get(curve.colour)}2e` } : series;
  }

  #axis() {
    const line = { stroke: () => this.#colours.get("--grid"), width: 1 };
    const rem = parseFloat(getComputedStyle(document.documentElement).fontSize);
    const font = `${Math.round(0.75 * rem)}px system-ui, sans-serif`;
    return { stroke: () => this.#colours.get("--axis"), font, grid: line, ticks: { ...line, size: 4 }, gap: 4 };
  }

  #timeAxis() {
    return { ...this.#axis(), size: 24, space: 42, incrs: TIME_STEPS, values: (_, at) => at.map(tick) };
  }

  #valueAxis() {
    return {
      ...this.#axis(),
      size: 46,
      space: 24,
      values: (plot, at) => at.map((value) => this.#scaled(value, plot.scales.y.max)),
    };
  }

  #scaled(value, top) {
    if (!this.#plan.isBitRate) return String(value);
    return String(Number((value / bitRateUnit(top / HEADROOM)[0]).toPrecision(4)));
  }

  #timeRange() {
    const { columns, span } = this.#history;
    const end = columns.time.at(-1) ?? Date.now() / 1000;
    return [end - span.seconds + columns.step, end];
  }

  #top(most) {
    const least = this.#plan.isBitRate ? LEAST_TOP.bitRate : LEAST_TOP.packets;
    return known(most) && most > 0 ? Math.max(most * HEADROOM, least) : least;
  }

  // Writes the figures beside the curves' names: under the cursor, or the newest ones.
  #tell() {
    const plot = this.#uplot;
    if (!plot) return;
    const last = this.#history.columns.time.length - 1;
    const row = plot.cursor.idx ?? last;
    const [size, unit] = this.#plan.isBitRate ? bitRateUnit(plot.scales.y.max / HEADROOM) : [1, "packets/s"];
    setText(this.#unit, unit);
    this.#plan.curves.forEach((curve, index) => {
      const value = this.#history.columns.curve(curve.name)[row];
      setText(
        this.#cells[index],
        !known(value) ? UNKNOWN : this.#plan.isBitRate ? digits(value / size) : perSecond(value),
      );
    });
    setData(this.element, "rows", last + 1);
    this.#describe(unit);
  }

  // What a screen reader says of the picture.
  #describe(unit) {
    const { time } = this.#history.columns;
    const values = this.#plan.curves
      .map((curve, index) => `${curve.text} ${this.#cells[index].textContent}`)
      .join(", ");
    const range = time.length ? `from ${moment(time[0])} to ${moment(time.at(-1))}` : "without data yet";
    const label = `${this.#plan.title}, ${unit}, ${range}: ${values}`;
    if (this.#canvasBox.getAttribute("aria-label") !== label) this.#canvasBox.setAttribute("aria-label", label);
  }
}

export class Plots {
  #plots;

  constructor(box, note, history) {
    this.#plots = PLOTS.map((plan) => new Plot(plan, history));
    box.replaceChildren(...this.#plots.map((plot) => plot.element));
    this.note = note;
    this.history = history;
    this.isStarted = false;
    document.addEventListener("themechange", () => this.#plots.forEach((plot) => plot.readColours()));
  }

  draw() {
    if (!this.isStarted) this.#plots.forEach((plot) => plot.start());
    this.isStarted = true;
    this.#plots.forEach((plot) => plot.draw());
    setText(this.note, this.history.problem);
    setHidden(this.note, this.history.problem === "");
  }
}
