// The tabs beside the records: members, urls, refused requests. Each is asked for only while it is shown.
import { ago, ask, byId, bytes, clock, count, element, exactTime, figure, rate } from "./dom.js";
import { setFilter } from "./records.js";

const percent = (part, whole) => (whole === 0 ? "–" : `${((100 * part) / whole).toFixed(part === whole ? 0 : 1)} %`);

function bar(share) {
  const track = element("span.track", element("i"));
  track.firstChild.style.width = `${Math.max(share * 100, share > 0 ? 1 : 0)}%`;
  return track;
}

// What the filter needs for exactly this value, or null if it can't say it.
function filterFor(path, value) {
  if (/["\s:]/.test(path) || value.includes('"') || value.endsWith("…") || value === "") return null;
  return /^[\w.+-]+$/.test(value) ? `${path}:${value}` : `${path}:"${value}"`;
}

function valueRow(member, [value, times]) {
  const text = element("span.value", value === "" ? element("em", "empty") : value);
  text.title = value;
  const filter = filterFor(member.path, value);
  const row = element(filter ? "button.bars" : "span.bars", text, bar(times / member.records), element("span.times", count(times)));
  if (filter) {
    row.type = "button";
    row.title = `Show records with ${filter}`;
    row.addEventListener("click", () => setFilter(filter));
  }
  return row;
}

function memberRow(member, all) {
  const types = Object.entries(member.types).map(([name, times]) => {
    const chip = element("span.chip", name);
    chip.title = `${count(times)} of ${count(member.records)}`;
    return chip;
  });
  const values = element("td.values");
  // Values that hardly repeat (numbers of persons, times) say nothing one by one.
  const repeats = member.records - member.different - member.untold;
  if (member.different < 12 || repeats > member.records / 4) values.append(...member.values.map((each) => valueRow(member, each)));
  else values.append(element("span.example", `for instance ${member.values.slice(0, 3).map(([value]) => value).join(", ")}`));
  const notes = [];
  if (member.different > member.values.length) notes.push(`${member.untold > 0 ? "over " : ""}${count(member.different)} different values`);
  if (member.minimum !== undefined) notes.push(`${figure(member.minimum)} to ${figure(member.maximum)}`);
  if (notes.length > 0) values.append(element("span.quiet", notes.join(", ")));
  const present = element("td.present", element("span.times", percent(member.records, all)), bar(member.records / all));
  return element("tr", element("th.name", member.path), element("td", ...types), present, values);
}

// The paths to choose from, as far as the server counts them one by one.
async function offerPaths() {
  const chosen = byId("paths").value;
  const paths = new Set(((await ask("/sources")) ?? []).map((each) => each.path).filter((path) => path !== ""));
  const known = [...byId("paths").options].map((option) => option.value);
  for (const path of paths) {
    if (!known.includes(path)) byId("paths").append(new Option(path, path, false, path === chosen));
  }
}

async function members() {
  offerPaths();
  const path = byId("paths").value;
  const table = await ask(`/members?path=${encodeURIComponent(path)}`);
  if (!table || path !== byId("paths").value) return;
  const rows = table.members.map((each) => memberRow(each, table.records));
  replaceRows("members", rows, 4, "No record yet.");
  let note = `Of the last ${count(table.records)} records that the page holds${path === "" ? "" : " of this path"}.`;
  if (table.withOthers > 0) note += ` ${count(table.withOthers)} of them have more members than the table has room for.`;
  byId("members-note").textContent = note;
}

async function sources() {
  const all = await ask("/sources");
  if (!all) return;
  const now = Date.now();
  const rows = all.map((each) => {
    const seen = element("td.number", ago(each.lastSeen, now));
    seen.title = exactTime(each.lastSeen);
    const url = each.path === "" ? element("em", "all others") : each.host + each.path;
    const numbers = [count(each.messages), count(each.records), count(each.repeated), rate(each.rate)];
    return element("tr", element("th.name", url), ...numbers.map((text) => element("td.number", text)), seen);
  });
  replaceRows("sources", rows, 6, "No message yet.");
}

async function refusals() {
  const all = await ask("/refused");
  if (!all) return;
  const rows = all.map((each) => {
    const time = element("td", clock(each.time));
    time.title = exactTime(each.time);
    const save = element("td");
    if (each.hasBody) {
      const link = element("a", "Save body");
      link.href = `/refused/${each.number}`;
      link.download = `refused-${each.number}.body`;
      save.append(link);
    }
    return element("tr", time, element("td.number", String(each.status || "none")), element("td.sentence", each.sentence),
      element("td", each.host + each.path), element("td", each.peer), element("td.number", bytes(each.bytes)), save);
  });
  replaceRows("refusals", rows, 7, "No request was refused.");
}

// Not while the keyboard is in the table: its row would go.
function replaceRows(id, rows, columns, otherwise) {
  const body = byId(id);
  if (body.contains(document.activeElement)) return;
  if (rows.length === 0) {
    const cell = element("td.none", otherwise);
    cell.colSpan = columns;
    rows = [element("tr", cell)];
  }
  body.replaceChildren(...rows);
}

const refreshers = { "tab-members": members, "tab-sources": sources, "tab-refused": refusals };

export function startTables() {
  const tabs = [...document.querySelectorAll('[role="tab"]')];
  const select = (chosen) => {
    for (const tab of tabs) {
      const isChosen = tab === chosen;
      tab.setAttribute("aria-selected", String(isChosen));
      tab.tabIndex = isChosen ? 0 : -1;
      byId(tab.getAttribute("aria-controls")).hidden = !isChosen;
    }
    refreshers[chosen.id]?.();
  };
  tabs.forEach((tab, index) => {
    tab.addEventListener("click", () => select(tab));
    tab.addEventListener("keydown", (event) => {
      const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
      if (!step) return;
      const next = tabs[(index + step + tabs.length) % tabs.length];
      select(next);
      next.focus();
    });
  });
  document.addEventListener("keydown", (event) => {
    if (event.target.matches("input") || event.ctrlKey || event.metaKey || event.altKey) return;
    const tab = tabs[Number(event.key) - 1];
    if (!tab) return;
    select(tab);
    tab.focus();
  });
  byId("paths").addEventListener("change", members);
  setInterval(() => {
    const shown = tabs.find((tab) => tab.getAttribute("aria-selected") === "true");
    if (!document.hidden) refreshers[shown.id]?.();
  }, 2000);
}
