// Building blocks of the page: elements, texts for numbers and times, repainting, announcements.

// Builds an element. Strings become text nodes, so nothing that a device or a package says is read as HTML. An
// attribute that begins with "on" is a listener. One that is true has no value. One that is false, null or undefined is
// left out.
export function el(name, attributes = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (key.startsWith("on")) {
      element.addEventListener(key.slice(2), value);
    } else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(key, value === true ? "" : value);
    }
  }
  element.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined));
  return element;
}

export const byId = (id) => document.getElementById(id);

// A text that comes from outside. Its direction cannot change the order of the text around it.
export const foreign = (text, attributes) => el("bdi", attributes, text);

// Replaces characters that are invisible or change the direction. kvtool makes the texts that it sends safe itself.
// This is for the names of local files.
export const visible = (text) => text.replace(/[\p{C}\p{Zl}\p{Zp}]/gu, "\uFFFD");

export function setText(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}

export function setAttribute(element, name, value) {
  if (value === null || value === false) {
    element.removeAttribute(name);
  } else if (element.getAttribute(name) !== String(value)) {
    element.setAttribute(name, value);
  }
}

export const button = (text, onclick, attributes = {}) =>
  el("button", { type: "button", onclick, ...attributes }, text);

// A table that the reader unfolds. An empty heading is a plain cell.
export const foldedTable = (summary, headings, rows) =>
  el(
    "details",
    {},
    el("summary", {}, summary),
    el(
      "div",
      { class: "wide" },
      el(
        "table",
        { class: "plain" },
        el(
          "thead",
          {},
          el(
            "tr",
            {},
            headings.map((text) => (text ? el("th", { scope: "col" }, text) : el("td"))),
          ),
        ),
        el("tbody", {}, rows),
      ),
    ),
  );

export const pill = (kind, text) => el("span", { class: "pill", "data-kind": kind }, text);

export function size(bytes) {
  if (bytes < 1024) {
    return `${bytes} bytes`;
  }
  const unit = Math.min(Math.floor(Math.log2(bytes) / 10), 3);
  return `${(bytes / 1024 ** unit).toFixed(1)} ${["", "KiB", "MiB", "GiB"][unit]}`;
}

export function duration(seconds) {
  const whole = Math.max(0, Math.ceil(seconds));
  return whole < 100 ? `${whole} s` : `${Math.floor(whole / 60)} min ${whole % 60} s`;
}

export const count = (number, one, many = `${one}s`) => `${number} ${number === 1 ? one : many}`;

export const since = (time) => (Date.now() - Date.parse(time)) / 1000;

// A time of kvtool (UTC) in the local zone, with the date unless it is today's.
export function clock(time) {
  const date = new Date(time);
  const pad = (number) => String(number).padStart(2, "0");
  const day =
    date.toDateString() === new Date().toDateString()
      ? ""
      : `${date.getFullYear()}-${pad(date.getMonth() + 1)}-${pad(date.getDate())} `;
  return `${day}${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}`;
}

export const timeElement = (time) => el("time", { datetime: time, title: time }, clock(time));

// Calls each function once with the next frame, however often it is asked for until then. A hidden page has no frames,
// so there it uses a timer.
const waiting = new Set();
export function soon(paint) {
  if (waiting.size === 0) {
    if (document.hidden) {
      setTimeout(paintAll, 500);
    } else {
      requestAnimationFrame(paintAll);
    }
  }
  waiting.add(paint);
}
function paintAll() {
  const paints = [...waiting];
  waiting.clear();
  paints.forEach((paint) => paint());
}

// Announces a text to screen readers, at most every three seconds. A later text on the same topic replaces one that is
// still waiting.
const untold = new Map();
let nextTold = null;
export function announce(topic, text) {
  untold.set(topic, text);
  nextTold ??= setTimeout(() => {
    byId("live").textContent = [...untold.values()].join(" ");
    untold.clear();
    nextTold = null;
  }, 3000);
}

// A message that stays at the top of the page until a call with an empty text removes it.
export function banner(id, text, kind = "error", ...actions) {
  const old = byId(`banner-${id}`);
  if (!text) {
    old?.remove();
  } else if (old?.firstChild.textContent !== text) {
    const fresh = el("div", { id: `banner-${id}`, class: "banner", "data-kind": kind }, el("p", {}, text), actions);
    if (old) {
      old.replaceWith(fresh);
    } else {
      byId("banners").append(fresh);
    }
  }
}

// A message about something that went wrong. The reader may dismiss it.
export function complain(id, text) {
  banner(
    id,
    text,
    "error",
    button("Dismiss", () => banner(id, ""), { class: "quiet" }),
  );
}
