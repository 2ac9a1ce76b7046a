// The list of the newest records, its filter, and the record that was chosen.
import { ask, byId, bytes, clock, count, duration, element, exactTime, plural } from "./dom.js";
import { laidOut, oneLine } from "./json_text.js";

const maxRows = 200;
const maxHeld = 1000;
const lineLimit = 420;

const list = byId("list");
let paused = false;
let held = []; // what came while the list stands still
let heldCount = 0;
let current = null; // the record in the detail

// The list stands still while it is paused, and while somebody reads further down.
const standsStill = () => paused || list.scrollTop > 8;

function makeRow(record) {
  const time = element("time", clock(record.time));
  time.title = exactTime(record.time);
  const path = element("span.path", record.path);
  path.title = record.host + record.path;
  const row = element("button.row", time, path, element("span.text", oneLine(record.text, lineLimit)));
  row.type = "button";
  row.tabIndex = -1;
  row.dataset.number = record.number;
  if (record.number === current) row.setAttribute("aria-current", "true");
  return element("li", row);
}

function show(records) {
  const fresh = document.createDocumentFragment();
  for (const record of records.slice(-maxRows).reverse()) fresh.append(makeRow(record));
  list.prepend(fresh);
  while (list.children.length > maxRows && !list.lastElementChild.contains(document.activeElement)) list.lastElementChild.remove();
  byId("none").hidden = list.children.length > 0;
  if (!list.querySelector('[tabindex="0"]') && list.firstElementChild) list.firstElementChild.firstElementChild.tabIndex = 0;
}

function showHeld() {
  const records = held;
  held = [];
  heldCount = 0;
  show(records);
  updateHeld();
}

function updateHeld() {
  const newer = byId("newer");
  newer.hidden = heldCount === 0;
  newer.textContent = `${plural(heldCount, "newer record", "newer records")}`;
}

export function addRecords(records) {
  if (!standsStill()) {
    show(records);
    return;
  }
  heldCount += records.length;
  held = held.concat(records).slice(-maxHeld);
  updateHeld();
}

export function clearRecords() {
  held = [];
  heldCount = 0;
  list.replaceChildren();
  list.scrollTop = 0;
  byId("none").hidden = false;
  updateHeld();
}

// Records a second: what came, what fits the filter, what was shown; and whether the server took a sample.
export function tellSampling(all, fitting, shown, skipped, filtered) {
  let text = "";
  if (skipped > 0) text = `Sampling: ${count(Math.max(0, all - skipped))} of ${count(all)} records a second are looked at; all are stored`;
  else if (shown < fitting) text = `Sampling: showing ${count(shown)} of ${count(fitting)} a second${filtered ? " that fit" : ""}`;
  else if (filtered) text = `${count(fitting)} of ${count(all)} a second fit`;
  byId("sampling").textContent = text;
}

function fact(name, value) {
  return [element("dt", name), element("dd", value)];
}

const signatures = {
  valid: "valid, checked by this server",
  unchecked: "there is one; this server has no key to check it",
  none: "none",
};

async function open(number) {
  const record = await ask(`/records/${number}`);
  current = number;
  for (const row of list.querySelectorAll("[aria-current]")) row.removeAttribute("aria-current");
  list.querySelector(`[data-number="${number}"]`)?.setAttribute("aria-current", "true");
  const detail = byId("detail");
  detail.hidden = false;
  byId("detail-title").textContent = `Record ${count(number)}`;
  byId("packet").replaceChildren();
  byId("others").replaceChildren();
  if (!record) {
    byId("json").textContent = "The server no longer keeps this record for the page. It is stored.";
    return;
  }
  const { packet } = record;
  byId("json").replaceChildren(laidOut(record.text));
  if (record.bytes > new Blob([record.text]).size) byId("json").append(`\n… cut; the record has ${bytes(record.bytes)}`);
  byId("packet").replaceChildren(
    ...fact("Time", exactTime(packet.time)),
    ...fact("Url", packet.host + packet.path),
    ...fact("From", packet.peer),
    ...fact("Packet", `${count(packet.number)}; record ${count(record.place)} of ${count(packet.records)}, ${bytes(packet.bytes)}`),
    ...fact("Stored", packet.repeated === 0 ? `${count(packet.stored)} in ${duration(packet.sinkSeconds)}`
      : `${count(packet.stored)} in ${duration(packet.sinkSeconds)}, ${count(packet.repeated)} repeated`),
    ...fact("Signature", packet.key ? `${signatures[packet.signature]}; key ${packet.key}` : signatures[packet.signature]),
    ...fact("Signed header", packet.signatureHeader),
  );
  byId("others-title").hidden = record.others.length < 2;
  for (const other of record.others.length < 2 ? [] : record.others) {
    const link = element("button.plain", count(other));
    link.type = "button";
    if (other === number) link.setAttribute("aria-current", "true");
    link.addEventListener("click", () => open(other));
    byId("others").append(link);
  }
  byId("copy").onclick = () => navigator.clipboard?.writeText(record.text);
}

function close() {
  byId("detail").hidden = true;
  const row = list.querySelector(`[data-number="${current}"]`);
  row?.removeAttribute("aria-current");
  current = null;
  (row ?? byId("filter")).focus();
}

function setPaused(value) {
  paused = value;
  const button = byId("pause");
  button.textContent = paused ? "Continue" : "Pause";
  button.setAttribute("aria-pressed", String(paused));
  if (!paused) {
    list.scrollTop = 0;
    showHeld();
  }
}

function moveFocus(from, step) {
  const target = from.parentElement[step > 0 ? "nextElementSibling" : "previousElementSibling"]?.firstElementChild;
  if (!target) return;
  from.tabIndex = -1;
  target.tabIndex = 0;
  target.focus();
}

// `onFilter` is called with the text once nothing has been typed for a moment.
export function startRecords(onFilter) {
  list.addEventListener("click", (event) => {
    const row = event.target.closest(".row");
    if (row) open(Number(row.dataset.number));
  });
  list.addEventListener("keydown", (event) => {
    const row = event.target.closest(".row");
    if (!row || (event.key !== "ArrowDown" && event.key !== "ArrowUp")) return;
    event.preventDefault();
    moveFocus(row, event.key === "ArrowDown" ? 1 : -1);
  });
  list.addEventListener("scroll", () => standsStill() || heldCount === 0 || showHeld());
  byId("newer").addEventListener("click", () => setPaused(false));
  byId("pause").addEventListener("click", () => setPaused(!paused));
  byId("close").addEventListener("click", close);
  let typing = 0;
  byId("filter").addEventListener("input", () => {
    clearTimeout(typing);
    typing = setTimeout(() => onFilter(byId("filter").value.trim()), 250);
  });
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    if (event.key === "Escape" && !byId("detail").hidden) close();
    if (event.target.matches("input")) return;
    if (event.key === "/") {
      event.preventDefault();
      byId("tab-records").click();
      byId("filter").focus();
    } else if (event.key === "p" || event.key === "P") {
      setPaused(!paused);
    }
  });
}

export function setFilter(text) {
  byId("tab-records").click();
  byId("filter").value = text;
  byId("filter").dispatchEvent(new Event("input"));
}
