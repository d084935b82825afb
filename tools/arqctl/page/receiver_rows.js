// The receivers of a channel as rows: those in the proxy's list, each with what it reports, and reporters beside them.

import { reporterKey } from "./report_rates.js";

const LIVE_AGE_S = 3; // an older report is shown as old

function row(key, receiver, report) {
  return {
    key,
    address: receiver?.address ?? report.address,
    isListed: receiver?.state === "receiving",
    state: receiver?.state ?? "not in the list",
    since: receiver?.since,
    report,
    isOld: report !== undefined && !(report.age_s <= LIVE_AGE_S),
  };
}

// One row a receiver and one more for each further reporter behind the same address.
export function rowsOf(channel) {
  const rows = (channel.receivers ?? []).map((receiver) => row(receiver.address, receiver, receiver.report));
  const shown = new Set(rows.filter((one) => one.report).map((one) => reporterKey(one.report)));
  for (const report of channel.reports ?? []) {
    const key = reporterKey(report);
    if (shown.has(key)) continue;
    shown.add(key);
    const receiver = channel.receivers?.find((one) => one.address === report.address);
    rows.push(row(key, receiver, report));
  }
  return rows;
}

// How much a row needs to be looked at: gone first, then what was lost for good, then what was missing.
function badness(one) {
  const state = one.state === "gone" ? 2 : one.report?.state === "gone" ? 1 : 0;
  return [state, one.report?.packets_lost ?? -1, one.report?.packets_missing ?? -1];
}

function compareLists(a, b) {
  const index = a.findIndex((value, place) => value !== b[place]);
  return index < 0 ? 0 : a[index] - b[index];
}

const addressCollator = new Intl.Collator("en", { numeric: true });
const byAddress = (a, b) => addressCollator.compare(a.key, b.key);

// `column` is one of receiver_table.js; descending puts the largest on top. What is not known is always below.
export function sortRows(rows, column, isDescending) {
  const sign = isDescending ? -1 : 1;
  const compare = (a, b) => {
    if (column.isWorst) return sign * compareLists(badness(a), badness(b));
    const [x, y] = [column.value(a), column.value(b)];
    if (x === undefined || y === undefined) return (x === undefined) - (y === undefined);
    return sign * (typeof x === "string" ? addressCollator.compare(x, y) : x - y);
  };
  return rows.sort((a, b) => compare(a, b) || byAddress(a, b));
}
