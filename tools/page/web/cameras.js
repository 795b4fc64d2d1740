// The list of cameras. Rows are kept and changed in place, so the list stays fast with hundreds of cameras, and focus
// and selection stay where they are.
import { announce, byId, clock, count, el, foreign, pill, setAttribute, setText, since, soon } from "./base.js";
import { openDetails } from "./details.js";
import { openPlan } from "./plan.js";
import { phaseText } from "./run.js";
import { on, state } from "./server.js";

const kColumns = [
  ["mac", "MAC address"],
  ["address", "Address"],
  ["firmware", "Firmware"],
  ["state", "State"],
  ["seen", "Last seen"],
];
const kSortKeys = {
  mac: (device) => device.mac,
  address: (device) =>
    address(device)
      .split(".")
      .map((part) => part.padStart(3, "0"))
      .join("."),
  firmware: (device) => device.firmware,
  state: (device) => stateOf(device),
  seen: (device) => (device.present ? "now" : device.last_seen), // digits sort before letters
};

const rows = new Map(); // by id: { tr, box, name, address, firmware, state, seen }
const selected = new Set(JSON.parse(sessionStorage.getItem("selected") ?? "[]"));
let sort = { by: "mac", down: false };
let visibleIds = []; // those in the table, in its order
let current = null; // the id whose row the keyboard is in

const address = (device) => device.senders?.[0] ?? device.address;
const stateOf = (device) => (device.present ? device.state : "gone");
const kStateKinds = { recovery: "good", conflict: "bad", gone: "quiet" };

function makeRow(id) {
  const box = el("input", { type: "checkbox", tabindex: -1, "aria-label": `Select ${id}` });
  box.addEventListener("change", () => select([id], box.checked));
  const name = el(
    "button",
    { type: "button", class: "link code", tabindex: -1, onclick: () => openDetails(id) },
    foreign(id),
  );
  const cell = (column, ...children) => el("td", { role: "cell", "data-label": column }, children);
  const row = {
    box,
    name,
    address: foreign(""),
    firmware: foreign(""),
    state: cell("State"),
    seen: cell("Last seen"),
  };
  row.tr = el(
    "tr",
    { role: "row", "data-id": id },
    el("td", { role: "cell", class: "box" }, box),
    el("th", { role: "rowheader", scope: "row", class: "id" }, name),
    cell("Address", row.address),
    cell("Firmware", row.firmware),
    row.state,
    row.seen,
  );
  rows.set(id, row);
  return row;
}

function seenText(device) {
  const minutes = Math.floor(since(device.last_seen) / 60);
  return device.present
    ? "now"
    : minutes < 1
      ? "< 1 min ago"
      : minutes < 60
        ? `${minutes} min ago`
        : clock(device.last_seen);
}

function paintRow(device) {
  const row = rows.get(device.id) ?? makeRow(device.id);
  setText(row.address, address(device));
  setText(row.firmware, device.firmware);
  const member = state.members.get(device.id);
  const words = [[kStateKinds[stateOf(device)] ?? "quiet", stateOf(device)]];
  if (member) {
    words.push([member.state === "done" ? "good" : member.state === "failed" ? "bad" : "busy", phaseText(member)]);
  }
  const key = JSON.stringify(words);
  if (row.stateKey !== key) {
    row.stateKey = key;
    row.state.replaceChildren(...words.map(([kind, text]) => pill(kind, text)));
  }
  setText(row.seen, seenText(device));
  setAttribute(row.seen, "title", device.present ? null : device.last_seen);
  row.tr.classList.toggle("gone", !device.present);
}

function matches(device, words) {
  const text = [device.mac, address(device), device.firmware, stateOf(device)].join(" ").toLowerCase();
  return words.every((word) => text.includes(word));
}

