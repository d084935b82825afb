// Light or dark: what the system prefers until somebody chooses; the choice is kept in this browser.
// A plain script in the head, so that the first picture has the right colours already.
"use strict";
(() => {
  const KEY = "arqctl-theme";
  const system = matchMedia("(prefers-color-scheme: dark)");

  function stored() {
    try {
      return localStorage.getItem(KEY);
    } catch {
      return null; // a browser that keeps nothing: the system's preference
    }
  }

  function keep(theme) {
    try {
      localStorage.setItem(KEY, theme);
    } catch {
      // It holds until the page is closed.
    }
  }

  function show(theme) {
    document.documentElement.dataset.theme = theme;
    const button = document.getElementById("theme");
    if (button) button.textContent = theme === "dark" ? "Light" : "Dark";
    document.dispatchEvent(new Event("themechange"));
  }

  function current() {
    const theme = stored();
    return theme === "dark" || theme === "light" ? theme : system.matches ? "dark" : "light";
  }

  function toggle() {
    const theme = document.documentElement.dataset.theme === "dark" ? "light" : "dark";
    keep(theme);
    show(theme);
  }

  show(current());
  system.addEventListener("change", () => show(current()));
  addEventListener("storage", (event) => event.key === KEY && show(current())); // chosen in another tab
  document.addEventListener("DOMContentLoaded", () => {
    document.getElementById("theme").addEventListener("click", toggle);
    show(current());
  });
})();
