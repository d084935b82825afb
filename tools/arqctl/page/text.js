// Figures as people read them. Nothing is ever "NaN": what is not known is a dash.

export const UNKNOWN = "–";
const STEPS = [
  [1e9, "Gbit/s"],
  [1e6, "Mbit/s"],
  [1e3, "kbit/s"],
];
const whole = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });
const timeOfDay = new Intl.DateTimeFormat("en-GB", { hour: "2-digit", minute: "2-digit", second: "2-digit" });
const dayAndTime = new Intl.DateTimeFormat("en-GB", {
  day: "numeric",
  month: "short",
  hour: "2-digit",
  minute: "2-digit",
});

export const known = (value) => typeof value === "number" && Number.isFinite(value);

// The unit for bit rates up to `most` bit/s: [bit/s of one unit, its name].
export function bitRateUnit(most) {
  return STEPS.find(([size]) => Math.abs(most) >= size) ?? [1, "bit/s"];
}

// Three digits that count: 9.98, 10.4, 104.
export function digits(value) {
  if (!known(value)) return UNKNOWN;
  const size = Math.abs(value);
  return value.toFixed(size === 0 || size >= 99.95 ? 0 : size >= 9.995 ? 1 : 2);
}

// A bit rate in bit/s as [figure, unit].
export function bitRate(value) {
  if (!known(value)) return [UNKNOWN, ""];
  const [size, unit] = bitRateUnit(value);
  return [digits(value / size), unit];
}

export const count = (value) => (known(value) ? whole.format(value) : UNKNOWN);

// Packets a second: whole ones, but never 0 for what is not 0.
export function perSecond(value) {
  if (!known(value)) return UNKNOWN;
  return value > 0 && value < 9.95 && !Number.isInteger(value)
    ? value.toFixed(value < 0.1 ? 2 : 1)
    : whole.format(value);
}

export const milliseconds = (value) => (known(value) ? `${digits(value)} ms` : UNKNOWN);

// The two largest parts of a time in seconds: "43 s", "2 h 14 min", "3 d 2 h".
export function duration(seconds) {
  if (!known(seconds)) return UNKNOWN;
  const all = Math.max(0, Math.floor(seconds));
  if (all < 60) return `${all} s`;
  if (all < 3600) return `${Math.floor(all / 60)} min ${all % 60} s`;
  if (all < 86400) return `${Math.floor(all / 3600)} h ${Math.floor((all % 3600) / 60)} min`;
  return `${Math.floor(all / 86400)} d ${Math.floor((all % 86400) / 3600)} h`;
}

// A moment in Unix seconds: the time of day, with its date when it is not of the last 24 h before `now`.
export function moment(unixSeconds, now = Date.now() / 1000) {
  if (!known(unixSeconds)) return UNKNOWN;
  const near = Math.abs(now - unixSeconds) < 86400;
  return (near ? timeOfDay : dayAndTime).format(unixSeconds * 1000);
}

// What stands under a point of the time axis, whose steps are whole minutes.
export const tick = (unixSeconds) => timeOfDay.format(unixSeconds * 1000).slice(0, 5);

export const STATES = {
  good: { word: "Good", mark: "●" },
  input_gone: { word: "Input gone", mark: "✖" },
  down: { word: "Proxy down", mark: "✖" },
  waiting: { word: "Waiting for input", mark: "◌" },
};
// A state that this page does not know is shown by its own name, never as good.
export const stateOf = (name) => STATES[name] ?? { word: String(name), mark: "?" };
export const isRed = (name) => name === "input_gone" || name === "down";
