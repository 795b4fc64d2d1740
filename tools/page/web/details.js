// The pane of one camera: what it says about itself, the upgrade under way, its history. It is beside the list where
// there is room, otherwise over the page.
import { button, byId, count, duration, el, foreign, pill, soon, timeElement } from "./base.js";
import { adviceFor, knownLists, phaseText } from "./run.js";
import { ask, on, state } from "./server.js";

const kFields = [
  ["mac", "MAC address"],
  ["address", "Address it names"],
  ["senders", "Answers from"],
  ["firmware", "Firmware"],
  ["state", "State"],
  ["kind", "Kind"],
  ["type", "Type"],
  ["netmask", "Netmask"],
  ["gateway", "Gateway"],
  ["dns", "DNS"],
  ["command_port", "Command port"],
  ["rtsp_port", "RTSP port"],
  ["http_port", "HTTP port"],
  ["account", "Account"],
  ["p2p_serial", "P2P serial"],
];

const besides = matchMedia("(min-width: 70rem)");
let shown = null; // the id of the camera
let history = null; // { journals } or { error }; null while it is asked for
let painted = ""; // what the pane shows, as JSON
let opener = null;

const pane = () => byId("details");

function factsOf(device) {
  const facts = kFields
    .filter(([key]) => String(device[key] ?? "") !== "")
    .map(([key, title]) =>
      el(
        "div",
        {},
        el("dt", {}, title),
        el("dd", {}, foreign(Array.isArray(device[key]) ? device[key].join(", ") : String(device[key]))),
      ),
    );
  for (const [key, title] of [
    ["first_seen", "First seen"],
    ["last_seen", "Last seen"],
  ]) {
    facts.push(
      el(
        "div",
        {},
        el("dt", {}, title),
        el("dd", {}, key === "last_seen" && device.present ? "now" : timeElement(device[key])),
      ),
    );
  }
  return el("dl", { class: "facts" }, facts);
}

function phasesOf(phases) {
  return phases.length === 0
    ? null
    : el("p", { class: "phases" }, phases.map((phase) => `${phase.name} ${duration(phase.seconds)}`).join(" · "));
}

function upgradeOf(member) {
  return [
    el("h3", {}, "This upgrade"),
    el(
      "p",
      {},
      pill(member.state === "done" ? "good" : member.state === "failed" ? "bad" : "busy", phaseText(member)),
      " ",
      member.text ? foreign(member.text) : null,
    ),
    adviceFor(member) ? el("p", { class: "advice" }, adviceFor(member)) : null,
    phasesOf(member.phases ?? []),
    knownLists(member),
  ];
}

function historyItem({ member, states, package: what, error }) {
  if (error) {
    return el("li", {}, el("p", { class: "trouble" }, foreign(error)));
  }
  const kind = { done: "good", failed: "bad" }[member.state] ?? "quiet";
  return el(
    "li",
    {},
    el(
      "p",
      {},
      states.length > 0 ? [timeElement(states.at(-1).time), " "] : null,
      pill(kind, phaseText(member)),
      " ",
      foreign(what.file),
    ),
    member.text ? el("p", {}, foreign(member.text)) : null,
    el("p", { class: "phases" }, count(member.attempts, "attempt")),
    phasesOf(member.phases),
  );
}

function historyList() {
  if (!history) {
    return el("p", { class: "hint" }, "Reading the journal …");
  }
  if (history.error) {
    return el("p", { class: "trouble" }, history.error);
  }
  return history.journals.length === 0
    ? el("p", { class: "hint" }, "The journal has no upgrade of this camera.")
    : el("ol", { class: "history" }, history.journals.map(historyItem));
}

function paint() {
  if (!shown) {
    return;
  }
  const device = state.devices.get(shown);
  const member = state.members.get(shown);
  const body = pane().querySelector(".body");
  // Without a change, the reader's selection and scroll position stay.
  const key = JSON.stringify([
    device,
    member && { ...member, bytes_acknowledged: 0, rate: 0, seconds_left: 0 },
    history,
  ]);
  if (painted !== key) {
    painted = key;
    body.replaceChildren(
      ...[
        member ? upgradeOf(member) : null,
        el("h3", {}, "What it says about itself"),
        device ? factsOf(device) : el("p", { class: "hint" }, "It has not answered a search since kvtool was started."),
        el("h3", {}, "History"),
        historyList(),
      ]
        .flat(Infinity)
        .filter(Boolean),
    );
  }
}

async function askHistory() {
  const id = shown;
  let answer;
  try {
    answer = await ask("GET", `/api/history?device=${encodeURIComponent(id)}`);
  } catch (error) {
    answer = { error: error.message };
  }
  if (id === shown) {
    history = answer;
    soon(paint);
  }
}

// Opens the dialog beside the list or over the page, depending on the width.
function place() {
  pane().close();
  if (besides.matches) {
    pane().show();
  } else {
    pane().showModal();
  }
}

export function openDetails(id) {
  opener = pane().open ? opener : document.activeElement;
  shown = id;
  history = null;
  painted = "";
  pane().replaceChildren(
    el(
      "div",
      { class: "bar" },
      el("h2", { id: "details-title", tabindex: -1 }, foreign(id, { class: "code" })),
      button("Close", close, { class: "quiet", "aria-label": "Close the details" }),
    ),
    el("div", { class: "body" }),
  );
  document.body.classList.add("with-details");
  paint();
  place();
  byId("details-title").focus();
  askHistory();
}

function close() {
  shown = null;
  pane().close();
  document.body.classList.remove("with-details");
  if (opener?.isConnected) {
    opener.focus();
  }
}

export function startDetails() {
  pane().addEventListener("cancel", (event) => {
    event.preventDefault();
    close();
  });
  pane().addEventListener("keydown", (event) => event.key === "Escape" && close());
  besides.addEventListener("change", () => shown && place());
  on("device state run", () => soon(paint));
  on("member", (member) => {
    soon(paint);
    if (member.device === shown && (member.state === "done" || member.state === "failed")) {
      askHistory();
    }
  });
  on("state", () => shown && askHistory());
}
