// The upgrade: one row for each camera, the total, and what can be done about it.
import {
  announce,
  banner,
  button,
  byId,
  clock,
  complain,
  count,
  duration,
  el,
  foreign,
  pill,
  setAttribute,
  setText,
  since,
  size,
  soon,
} from "./base.js";
import { openDetails } from "./details.js";
import { offeredPlan, openAgain, reviewPlan } from "./plan.js";
import { ask, on, state } from "./server.js";

const kPhases = {
  planned: "waiting",
  connecting: "connecting",
  uploading: "uploading",
  finishing: "verifying",
  accepted: "following",
  looking: "looking",
  done: "done",
  failed: "failed",
};
const kGroups = {
  all: ["All", () => true],
  busy: ["Under way", (member) => isBusy(member)],
  waiting: ["Waiting", (member) => member.state === "planned"],
  failed: ["Failed", (member) => member.state === "failed"],
  done: ["Done", (member) => member.state === "done"],
};
// What to do after each exit code that `kvtool upgrade` would have had.
const kAdvice = {
  3:
    "Nothing was sent. If the types differ, use the package for this model. If two cameras share an address, " +
    "separate them.",
  4: "Nothing was sent. Check that the camera is switched on, in recovery mode and in this network, then retry.",
  5:
    "If the whole package was sent, leave the camera switched on: it may be writing its flash. Otherwise switch it " +
    "off and on. If this happens again, note its firmware and look at its log.",
  6: "The camera has flashed nothing and waits in recovery mode. Check the radio link, then retry.",
  7: "Wait until the other upgrade of this camera has ended, then retry.",
  8: "The camera has probably rejected the package and restarts. Wait until it appears again, then look at it again.",
  9:
    "It may have been flashed. This is normal if the camera has no application; otherwise check its flash and its " +
    "application before you upgrade it again.",
  10: "Leave the camera switched on: it may still be writing its flash.",
  11: "Nothing was flashed. Check the radio link, then retry.",
  12: "It has restarted, but its application was not seen. Wait some minutes, then look at the camera.",
};

const rows = new Map(); // by device
let group = "all";
let notes = [];

const isBusy = (member) => !["planned", "done", "failed"].includes(member.state);
const kindOf = (member) =>
  member.state === "done" ? "good" : member.state === "failed" ? "bad" : member.state === "planned" ? "quiet" : "busy";

export const phaseText = (member) => kPhases[member.state] ?? member.state;

export const adviceFor = (member) => (member.state === "failed" ? kAdvice[member.code] : null);

// What was seen of a camera, and what is only concluded.
export function knownLists(member, last = false) {
  const heard = /^(observed|assumed): (.*)/s.exec(member.last ?? "");
  return ["observed", "assumed"].map((kind) => {
    const all = member[kind]?.length > 0 || heard?.[1] !== kind ? (member[kind] ?? []) : [heard[2]];
    const texts = last ? all.slice(-1) : all;
    return texts.length === 0
      ? null
      : el(
          "div",
          { class: "known" },
          el("span", { class: "tag", "data-kind": kind }, kind),
          last
            ? foreign(texts[0])
            : el(
                "ul",
                {},
                texts.map((text) => el("li", {}, foreign(text))),
              ),
        );
  });
}

function makeRow(id) {
  const cell = (label, kind) => el("td", { role: "cell", "data-label": label, class: kind });
  const row = {
    address: foreign(""),
    phase: cell("Phase", "phase"),
    left: cell("Time left", "number"),
    rate: cell("Rate", "number"),
    known: cell("What is known", "known-cell"),
    bar: el("progress", { "aria-label": `Upload to ${id}` }),
    percent: el("span", { class: "percent" }),
  };
  const name = el("button", { type: "button", class: "link code", onclick: () => openDetails(id) }, foreign(id));
  row.tr = el(
    "tr",
    { role: "row" },
    el("th", { role: "rowheader", scope: "row", class: "id" }, name, el("span", { class: "aside" }, row.address)),
    row.phase,
    el("td", { role: "cell", "data-label": "Upload", class: "upload" }, el("div", {}, row.bar, row.percent)),
    row.rate,
    row.left,
    row.known,
  );
  rows.set(id, row);
  return row;
}

function paintBar(row, member) {
  const { state: phase, bytes_acknowledged: sent = 0, bytes_total: total = 0 } = member;
  const all = total > 0 && (sent >= total || phase === "done");
  row.bar.max = 1;
  if (phase === "connecting" || phase === "looking") {
    row.bar.removeAttribute("value"); // at work, but the progress is unknown
  } else {
    row.bar.value = phase === "done" ? 1 : total > 0 ? sent / total : 0;
  }
  setAttribute(row.bar, "data-kind", kindOf(member));
  setText(row.percent, all ? "100 %" : total > 0 && phase !== "planned" ? `${Math.floor((100 * sent) / total)} %` : "");
  setText(row.rate, phase === "uploading" && member.rate > 0 ? `${size(Math.round(member.rate))}/s` : "");
  setText(row.left, isBusy(member) && typeof member.seconds_left === "number" ? duration(member.seconds_left) : "");
}