// Puts the rows into the order of the table, moving as few as possible.
function arrange() {
  const words = byId("filter").value.toLowerCase().split(/\s+/).filter(Boolean);
  const key = kSortKeys[sort.by];
  const listed = [...state.devices.values()]
    .filter((device) => matches(device, words))
    .map((device) => ({ id: device.id, key: key(device) }));
  const compare = (a, b) => (a.key < b.key ? -1 : a.key > b.key ? 1 : a.id < b.id ? -1 : 1);
  listed.sort(sort.down ? (a, b) => compare(b, a) : compare);
  visibleIds = listed.map((one) => one.id);
  const body = byId("camera-rows");
  const keep = new Set(visibleIds);
  const focused = document.activeElement;
  for (const [id, row] of rows) {
    if (!keep.has(id)) {
      row.tr.remove();
      if (!state.devices.has(id)) {
        rows.delete(id);
      }
    }
  }
  let next = body.firstChild;
  for (const id of visibleIds) {
    const { tr } = rows.get(id);
    if (tr === next) {
      next = next.nextSibling;
    } else {
      body.insertBefore(tr, next);
    }
  }
  if (focused !== document.activeElement && focused.isConnected) {
    focused.focus({ preventScroll: true }); // a row that moves loses the focus
  }
  setCurrent(keep.has(current) ? current : (visibleIds[0] ?? null));
}

// One row at a time can be reached with Tab; the arrow keys move on from there.
function setCurrent(id) {
  for (const [which, index] of [
    [current, -1],
    [id, 0],
  ]) {
    const row = rows.get(which);
    if (row) {
      row.box.tabIndex = row.name.tabIndex = index;
    }
  }
  current = id;
}

function select(ids, yes) {
  ids.forEach((id) => (yes ? selected.add(id) : selected.delete(id)));
  sessionStorage.setItem("selected", JSON.stringify([...selected]));
  soon(paintSelection);
  announce("selection", `${selected.size} selected.`);
}

const chosen = () => [...selected].filter((id) => state.devices.has(id));

// What keeps a plan from being made now, in words; empty if nothing does.
function obstacle() {
  const running = state.run && state.run.state !== "ended";
  return state.connection !== "live"
    ? "There is no connection to kvtool."
    : running
      ? "An upgrade is under way. The next one can be planned when it has ended."
      : !state.package
        ? "Choose a package first."
        : state.server.trusted_key && !state.package.signature
          ? "The package is not signed by the trusted key."
          : chosen().length === 0
            ? "Select cameras to upgrade."
            : "";
}

function paintSelection() {
  for (const [id, row] of rows) {
    row.box.checked = selected.has(id);
    row.tr.classList.toggle("selected", selected.has(id));
  }
  const ids = chosen();
  const seen = visibleIds.filter((id) => selected.has(id)).length;
  const all = byId("select-all");
  all.checked = visibleIds.length > 0 && seen === visibleIds.length;
  all.indeterminate = seen > 0 && seen < visibleIds.length;
  const why = obstacle();
  setText(byId("plan"), ids.length > 0 ? `Plan upgrade of ${count(ids.length, "camera")} …` : "Plan upgrade …");
  // A disabled button could not be reached with the keyboard, and its reason would not be read.
  setAttribute(byId("plan"), "aria-disabled", why ? "true" : null);
  setText(
    byId("plan-why"),
    why || (ids.length > seen ? `The filter hides ${count(ids.length - seen, "selected camera")}.` : ""),
  );
}

function paintSearch() {
  const { search } = state;
  if (!search) {
    return;
  }
  const found = [...state.devices.values()].filter((device) => device.present).length;
  const gone = state.devices.size - found;
  setText(
    byId("search"),
    `${found} found${gone > 0 ? `, ${gone} gone` : ""}. ` +
      (search.interfaces.length > 0 ? `Searching on ${interfaces(search)}.` : "No network to search on."),
  );
  const trouble = [
    ...search.problems.map((text) => ["bad", text]),
    ...search.conflicts.map((text) => ["warn", text]),
    ...search.malformed.map((one) => ["warn", `${one.what} (${count(one.count, "reply", "replies")})`]),
  ];
  const key = JSON.stringify(trouble);
  const list = byId("search-problems");
  if (list.dataset.key !== key) {
    list.dataset.key = key;
    list.replaceChildren(
      ...(trouble.length > 0
        ? [
            el(
              "ul",
              { class: "trouble" },
              trouble.map(([kind, text]) => el("li", { "data-kind": kind }, foreign(text))),
            ),
          ]
        : []),
    );
  }
  paintEmpty(search);
}

const interfaces = (search) => search.interfaces.map((one) => `${one.name} (${one.address})`).join(", ");

