// A picture of the flash to scale: what the package writes, what it erases, what stays. The table below the picture
// says the same in words.
import { count, el, foldedTable, foreign, size } from "./base.js";

const kSvg = "http://www.w3.org/2000/svg";
const kTop = 18; // the names stand above the bar
const kHeight = 34;
const kScale = 1024 * 1024 * 4; // between the marks of the scale

function draw(name, attributes, ...children) {
  const element = document.createElementNS(kSvg, name);
  for (const [key, value] of Object.entries(attributes)) {
    element.setAttribute(key, value);
  }
  element.append(...children);
  return element;
}

const percent = (part, whole) => `${((100 * part) / whole).toFixed(4)}%`;

function drawPartition(partition, start, total) {
  const box = draw("svg", {
    x: percent(start, total),
    y: kTop,
    width: percent(partition.size, total),
    height: kHeight,
  });
  const rect = (kind, from, length) =>
    box.append(
      draw("rect", {
        class: kind,
        x: percent(from, partition.size),
        y: 0,
        width: percent(length, partition.size),
        height: "100%",
      }),
    );
  rect(partition.stays ? "stays" : "erased", 0, partition.size);
  for (const part of partition.written) {
    const end = Math.min(part.offset + part.length, partition.size);
    rect("image", part.offset, Math.max(0, end - part.offset));
    rect("behind", end, Math.min(part.behind, partition.size - end));
  }
  box.append(draw("rect", { class: "border", x: 0, y: 0, width: "100%", height: "100%" }));
  return box;
}

// Names a partition only where there is room. The table names all of them.
function drawName(partition, start, total) {
  const share = partition.size / total;
  return share < 0.03
    ? []
    : [
        draw(
          "text",
          {
            class: share < 0.07 ? "tight" : "",
            x: percent(start + partition.size / 2, total),
            y: kTop - 6,
            "text-anchor": "middle",
            "font-weight": partition.stays ? 400 : 650,
          },
          partition.name,
        ),
      ];
}

function drawScale(total) {
  const scale = draw("g", { class: "scale" });
  for (let at = 0; at < total; at += kScale) {
    const x = percent(at, total);
    scale.append(
      draw("line", { x1: x, x2: x, y1: kTop + kHeight + 2, y2: kTop + kHeight + 6 }),
      draw(
        "text",
        { x, y: kTop + kHeight + 20, "text-anchor": at === 0 ? "start" : at > 0.96 * total ? "end" : "middle" },
        at === 0 ? "0" : `${at / 1024 / 1024} MiB`,
      ),
    );
  }
  return scale;
}

// The pattern of what stays. It differs from the others even without colours.
function pattern() {
  return draw(
    "defs",
    {},
    draw(
      "pattern",
      {
        id: "stays-pattern",
        width: 7,
        height: 7,
        patternUnits: "userSpaceOnUse",
        patternTransform: "rotate(45)",
      },
      draw("rect", { class: "pattern-ground", width: 7, height: 7 }),
      draw("rect", { class: "pattern-line", width: 1.5, height: 7 }),
    ),
  );
}

function fate(partition, entries) {
  if (partition.stays) {
    return ["stays as it is"];
  }
  const words = partition.written.map((part) =>
    el(
      "span",
      {},
      "image ",
      foreign(entries[part.entry]?.name ?? "?"),
      `, ${size(part.length)}`,
      part.behind > 0 ? `, then ${size(part.behind)} that follow it in the package` : "",
    ),
  );
  const end = Math.max(0, ...partition.written.map((part) => part.offset + part.length + part.behind));
  if (end < partition.size) {
    words.push(el("span", {}, `${size(partition.size - end)} erased`));
  }
  return words;
}

const kindOf = (partition) =>
  partition.stays ? "stays" : partition.written.some((part) => part.length > 0) ? "image" : "erased";

const deviceNumber = (partition) => Number(/\d+/.exec(partition.device)?.[0] ?? 0);

// The figure for a package's `map` and `entries`.
export function flashMap(unordered, entries) {
  const map = [...unordered].sort((a, b) => deviceNumber(a) - deviceNumber(b));
  const total = map.reduce((sum, partition) => sum + partition.size, 0);
  const written = map.filter((partition) => !partition.stays);
  const picture = draw(
    "svg",
    {
      class: "map",
      role: "img",
      "aria-label": `The flash, ${size(total)}. ${
        written.length === 0
          ? "Nothing is written."
          : `${count(written.length, "partition")} written: ${written.map((one) => one.name).join(", ")}.`
      }`,
    },
    pattern(),
  );
  let start = 0;
  for (const partition of map) {
    picture.append(drawPartition(partition, start, total), ...drawName(partition, start, total));
    start += partition.size;
  }
  picture.append(drawScale(total));

  const key = (kind, text) => el("li", {}, el("span", { class: "swatch", "data-kind": kind }), text);
  const rows = map.map((partition) =>
    el(
      "tr",
      {},
      el(
        "th",
        { scope: "row" },
        el("span", { class: "swatch", "data-kind": kindOf(partition) }),
        foreign(partition.name),
      ),
      el("td", {}, partition.device.replace(/^\/dev\//, "")),
      el("td", { class: "number" }, size(partition.size)),
      el("td", { class: "fate" }, fate(partition, entries)),
    ),
  );
  return el(
    "figure",
    { class: "flash" },
    el(
      "figcaption",
      {},
      "The flash, to scale. Only the camera knows the real sizes of its partitions; these are ",
      el("span", { class: "tag", "data-kind": "assumed" }, "assumed"),
      ".",
    ),
    picture,
    el(
      "ul",
      { class: "key", "aria-label": "Key" },
      key("image", "image"),
      key("behind", "written after an image"),
      key("erased", "erased"),
      key("stays", "stays"),
    ),
    foldedTable("Partition by partition", ["Partition", "Device", "Size", "What happens to it"], rows),
  );
}