function paintPhase(row, member) {
  const time = isBusy(member) && member.phase_started ? `for ${duration(Math.floor(since(member.phase_started)))}` : "";
  if (!row.pill) {
    row.pill = pill("", "");
    row.time = el("span", { class: "aside" });
    row.phase.append(row.pill, row.time);
  }
  setAttribute(row.pill, "data-kind", kindOf(member));
  setText(row.pill, phaseText(member));
  setText(row.time, time);
}

function paintRow(member) {
  const row = rows.get(member.device) ?? makeRow(member.device);
  setText(row.address, member.address ?? "");
  paintPhase(row, member);
  paintBar(row, member);
  const key = JSON.stringify([member.state, member.text, member.observed, member.assumed, member.last, member.code]);
  if (row.key !== key) {
    row.key = key;
    // Once the camera has been seen alive, earlier assumptions are of no use.
    const known = knownLists(member, true);
    const lists = { failed: [], done: known.slice(0, 1) }[member.state] ?? known;
    row.known.replaceChildren(
      ...[
        member.text && (member.state === "failed" || lists.every((list) => !list))
          ? el("p", {}, foreign(member.text))
          : null,
        adviceFor(member) ? el("p", { class: "advice" }, adviceFor(member)) : null,
        ...lists,
      ].filter(Boolean),
    );
  }
  row.tr.hidden = !kGroups[group][1](member);
  return row;
}

function paintRows() {
  const body = byId("run-rows");
  if (!body) {
    return;
  }
  for (const [id, row] of rows) {
    if (!state.members.has(id)) {
      row.tr.remove();
      rows.delete(id);
    }
  }
  for (const member of state.members.values()) {
    const { tr } = paintRow(member);
    if (tr.parentNode !== body) {
      body.append(tr);
    }
  }
  for (const key of Object.keys(kGroups)) {
    const [title, belongs] = kGroups[key];
    setText(byId(`group-${key}`), `${title} ${[...state.members.values()].filter(belongs).length}`);
    setAttribute(byId(`group-${key}`), "aria-pressed", group === key ? "true" : "false");
  }
}

function totalText(run) {
  const members = [...state.members.values()];
  const number = (key) => members.filter(kGroups[key][1]).length;
  const parts = [`${number("done")} of ${members.length} done`];
  if (number("failed") > 0) {
    parts.push(`${number("failed")} failed`);
  }
  if (run.state !== "ended") {
    parts.push(`${number("busy")} under way`);
    if (typeof run.seconds_left === "number") {
      parts.push(`about ${duration(run.seconds_left)} left`);
    }
  } else if (run.open > 0) {
    parts.push(`${run.open} not started or left under way`);
  }
  return parts.join(", ");
}

const kStates = { running: ["busy", "running"], stopping: ["warn", "stopping"] };

function paintTotal() {
  const { run } = state;
  document.title =
    run && run.state !== "ended" ? `${run.done}/${state.members.size} · Camera upgrades` : "Camera upgrades";
  if (!run || !byId("run-rows")) {
    return;
  }
  const [kind, word] = kStates[run.state] ?? (run.failed + run.open > 0 ? ["bad", "ended"] : ["good", "complete"]);
  const summary = byId("run-summary");
  setAttribute(summary.firstChild, "data-kind", kind);
  setText(summary.firstChild, word);
  setText(summary.lastChild, totalText(run));
  const bar = byId("run-total");
  const members = [...state.members.values()];
  const sum = (key) => members.reduce((all, member) => all + (member[key] ?? 0), 0);
  bar.max = Math.max(sum("bytes_total"), run.bytes_total, 1);
  bar.value = Math.max(sum("bytes_acknowledged"), run.bytes_acknowledged);
  setAttribute(bar, "data-kind", kind === "good" ? kind : null);
  const stopped = [run.stopped, ...notes].filter(Boolean);
  const list = byId("run-notes");
  if (list.dataset.key !== stopped.join("\n")) {
    list.dataset.key = stopped.join("\n");
    list.replaceChildren(...stopped.map((text) => el("li", { "data-kind": "warn" }, foreign(text))));
  }
}

async function act(path, topic = "run") {
  try {
    await ask("POST", path);
  } catch (error) {
    complain(topic, error.message);
  }
}

function report(format) {
  return el("a", { href: `/api/report?format=${format}`, download: "", class: "button small" }, format.toUpperCase());
}