function paintEmpty(search) {
  const nothing = state.devices.size === 0;
  byId("camera-table").hidden = byId("camera-keys").hidden = nothing || visibleIds.length === 0;
  const place = byId("no-cameras");
  const key = nothing
    ? `none ${interfaces(search)} ${search.searches_sent > 0}`
    : visibleIds.length === 0
      ? "filtered"
      : "";
  if (place.dataset.key === key) {
    return;
  }
  place.dataset.key = key;
  place.replaceChildren();
  if (key === "filtered") {
    place.append(el("p", { class: "empty" }, "No camera matches the filter."));
  } else if (nothing) {
    place.append(
      el(
        "div",
        { class: "empty" },
        el("p", {}, el("strong", {}, "No camera has answered yet."), " kvtool searches again every two seconds."),
        el(
          "ul",
          {},
          el(
            "li",
            {},
            search.interfaces.length > 0
              ? `This computer searches on ${interfaces(search)}. Is that the network of the cameras?`
              : "This computer has no network with an address. Join the service network of the cameras.",
          ),
          el(
            "li",
            {},
            "A camera answers only in recovery mode. It enters recovery mode some minutes after its application " +
              "has fallen silent for good.",
          ),
          el("li", {}, "The camera must have joined the same network: look at the access point's list of clients."),
          el("li", {}, "A firewall on this computer must let searches to UDP port 6789, and the answers, through."),
        ),
      ),
    );
  }
}

function paintDevices() {
  state.devices.forEach(paintRow);
  arrange();
  paintSearch();
  paintSelection();
}

function makeHead() {
  const all = el("input", { type: "checkbox", id: "select-all", "aria-label": "Select all cameras shown" });
  all.addEventListener("change", () => select(visibleIds, all.checked));
  const heads = kColumns.map(([key, title]) =>
    el(
      "th",
      { role: "columnheader", scope: "col", "data-sort": key },
      el("button", { type: "button", class: "sort", onclick: () => sortBy(key) }, title),
    ),
  );
  byId("camera-head").append(el("th", { role: "columnheader", class: "box", scope: "col" }, all), ...heads);
  markSort();
}

function sortBy(key) {
  sort = { by: key, down: sort.by === key && !sort.down };
  markSort();
  paintDevices(); // a new camera may have no row yet
}

function markSort() {
  for (const head of byId("camera-head").querySelectorAll("[data-sort]")) {
    setAttribute(head, "aria-sort", head.dataset.sort !== sort.by ? null : sort.down ? "descending" : "ascending");
  }
}

function onKey(event) {
  const at = visibleIds.indexOf(current);
  const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 10, PageUp: -10, Home: -Infinity, End: Infinity };
  const row = rows.get(current);
  if ((event.ctrlKey || event.metaKey) && event.key === "a") {
    select(visibleIds, true);
  } else if (event.key in steps && !event.ctrlKey && !event.altKey) {
    const id = visibleIds[Math.min(Math.max(at + steps[event.key], 0), visibleIds.length - 1)];
    const column = document.activeElement === row?.name ? "name" : "box";
    setCurrent(id);
    rows.get(id)[column].focus();
  } else if (event.key === "Enter" && document.activeElement === row?.box) {
    openDetails(current);
  } else if (event.key === " " && document.activeElement === row?.name) {
    select([current], !selected.has(current));
  } else {
    return;
  }
  event.preventDefault();
}

export function startCameras() {
  makeHead();
  const body = byId("camera-rows");
  body.addEventListener("keydown", onKey);
  body.addEventListener("focusin", (event) => setCurrent(event.target.closest("tr").dataset.id));
  byId("filter").addEventListener("input", () => {
    soon(paintDevices);
    soon(() => announce("filter", `${count(visibleIds.length, "camera")} shown.`));
  });
  byId("plan").addEventListener("click", () => !obstacle() && openPlan(chosen()));
  let known = 0;
  on("state device", () => {
    soon(paintDevices);
    if (state.devices.size !== known) {
      known = state.devices.size;
      announce("cameras", `${count(known, "camera")} found.`);
    }
  });
  on("member", (member) => state.devices.has(member.device) && soon(paintDevices));
  on("search", () => soon(paintSearch));
  on("package run connection plan", () => soon(paintSelection));
  setInterval(() => soon(paintDevices), 20000); // "min ago" grows
}
