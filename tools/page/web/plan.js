// The dialog between choosing cameras and upgrading them: options, what will happen to each camera, and the start.
import { button, byId, count, el, foreign, setAttribute, setText, size, soon } from "./base.js";
import { ask, on, state, tell } from "./server.js";

// Name, title, explanation, attributes of the input. An empty field leaves the option to the server.
const kNumbers = [
  [
    "jobs",
    "Cameras at a time",
    "each counts from its connection until it is seen alive",
    { min: 1, max: 500, placeholder: 20 },
  ],
  ["canary", "Canaries", "the others start only after this many were seen alive", { min: 0, max: 500, placeholder: 0 }],
  [
    "max_failures",
    "Stop after failures",
    "start no more once this many have failed; 0: no limit",
    { min: 0, max: 500, placeholder: 0 },
  ],
  [
    "retry",
    "Further attempts",
    "at a camera that failed without accepting anything",
    { min: 0, max: 100, placeholder: 0 },
  ],
  [
    "expect_port",
    "Port of the application",
    "a camera counts as alive once it is open; empty: the port that the camera names",
    { min: 1, max: 65535 },
  ],
];

let request = null; // { path, devices } of the plan; null while the dialog is closed
let plan = null; // what the dialog shows
let stage = ""; // setup, planning, ready, stale, starting
let trouble = "";
let dismissed = null; // the plan that was cancelled here; the server keeps it

const dialog = () => byId("plan-dialog");

function options() {
  const chosen = {};
  for (const input of dialog().querySelectorAll("[name]")) {
    if (input.type === "checkbox" ? input.checked : input.value !== "") {
      chosen[input.name] =
        input.type === "checkbox" ? true : input.type === "number" ? Number(input.value) : input.value;
    }
  }
  return chosen;
}

function field(name, title, explanation, attributes) {
  return el(
    "div",
    { class: "field" },
    el("label", { for: `option-${name}` }, title),
    el("input", { id: `option-${name}`, name, "aria-describedby": `about-${name}`, oninput: changed, ...attributes }),
    el("span", { id: `about-${name}`, class: "hint" }, explanation),
  );
}

function box(name, title, explanation) {
  return el(
    "label",
    { class: "box-label" },
    el("input", { type: "checkbox", name, onchange: changed }),
    el("span", {}, `${title} `, el("span", { class: "hint" }, `(${explanation})`)),
  );
}

function optionFields() {
  const bad = state.package && !state.package.acceptable;
  return el(
    "details",
    { class: "options", id: "plan-options", open: bad },
    el("summary", {}, "Options"),
    el(
      "div",
      { class: "fields" },
      kNumbers.map(([name, title, explanation, attributes]) =>
        field(name, title, explanation, { type: "number", inputmode: "numeric", ...attributes }),
      ),
      field("expect_version", "Firmware afterwards", "a camera counts as done only if a search reply names it", {
        type: "text",
        autocomplete: "off",
        spellcheck: "false",
      }),
    ),
    box("again", "Also upgrade cameras that already have this package", "in a new journal"),
    bad
      ? el(
          "fieldset",
          { class: "overrides" },
          el("legend", {}, "Override"),
          box("force", "Send the package in spite of its errors", "same as --force"),
        )
      : null,
  );
}

function memberRow(member) {
  return el(
    "tr",
    { role: "row" },
    el(
      "th",
      { role: "rowheader", scope: "row", class: "id" },
      foreign(member.device, { class: "code" }),
      el("span", { class: "aside" }, foreign(member.address ?? "")),
    ),
    el("td", { role: "cell", "data-label": "Firmware now" }, foreign(member.firmware ?? "")),
    el(
      "td",
      { role: "cell", "data-label": "What will happen" },
      el("span", { class: "intention", "data-kind": member.will_start ? "good" : "bad" }, foreign(member.intention)),
    ),
  );
}

function planTable() {
  const starting = plan.devices.filter((member) => member.will_start).length;
  const others = plan.devices.length - starting;
  return [
    el(
      "p",
      {},
      el("strong", {}, `${count(starting, "camera")} will take part`),
      others > 0 ? `, ${others} will not.` : ".",
    ),
    plan.warnings.length > 0
      ? el(
          "ul",
          { class: "trouble" },
          plan.warnings.map((text) => el("li", { "data-kind": "warn" }, foreign(text))),
        )
      : null,
    el(
      "div",
      { class: "scroll", tabindex: 0, role: "region", "aria-label": "Plan" },
      el(
        "table",
        { class: "run plan", role: "table" },
        el(
          "thead",
          { role: "rowgroup" },
          el(
            "tr",
            { role: "row" },
            ["Camera", "Firmware now", "What will happen"].map((text) =>
              el("th", { role: "columnheader", scope: "col" }, text),
            ),
          ),
        ),
        el("tbody", { role: "rowgroup" }, plan.devices.map(memberRow)),
      ),
    ),
    el(
      "p",
      { class: "hint" },
      "Each camera erases and rewrites its flash, then restarts. Do not switch a camera off " +
        "meanwhile. You may close this page, but kvtool must keep running.",
    ),
  ];
}

const kStages = {
  setup: () =>
    "The package has errors: the camera would refuse something. Nothing is sent unless you override this below.",
  planning: () => "Looking for the cameras and asking each for its type. Nothing is sent to them …",
  ready: () => "",
  stale: () => "Something has changed: plan again to see what will happen.",
  starting: () => "Starting …",
};

