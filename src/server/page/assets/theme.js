// Sets the colours before the page is painted: the system's, or what was chosen here last.
"use strict";
try {
  const chosen = localStorage.getItem("theme");
  if (chosen === "light" || chosen === "dark") document.documentElement.dataset.theme = chosen;
} catch {
  // Without storage the system's setting holds.
}
