// The shown channel's past: fetched once for a span, then carried on with the live samples.

import { Columns } from "./columns.js";
import { ReportRates } from "./report_rates.js";

// Seconds, and the rows asked for: steps that the server keeps, at most 1000.
export const SPANS = [
  { seconds: 300, points: 300, text: "5 min" },
  { seconds: 900, points: 900, text: "15 min" },
  { seconds: 3600, points: 720, text: "1 h" },
  { seconds: 21600, points: 720, text: "6 h" },
  { seconds: 86400, points: 960, text: "24 h" },
];
const PAUSE_MS = 5000; // between two fetches of the same

export class History {
  columns = new Columns();
  problem = ""; // why there is no past to show; empty while all is well
  #channel = null;
  #span = SPANS[0];
  #rates = new ReportRates();
  #isWanted = true; // to be fetched
  #fetch = null; // AbortController of the one under way
  #retryAt = 0; // performance.now()

  get span() {
    return this.#span;
  }

  // Shows another channel or span from now on.
  choose(channelId, span) {
    if (channelId === this.#channel && span === this.#span) return;
    if (channelId !== this.#channel) this.#rates = new ReportRates();
    this.#channel = channelId;
    this.#span = span;
    this.#fetch?.abort();
    this.#fetch = null;
    this.#isWanted = true;
    this.#retryAt = 0;
    this.columns.clear();
  }

  // Takes the live state of the channel; `time` is the server's, in Unix seconds.
  take(channel, time) {
    const sample = this.#sampleOf(channel, time);
    if (!this.#isWanted && !this.columns.append(time, sample)) this.#isWanted = true;
    if (this.#isWanted && !this.#fetch && performance.now() >= this.#retryAt) this.#load();
  }

  #sampleOf(channel, time) {
    const rates = this.#rates.take(channel.reports ?? [], time);
    return {
      input_bit_rate: channel.input?.bit_rate,
      output_bit_rate: channel.output?.bit_rate,
      lost: channel.input?.loss_rate,
      sent_beyond: channel.output?.sent_beyond_rate,
      withheld: channel.output?.withheld_rate,
      reported_missing: rates.missing,
      reported_recovered: rates.recovered,
      reported_lost: rates.lost,
    };
  }

  async #load() {
    const fetching = new AbortController();
    this.#fetch = fetching;
    const query = `span=${this.#span.seconds}&points=${this.#span.points}`;
    try {
      const answer = await fetch(`api/v1/channels/${encodeURIComponent(this.#channel)}/history?${query}`, {
        signal: fetching.signal,
      });
      const body = await answer.json();
      if (this.#fetch === fetching) this.#finish(answer.ok ? body : null, body.error ?? "");
    } catch (reason) {
      if (this.#fetch === fetching) this.#finish(null, String(reason.message ?? reason));
    } finally {
      if (this.#fetch === fetching) this.#fetch = null;
    }
  }

  #finish(answer, reason) {
    const isGood = answer !== null && this.columns.load(answer);
    this.#isWanted = !isGood;
    this.#retryAt = performance.now() + PAUSE_MS;
    this.problem = isGood
      ? ""
      : `The past of this channel could not be fetched (${reason || "not understood"}). It is tried again.`;
  }
}