// What can follow a run that has ended.
function again(run) {
  if (run?.state !== "ended") {
    return [];
  }
  const left = [...state.members.values()].filter((member) => member.state !== "done");
  const retry = left.filter((member) => member.may_retry).length;
  return [
    run.open > 0 ? ["resume", `Continue with ${count(left.length, "camera")} …`] : null,
    run.open === 0 && retry > 0 ? ["retry", `Retry ${count(retry, "failed camera")} …`] : null,
    run.open === 0 && left.length > retry
      ? ["resume", `Look again at ${count(left.length, "unfinished camera")} …`]
      : null,
  ].filter(Boolean);
}

// The buttons do not depend on the progress of uploads, so they keep the focus while numbers change.
function paintActions() {
  const { run } = state;
  const plan = offeredPlan();
  const next = again(run);
  const place = byId("run-actions");
  const key = JSON.stringify([run?.id, run?.state, plan?.id, next]);
  if (place.dataset.key === key) {
    return;
  }
  const focused = place.contains(document.activeElement);
  place.dataset.key = key;
  place.replaceChildren(
    ...[
      run?.state === "running" ? button("Stop what has not begun", () => act("/api/run/stop")) : null,
      run?.state === "stopping" ? el("span", { class: "hint" }, "Nothing new starts; upgrades under way go on.") : null,
      ...next.map(([which, text], i) => button(text, () => openAgain(which), { class: i === 0 ? "main" : null })),
      plan && run?.state !== "running" && run?.state !== "stopping"
        ? button("Look at the plan …", () => reviewPlan(), { class: "main" })
        : null,
      run
        ? el(
            "span",
            { class: "reports", role: "group", "aria-label": "Download the report" },
            "Report",
            ["html", "csv", "json"].map(report),
          )
        : null,
    ].filter(Boolean),
  );
  if (focused) {
    (place.querySelector("button, a") ?? byId("run-title")).focus();
  }
}

function build() {
  const { run } = state;
  const plan = offeredPlan();
  byId("run").hidden = !run && !plan;
  const body = byId("run-body");
  const key = run ? `run ${run.id}` : plan ? "plan" : "";
  if (body.dataset.key === key) {
    return;
  }
  body.dataset.key = key;
  rows.clear();
  if (!run) {
    byId("run-summary").replaceChildren();
    body.replaceChildren(plan ? el("p", {}, "A plan waits for your confirmation. Nothing has been sent yet.") : "");
    return;
  }
  byId("run-summary").replaceChildren(pill("", ""), el("span"));
  const heads = ["Camera", "Phase", "Upload", "Rate", "Time left", "What is known"];
  body.replaceChildren(
    el("p", { class: "run-line" }, foreign(run.package.file, { class: "file" }), ` · started ${clock(run.started)}`),
    el("progress", { id: "run-total", "aria-label": "All uploads" }),
    el("ul", { id: "run-notes", class: "trouble" }),
    el(
      "div",
      { class: "groups", role: "group", "aria-label": "Cameras to show" },
      Object.keys(kGroups).map((which) =>
        button(
          "",
          () => {
            group = which;
            paintRows();
          },
          { id: `group-${which}`, class: "small" },
        ),
      ),
    ),
    el(
      "table",
      { class: "run", role: "table", "aria-labelledby": "run-title" },
      el(
        "thead",
        { role: "rowgroup" },
        el(
          "tr",
          { role: "row" },
          heads.map((text) =>
            el(
              "th",
              {
                role: "columnheader",
                scope: "col",
                class: text === "Rate" || text === "Time left" ? "number" : null,
              },
              text,
            ),
          ),
        ),
      ),
      el("tbody", { role: "rowgroup", id: "run-rows" }),
    ),
  );
}

function paint() {
  build();
  paintRows();
  paintTotal();
  paintActions();
}

export function startRun() {
  on("state run plan member progress", () => soon(paint));
  let told = "";
  let noted = null; // the run that the notes are about
  on("run", (run) => {
    if (run && run.id !== noted) {
      noted = run.id;
      notes = [];
    }
    const key = JSON.stringify(run && [run.id, run.state, run.done, run.failed]);
    if (run && key !== told) {
      told = key;
      const why = run.state === "stopping" && run.stopped ? ` ${run.stopped}.` : "";
      announce("run", `${run.state === "ended" ? "The upgrade has ended" : "Upgrade"}: ${totalText(run)}.${why}`);
    }
  });
  on("note", (note) => {
    notes = [...notes, note.text].slice(-5);
    announce("note", note.text);
    soon(paint);
  });
  on("ending", (what) =>
    banner(
      "ending",
      what.under_way > 0
        ? `kvtool is ending. It waits for ${count(what.under_way, "camera")} under way. Do not switch cameras off. ` +
            "Later, start kvtool again with the same journal to see what became of all of them."
        : "kvtool is ending.",
      "warn",
    ),
  );
  setInterval(() => state.run && state.run.state !== "ended" && soon(paintRows), 1000);
}
