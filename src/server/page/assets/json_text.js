// Lays out the text of a JSON value without reading its numbers, which may be longer than the browser's.
import { element } from "./dom.js";

const token = /"(?:[^"\\]|\\.)*"|[{}[\],:]|[^\s{}[\],:"]+|"[^]*$/g;

function kindOf(text, isKey) {
  if (isKey) return "json-key";
  if (text[0] === '"') return "json-text";
  return /^[-\d]/.test(text) ? "json-number" : "json-word";
}

function isKeyBefore(tokens, index) {
  return tokens[index][0] === '"' && tokens[index + 1] === ":";
}

// One line for the list.
export function oneLine(text, limit) {
  const tokens = text.slice(0, limit).match(token) ?? [];
  const line = document.createDocumentFragment();
  tokens.forEach((each, index) => {
    if (each === "," || each === ":") line.append(`${each} `);
    else if ("{}[]".includes(each)) line.append(each);
    else line.append(element(`span.${kindOf(each, isKeyBefore(tokens, index))}`, each));
  });
  if (text.length > limit) line.append("…");
  return line;
}

// The whole, a member a line. Of a text that was cut, as far as it goes.
export function laidOut(text) {
  const tokens = text.match(token) ?? [];
  const lines = document.createDocumentFragment();
  let depth = 0;
  const newLine = () => lines.append(`\n${"  ".repeat(Math.min(depth, 40))}`);
  tokens.forEach((each, index) => {
    const next = tokens[index + 1];
    if (each === "{" || each === "[") {
      lines.append(each);
      ++depth;
      if (next !== "}" && next !== "]") newLine();
    } else if (each === "}" || each === "]") {
      --depth;
      if (tokens[index - 1] !== "{" && tokens[index - 1] !== "[") newLine();
      lines.append(each);
    } else if (each === ",") {
      lines.append(each);
      newLine();
    } else if (each === ":") {
      lines.append(": ");
    } else {
      lines.append(element(`span.${kindOf(each, isKeyBefore(tokens, index))}`, each));
    }
  });
  return lines;
}
