// What changes something: requests with the token. The token is typed once and kept until this tab is closed.

const KEY = "arqctl-token";

export function token() {
  try {
    return sessionStorage.getItem(KEY) ?? "";
  } catch {
    return ""; // it is typed each time
  }
}

export function keepToken(text) {
  try {
    if (text) sessionStorage.setItem(KEY, text);
    else sessionStorage.removeItem(KEY);
  } catch {
    // see token()
  }
}

// Sends one change; returns {isDone, text}: what the server did, or why not and what to do about it. Never throws.
async function send(method, path, withToken, body) {
  const headers = { "X-Arqctl-Token": withToken };
  if (body) headers["Content-Type"] = "application/json";
  try {
    const answer = await fetch(path, { method, headers, body: body && JSON.stringify(body) });
    return outcome(answer, await answer.json().catch(() => ({})));
  } catch {
    return { isDone: false, text: "The server does not answer. Look whether arqctl serve still runs, then try again." };
  }
}

function outcome(answer, { result, text, error, advice }) {
  if (answer.status === 403) keepToken(""); // to be typed again
  if (answer.ok && result !== "refused") return { isDone: true, text: sentence(text ?? "done") };
  const reason = text ?? error ?? `the server refused with status ${answer.status}`;
  return { isDone: false, text: [reason, advice].filter(Boolean).map(sentence).join(" ") };
}

// The server's texts are parts of sentences, as on a terminal.
function sentence(text) {
  const begun = text.charAt(0).toUpperCase() + text.slice(1);
  return /[.!?]$/.test(begun) ? begun : `${begun}.`;
}

const pathOf = (channelId) => `api/v1/channels/${encodeURIComponent(channelId)}`;

export const addReceiver = (channelId, address, withToken) =>
  send("POST", `${pathOf(channelId)}/receivers`, withToken, { address });

export const deleteReceiver = (channelId, address, withToken) =>
  send("DELETE", `${pathOf(channelId)}/receivers/${encodeURIComponent(address)}`, withToken);

// settings: {on, mode, min_drop, min_dist, max_dist}
export const setImpairment = (channelId, settings, withToken) =>
  send("POST", `${pathOf(channelId)}/impairment`, withToken, settings);
