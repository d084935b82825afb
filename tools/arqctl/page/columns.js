// The plots' data: one array a curve, oldest first, of equal steps. Their length never changes once they are filled, so
// a page that is open for days stays as small as it was.
//
// A row of `step` seconds is the mean of its samples, of losses the largest, as the server's own history has it. null
// is "not known": a gap in the curve.

export const CURVES = [
  "input_bit_rate",
  "output_bit_rate",
  "lost",
  "sent_beyond",
  "withheld",
  "reported_missing",
  "reported_recovered",
  "reported_lost",
];
const LARGEST = new Set(["lost", "reported_lost"]);
const MOST_ROWS = 1000;
const MISSED_S = 3.5; // samples come once a second; after a longer silence the server knows better what was

export class Columns {
  time = []; // Unix seconds, the beginning of the row
  step = 1;
  #curves = Object.fromEntries(CURVES.map((name) => [name, []]));
  #samples = 0; // in the last row; 0: it came from the server, whole
  #sampleAt = null; // Unix seconds
  #rows = 0;

  curve(name) {
    return this.#curves[name];
  }

  clear() {
    this.time.length = 0;
    for (const name of CURVES) this.#curves[name].length = 0;
    this.#sampleAt = null;
  }

  // Takes the server's answer over; returns false, and is empty, when it is not what the contract says.
  load(answer) {
    this.clear();
    const time = answer?.time;
    if (!Array.isArray(time) || !(answer.step_s > 0)) return false;
    const kept = time.slice(-MOST_ROWS);
    this.step = answer.step_s;
    this.time.push(...kept);
    for (const name of CURVES) {
      const values = Array.isArray(answer[name]) ? answer[name].slice(-MOST_ROWS) : [];
      this.#curves[name].push(...kept.map((_, row) => values[row] ?? null));
    }
    this.#rows = kept.length;
    this.#samples = 0;
    return kept.length > 0;
  }

  // One sample, {curve: value}, of the Unix second `at`. Returns false when it does not follow the last one, because
  // samples are missing or the clock was set: then the history has to be fetched again.
  append(at, sample) {
    if (this.time.length === 0) return false;
    const isFirst = this.#sampleAt === null; // the history may end a step ago
    if (!isFirst && Math.abs(at - this.#sampleAt) > MISSED_S) return false;
    this.#sampleAt = at;
    const rows = Math.floor((at - this.time.at(-1)) / this.step);
    if (rows <= 0) this.#merge(sample);
    else if (rows > this.#rows) return false;
    // More than one row: a sample that came a little late stands for the second it skipped, a longer time is a gap.
    const isGap = isFirst && (rows - 1) * this.step > MISSED_S;
    for (let row = 1; row < rows; row++) this.#open(isGap ? {} : sample);
    if (rows > 0) this.#open(sample);
    return true;
  }

  #open(sample) {
    this.time.push(this.time.at(-1) + this.step);
    for (const name of CURVES) this.#curves[name].push(sample[name] ?? null);
    this.#samples = 1;
    while (this.time.length > this.#rows) {
      this.time.shift();
      for (const name of CURVES) this.#curves[name].shift();
    }
  }

  #merge(sample) {
    if (this.#samples === 0) return; // the server's row
    this.#samples++;
    for (const name of CURVES) {
      const curve = this.#curves[name];
      const before = curve.at(-1);
      const value = sample[name] ?? null;
      if (value === null) continue;
      if (before === null) curve[curve.length - 1] = value;
      else if (LARGEST.has(name)) curve[curve.length - 1] = Math.max(before, value);
      else curve[curve.length - 1] = before + (value - before) / this.#samples;
    }
  }
}
