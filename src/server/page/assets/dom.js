// Elements and the forms of numbers and times. Text only ever becomes text nodes here, never markup.

export const byId = (id) => document.getElementById(id);

// element("td.number", "42", child...)
export function element(kind, ...content) {
  const [name, ...classes] = kind.split(".");
  const made = document.createElement(name);
  if (classes.length > 0) made.className = classes.join(" ");
  made.append(...content);
  return made;
}

const whole = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });
const tenth = new Intl.NumberFormat("en", { maximumFractionDigits: 1, minimumFractionDigits: 1 });
const exact = new Intl.NumberFormat("en", { maximumSignificantDigits: 8 });

export const count = (number) => whole.format(number);
export const figure = (number) => exact.format(number);
export const rate = (number) => (number !== 0 && number < 10 ? tenth : whole).format(number);
export const plural = (number, one, more) => `${count(number)} ${number === 1 ? one : more}`;

export function bytes(number) {
  if (number < 1000) return `${number} B`;
  for (const unit of ["kB", "MB", "GB"]) {
    number /= 1000;
    if (number < 999.5 || unit === "GB") return `${(number < 10 ? tenth : whole).format(number)} ${unit}`;
  }
}

export function duration(seconds) {
  if (seconds < 1) return `${seconds < 0.01 ? tenth.format(seconds * 1000) : whole.format(seconds * 1000)} ms`;
  return `${tenth.format(seconds)} s`;
}

const two = (number) => String(number).padStart(2, "0");

export function clock(milliseconds, withSeconds = true) {
  const time = new Date(milliseconds);
  const minutes = `${two(time.getHours())}:${two(time.getMinutes())}`;
  return withSeconds ? `${minutes}:${two(time.getSeconds())}` : minutes;
}

export const exactTime = (milliseconds) => new Date(milliseconds).toISOString().replace("T", " ");

export function ago(milliseconds, now) {
  const seconds = Math.max(0, Math.round((now - milliseconds) / 1000));
  if (seconds < 60) return `${seconds} s ago`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ago`;
  return seconds < 86400 ? `${Math.floor(seconds / 3600)} h ago` : exactTime(milliseconds).slice(0, 16);
}

// An answer of the server, or null if it has none (any more).
export async function ask(path) {
  try {
    const answer = await fetch(path, { cache: "no-store" });
    return answer.ok ? await answer.json() : null;
  } catch {
    return null;
  }
}