function paint() {
  const what = byId("plan-what");
  const status = byId("plan-status");
  const lost = state.connection !== "live" ? "There is no connection to kvtool. " : "";
  setText(status, lost + (trouble || kStages[stage]()));
  setAttribute(status, "data-kind", lost || trouble || stage === "setup" ? "bad" : "");
  byId("plan-busy").hidden = stage !== "planning" && stage !== "starting";
  if (what.plan !== plan) {
    what.plan = plan;
    what.replaceChildren(...(plan ? planTable().filter(Boolean) : []));
  }
  what.classList.toggle("old", stage !== "ready");
  const starting = plan?.devices.filter((member) => member.will_start).length ?? 0;
  const go = byId("plan-go");
  setText(go, stage === "ready" ? `Start with ${count(starting, "camera")}` : plan ? "Plan again" : "Plan");
  setAttribute(go, "aria-disabled", obstacle(starting) ? "true" : null);
}

function obstacle(starting) {
  const forced = dialog().querySelector("[name=force]")?.checked;
  return (
    state.connection !== "live" ||
    stage === "planning" ||
    stage === "starting" ||
    (stage === "ready" && starting === 0) ||
    (stage === "setup" && !forced)
  );
}

function enter(next, problem = "") {
  stage = next;
  trouble = problem;
  paint();
}

function changed() {
  if (stage !== "planning" && stage !== "starting") {
    enter(plan ? "stale" : state.package?.acceptable === false ? "setup" : "stale");
  }
}

async function makePlan() {
  const mine = request;
  enter("planning");
  try {
    const made = await ask("POST", request.path, {
      ...(request.devices && { devices: request.devices }),
      ...options(),
    });
    if (mine === request) {
      plan = state.plan = made; // the event with it may come later
      enter("ready");
    }
  } catch (error) {
    if (mine === request) {
      enter("stale", error.message);
    }
  }
  // A second press of the same key must not start what nobody has read.
  if (mine === request && request && document.activeElement === byId("plan-go")) {
    byId("plan-title").focus();
  }
}

async function startRun() {
  enter("starting");
  try {
    state.run = await ask("POST", "/api/run", { plan: plan.id });
    close();
    tell("run", state.run);
    // With the next frame the section is there.
    soon(() => byId("run-title").focus());
  } catch (error) {
    enter("stale", error.message);
  }
}

function go() {
  if (byId("plan-go").getAttribute("aria-disabled") === "true") {
    return;
  }
  if (stage === "ready") {
    startRun();
  } else if (dialog().querySelector("form").reportValidity()) {
    makePlan();
  }
}

function close() {
  request = null;
  dialog().close();
}

function cancel() {
  dismissed = plan?.id;
  close();
  tell("plan");
}

function open(what, ready) {
  request = what;
  plan = ready;
  trouble = "";
  const file = state.package ?? ready?.package;
  dialog().replaceChildren(
    el(
      "form",
      {
        method: "dialog",
        onsubmit: (event) => {
          event.preventDefault();
          go();
        },
      },
      el("h2", { id: "plan-title", tabindex: -1, autofocus: true }, "Upgrade plan"),
      file
        ? el(
            "p",
            { class: "run-line" },
            foreign(file.file, { class: "file" }),
            ` · ${size(file.size)} · MD5 `,
            el("span", { class: "code" }, file.md5),
          )
        : null,
      el("p", { id: "plan-status", class: "status", role: "status" }),
      el("progress", { id: "plan-busy", "aria-label": "Planning" }),
      el("div", { id: "plan-what" }),
      optionFields(),
      el(
        "div",
        { class: "actions" },
        button("Cancel", cancel),
        el("button", { type: "submit", id: "plan-go", class: "main" }),
      ),
    ),
  );
  for (const [name, value] of Object.entries(ready?.options ?? {})) {
    const input = dialog().querySelector(`[name=${name}]`);
    if (input && value !== null) {
      input[input.type === "checkbox" ? "checked" : "value"] = value;
    }
  }
  dialog().showModal();
}

// Plans an upgrade of these cameras and shows the plan.
export function openPlan(devices) {
  open({ path: "/api/plan", devices }, null);
  if (state.package.acceptable) {
    makePlan();
  } else {
    enter("setup");
  }
}

// Plans another attempt at cameras of the last run: `retry`, those that failed and may be sent the package again;
// `resume`, all that are not done.
export function openAgain(which) {
  open({ path: `/api/run/${which}` }, null);
  if (state.package?.acceptable === false) {
    enter("setup");
  } else {
    makePlan();
  }
}

// The plan of the server, if it is worth offering.
export const offeredPlan = () => (state.plan?.id === dismissed ? null : state.plan);

// Shows the plan that the server has.
export function reviewPlan() {
  open({ path: "/api/plan", devices: state.plan.devices.map((member) => member.device) }, state.plan);
  enter("ready");
}

export function startPlan() {
  dialog().addEventListener("cancel", (event) => {
    event.preventDefault();
    cancel();
  });
  on("state plan run connection", () => {
    if (!request) {
      return;
    }
    if (state.run && state.run.state !== "ended" && stage !== "starting") {
      close(); // another window has started it
    } else if (stage === "ready" && state.plan?.id !== plan.id) {
      enter("stale");
    } else {
      paint();
    }
  });
}
