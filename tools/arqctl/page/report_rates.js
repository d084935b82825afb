// What receivers report are totals; the plots show them a second, summed over the receivers of one channel.

const FIELDS = ["missing", "recovered", "lost"];
export const reporterKey = (report) => `${report.address} ${report.name}`;

export class ReportRates {
  #before = new Map(); // reporter: its totals; only reporters of the last sample are kept
  #at = null; // Unix seconds

  // Returns {missing, recovered, lost} a second, each null as long as it is not known.
  take(reports, time) {
    const live = reports.filter((report) => report.state === "live");
    const seconds = this.#at === null ? 0 : time - this.#at;
    const now = new Map(live.map((report) => [reporterKey(report), report]));
    const rates = {};
    for (const field of FIELDS) rates[field] = seconds > 0 ? this.#sum(now, `packets_${field}`, seconds) : null;
    this.#before = now;
    this.#at = time;
    return rates;
  }

  #sum(now, field, seconds) {
    let sum = null;
    for (const [key, report] of now) {
      const grown = report[field] - this.#before.get(key)?.[field];
      if (grown >= 0) sum = (sum ?? 0) + grown / seconds; // new and restarted ones count from the next sample on
    }
    return sum;
  }
}
