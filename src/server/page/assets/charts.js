// The two charts. Their steps come from the server at the start and every ten seconds; between them the seconds
// of the five minutes come with the totals.
import { ask, byId, clock, rate } from "./dom.js";

/* global Chart */

let history = [];
let span = 0;
let charts = [];
let started = 0; // seconds; before it nothing was counted

const colourOf = (selector, property) => getComputedStyle(document.querySelector(selector))[property];

function makeChart(id, series) {
  return new Chart(byId(id), {
    type: "line",
    data: { datasets: series.map((name) => ({ name, data: [], borderWidth: 1.5, pointRadius: name === "refused" ? 2.5 : 0, pointBorderWidth: 0, pointHitRadius: 0, order: name === "refused" ? 0 : 1 })) },
    options: {
      animation: false,
      parsing: false,
      normalized: true,
      maintainAspectRatio: false,
      interaction: { mode: "index", intersect: false },
      plugins: {
        legend: { display: false },
        tooltip: {
          displayColors: false,
          callbacks: {
            title: (items) => clock(items[0].parsed.x * 1000, span < 2),
            label: (item) => `${item.dataset.name}: ${rate(item.parsed.y)} a second`,
          },
        },
      },
      scales: {
        x: { type: "linear", border: { display: false }, grid: { display: false }, ticks: { maxRotation: 0, autoSkipPadding: 24 } },
        y: { beginAtZero: true, suggestedMax: 1, grid: { drawBorder: false }, afterFit: (axis) => { axis.width = 48; }, ticks: { maxTicksLimit: 4, padding: 8, callback: (value) => (value < 10 && value % 1 !== 0 ? value.toFixed(1) : rate(value)) } },
      },
    },
  });
}

// Round moments for the axis: each minute, ten minutes, or four hours of the local clock.
function ticks(level) {
  const every = [60, 600, 14400][span];
  const offset = new Date().getTimezoneOffset() * 60;
  const end = level.latest;
  const first = end - level.step * (level.records.length - 1);
  const found = [];
  for (let time = Math.ceil((first - offset) / every) * every + offset; time <= end; time += every) found.push({ value: time });
  return found;
}

// Refused requests are rare: a point each time rather than a line along the bottom.
function points(level, name) {
  const first = level.latest - level.step * (level.records.length - 1);
  return level[name].map((each, index) => {
    const x = first + index * level.step;
    const isGap = x + level.step <= started || (name === "refused" && each === 0);
    return { x, y: isGap ? NaN : each / level.step };
  });
}

function draw() {
  const level = history[span];
  if (!level || charts.length === 0) return;
  const first = level.latest - level.step * (level.records.length - 1);
  for (const chart of charts) {
    for (const set of chart.data.datasets) set.data = points(level, set.name);
    const { x } = chart.options.scales;
    Object.assign(x, { min: first, max: level.latest, afterBuildTicks: (axis) => { axis.ticks = ticks(level); } });
    x.ticks.callback = (value) => clock(value * 1000, false);
    chart.update("none");
  }
  for (const name of ["records", "messages"]) {
    const peak = `peak ${rate(Math.max(0, ...level[name]) / level.step)}`;
    byId(`${name}-peak`).textContent = peak;
    byId(`${name}-chart`).setAttribute("aria-label", `${name} a second, ${peak}`);
  }
}

// Canvas knows no style sheet, so it takes the colours of what is beside it.
export function recolour() {
  const quiet = colourOf(".quiet", "color");
  const line = colourOf(".panel", "borderTopColor");
  for (const chart of charts) {
    for (const set of chart.data.datasets) {
      set.borderColor = colourOf(`.swatch.${set.name}`, "backgroundColor");
      set.backgroundColor = colourOf(`.swatch.${set.name}`, "color");
      set.fill = set.name !== "refused";
      set.pointBackgroundColor = set.borderColor;
    }
    const { x, y } = chart.options.scales;
    x.ticks.color = y.ticks.color = quiet;
    y.grid.color = line;
    chart.update();
  }
}

async function refresh() {
  const state = await ask("/state");
  if (!state) return;
  history = state.history;
  started = state.started / 1000;
  draw();
}

// The latest whole second.
export function addSecond(time, [records, messages, refused]) {
  const level = history[0];
  const second = Math.floor(time / 1000) - 1;
  if (!level || second <= level.latest) return;
  for (; level.latest < second; ++level.latest) {
    for (const name of ["records", "messages", "refused"]) {
      level[name].shift();
      level[name].push(0);
    }
  }
  level.records[level.records.length - 1] = records;
  level.messages[level.messages.length - 1] = messages;
  level.refused[level.refused.length - 1] = refused;
  if (span === 0 && !document.hidden) draw();
}

export function startCharts() {
  Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
  Chart.defaults.font.size = 11;
  charts = [makeChart("records-chart", ["records"]), makeChart("messages-chart", ["messages", "refused"])];
  recolour();
  const buttons = [...document.querySelectorAll("[data-span]")];
  for (const button of buttons) {
    button.addEventListener("click", () => {
      span = Number(button.dataset.span);
      for (const each of buttons) each.setAttribute("aria-pressed", String(each === button));
      draw();
    });
  }
  refresh();
  setInterval(() => document.hidden || refresh(), 10_000);
}
