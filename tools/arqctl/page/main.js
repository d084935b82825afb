// Starts the page. Other modules may import `page` from here: there is only one.

import { Page } from "./page.js";
import { SharedEvents } from "./shared_events.js";

export const page = new Page();
export const events = new SharedEvents(
  "api/v1/events",
  (state, ageMs) => page.take(state, ageMs),
  (nextTry) => page.lost(nextTry),
);

events.start();
setInterval(() => page.tick(), 500);
document.addEventListener("visibilitychange", () => {
  events.visibilityChanged();
  page.draw();
});
// Put away, perhaps to be shown again by the back button.
addEventListener("pagehide", () => events.stop());
addEventListener("pageshow", (event) => event.persisted && events.start());
