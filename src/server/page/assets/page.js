// The page's start, its stream of events, and the totals at the top.
import { addSecond, recolour, startCharts } from "./charts.js";
import { ask, byId, bytes, count, duration, exactTime, plural, rate } from "./dom.js";
import { addRecords, clearRecords, startRecords, tellSampling } from "./records.js";
import { startTables } from "./tables.js";

let stream = null;
let filter = "";
let seen = { fitting: 0, shown: 0, skipped: null };

function tellConnection(state, text) {
  const place = byId("connection");
  place.dataset.state = state;
  place.textContent = text;
}

const set = (id, text) => {
  const place = byId(id);
  if (place.textContent !== text) place.textContent = text;
};

function showTotals(totals) {
  const [records, messages] = totals.second;
  set("records", count(totals.records));
  set("records-rate", `${rate(records)} a second`);
  set("messages", count(totals.messages));
  set("messages-rate", `${rate(messages)} a second`);
  set("repeated", count(totals.repeated));
  set("refused", count(totals.refused));
  const listed = (figures) => Object.entries(figures).map(([name, times]) => `${name.replace("_", " ")} ${count(times)}`).join(", ");
  set("reasons", listed(totals.reasons) || "requests");
  byId("refused-figure").classList.toggle("alarm", totals.refused > 0);
  set("refused-count", count(totals.refused));
  byId("refused-count").hidden = totals.refused === 0;
  set("bytes", bytes(totals.bytes));
  set("body-memory", `${bytes(totals.bodyMemory)} in transit`);
  set("sink", totals.sinkFails ? "fails" : totals.sinkMedian > 0 ? `≤ ${duration(totals.sinkMedian)}` : "–");
  set("sink-slow", totals.sinkSlow > 0 ? `99 % ≤ ${duration(totals.sinkSlow)}` : "time to store");
  set("connections", count(totals.connections));
  const cut = listed(totals.cut);
  set("connection-limit", `of ${count(totals.connectionLimit)}${cut && `; cut: ${cut}`}`);
  addSecond(totals.time, totals.second);
  const skipped = totals.skipped - (seen.skipped ?? totals.skipped);
  tellSampling(records, seen.fitting, seen.shown, skipped, filter !== "");
  seen = { fitting: 0, shown: 0, skipped: totals.skipped };
}

function tellFilterProblem(text) {
  const place = byId("filter-problem");
  place.textContent = text;
  place.hidden = text === "";
}

// A stream that was refused has ended for good, and the browser hides why.
async function afterRefusal(path) {
  const stop = new AbortController();
  try {
    const answer = await fetch(path, { signal: stop.signal });
    if (answer.status === 400) {
      tellConnection("waiting", "filter refused");
      tellFilterProblem((await answer.text()).trim());
      return;
    }
    if (answer.status === 401) location.reload();
    tellConnection("lost", answer.status === 503 ? "too many pages are open" : "disconnected");
  } catch {
    tellConnection("lost", "disconnected");
  } finally {
    stop.abort();
  }
  setTimeout(connect, 2000);
}

function connect() {
  stream?.close();
  const path = `/events?filter=${encodeURIComponent(filter)}`;
  const opened = new EventSource(path);
  stream = opened;
  opened.addEventListener("begin", () => {
    tellFilterProblem("");
    tellConnection("live", "live");
    clearRecords();
    seen = { fitting: 0, shown: 0, skipped: null };
  });
  opened.addEventListener("records", (event) => {
    const { fitting, records } = JSON.parse(event.data);
    seen.fitting += fitting;
    seen.shown += records.length;
    addRecords(records);
  });
  opened.addEventListener("totals", (event) => showTotals(JSON.parse(event.data)));
  opened.addEventListener("error", () => {
    if (stream !== opened) return;
    tellConnection("lost", "disconnected");
    if (opened.readyState === EventSource.CLOSED) afterRefusal(path);
  });
}

function startTheme() {
  const order = ["system", "light", "dark"];
  const button = byId("theme");
  const show = () => {
    button.textContent = `Theme: ${document.documentElement.dataset.theme ?? "system"}`;
    recolour();
  };
  button.addEventListener("click", () => {
    const next = order[(order.indexOf(document.documentElement.dataset.theme ?? "system") + 1) % order.length];
    if (next === "system") delete document.documentElement.dataset.theme;
    else document.documentElement.dataset.theme = next;
    try {
      localStorage.setItem("theme", next);
    } catch {
      // It then holds until the page is closed.
    }
    show();
  });
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", recolour);
  show();
}

async function showServer() {
  const state = await ask("/state");
  if (!state) return;
  set("url", state.url);
  set("hint-url", state.url);
  set("started", `since ${exactTime(state.started).slice(0, 19)} UTC`);
}

startCharts();
startTheme();
startTables();
startRecords((text) => {
  filter = text;
  connect();
});
showServer();
connect();
