// The package: choose or drop it, its contents, findings and signature.
import {
  announce,
  button,
  byId,
  complain,
  count,
  banner,
  el,
  foldedTable,
  foreign,
  pill,
  setAttribute,
  setText,
  size,
  visible,
} from "./base.js";
import { flashMap } from "./map.js";
import { ask, on, send, state } from "./server.js";

let upload = null; // { cancel } while a file is on its way
let shown; // what the section shows, as JSON

function fact(name, value, kind) {
  return el("div", { class: kind }, el("dt", {}, name), el("dd", {}, value));
}

function identity(what) {
  const own = state.server.identity;
  const differs = own && (what.ic !== own.ic || what.sensor !== own.sensor);
  return what.ic === undefined
    ? ["no complete header"]
    : [
        foreign(what.ic),
        " / ",
        foreign(what.sensor),
        differs ? el("span", { class: "aside" }, " differs from ", foreign(`${own.ic} / ${own.sensor}`)) : null,
      ];
}

function signature(what) {
  if (what.signature) {
    return [
      pill("good", "signed"),
      " by the trusted key ",
      foreign(what.signature.key_id),
      ": ",
      foreign(what.signature.trusted_comment),
    ];
  }
  if (!state.server.trusted_key) {
    return ["not checked, because kvtool was started without --trusted-key"];
  }
  return [
    pill("bad", "not trusted"),
    " ",
    foreign(what.signature_error ?? "the signature is missing"),
    " ",
    button("Choose the signature file …", () => byId("signature-file").click(), { class: "small" }),
  ];
}

function entriesTable(what) {
  const rows = what.entries.map((entry) =>
    el(
      "tr",
      {},
      el("td", { class: "number" }, entry.index),
      el("th", { scope: "row" }, foreign(entry.name)),
      el(
        "td",
        {},
        entry.partitions.length === 0
          ? "none: the camera skips it"
          : entry.partitions.map((one) => one.name).join(", "),
      ),
      el("td", { class: "number" }, size(entry.length)),
      el("td", {}, entry.reached ? "" : "not reached"),
      el("td", { class: "code" }, entry.md5 ?? ""),
    ),
  );
  return foldedTable(
    `${count(what.entries.length, "image")} in the package`,
    ["#", "Name", "Partition", "Size", "", "MD5"],
    rows,
  );
}

// Shows up to ten errors and ten warnings. The rest, and all notes, are folded away.
function findings(what) {
  const list = (some) =>
    el(
      "ul",
      {},
      some.map((finding) => el("li", {}, foreign(finding.text))),
    );
  const folded = (title, some) => (some.length > 0 ? el("details", {}, el("summary", {}, title), list(some)) : null);
  return ["error", "warning", "note"].map((severity) => {
    const found = what.findings.filter((finding) => finding.severity === severity);
    const open = severity === "note" ? 0 : 10;
    return found.length === 0
      ? null
      : el(
          "div",
          { class: "findings", "data-severity": severity },
          open > 0 ? [el("h3", {}, count(found.length, severity)), list(found.slice(0, open))] : null,
          folded(open > 0 ? `${found.length - open} more` : count(found.length, severity), found.slice(open)),
        );
  });
}

function verdict(what) {
  if (!what.acceptable) {
    return el(
      "p",
      { class: "verdict", "data-kind": "bad" },
      "The camera would refuse something in this package, or would write something other than its images. " +
        "Build it again, or override this in the plan.",
    );
  }
  return null;
}

function empty() {
  return el(
    "div",
    { class: "empty" },
    el("p", {}, el("strong", {}, "Drop an upgrade package anywhere on this page, or choose it.")),
    el("p", {}, "It is checked before anything is sent to a camera."),
  );
}

function paint() {
  const what = state.package;
  shown = JSON.stringify(what);
  byId("remove-package").hidden = byId("fold-package").hidden = !what;
  setText(byId("choose"), what ? "Replace …" : "Choose a package …");
  const summary = byId("package-summary");
  if (!what) {
    summary.replaceChildren();
    byId("package-body").replaceChildren(empty());
    return;
  }
  const number = (severity) => what.findings.filter((finding) => finding.severity === severity).length;
  summary.replaceChildren(
    foreign(what.file, { class: "file" }),
    el("span", {}, size(what.size)),
    what.acceptable ? pill("good", "no errors") : pill("bad", count(number("error"), "error")),
    ...(number("warning") > 0 ? [pill("warn", count(number("warning"), "warning"))] : []),
    ...(state.server.trusted_key && !what.signature ? [pill("bad", "not trusted")] : []),
  );
  byId("package-body").replaceChildren(
    ...[
      verdict(what),
      ...findings(what),
      what.map ? flashMap(what.map, what.entries) : null,
      el(
        "dl",
        { class: "facts" },
        fact("Chip / sensor type", identity(what)),
        fact("MD5", el("span", { class: "code" }, what.md5)),
        fact("Signature", signature(what), "long"),
        fact("SHA-256", el("span", { class: "code" }, what.sha256), "long"),
      ),
      entriesTable(what),
    ].filter(Boolean),
  );
}

// While an upgrade runs, the contents of the package are in the way.
function fold(yes) {
  byId("package-body").hidden = yes;
  setAttribute(byId("fold-package"), "aria-expanded", yes ? "false" : "true");
}

function paintUpload(name, loaded, total) {
  const body = byId("package-body");
  let bar = byId("sending");
  if (!bar) {
    bar = el("progress", { id: "sending", "aria-label": "Upload of the package to kvtool", max: 1 });
    fold(false);
    byId("package-summary").replaceChildren();
    body.replaceChildren(
      el(
        "div",
        { class: "sending" },
        el("p", {}, "Sending ", foreign(visible(name)), " to kvtool and checking it …"),
        bar,
        button("Cancel", () => upload?.cancel()),
      ),
    );
  }
  bar.value = total > 0 ? loaded / total : 0;
}

async function take(path, file, topic) {
  upload?.cancel();
  const mine = (upload = send(path, file, (loaded, total) => mine === upload && paintUpload(file.name, loaded, total)));
  paintUpload(file.name, 0, 1);
  banner(topic, "");
  try {
    const what = await mine.done;
    announce("package", `The package was checked: ${what.acceptable ? "it has no errors" : "it has errors"}.`);
    state.package = what;
  } catch (error) {
    if (error.message) {
      complain(topic, `${visible(file.name)}: ${error.message}`);
    }
  }
  if (mine === upload) {
    upload = null;
    paint();
  }
}

// Takes the files that were chosen or dropped: a package, its signature, or both.
async function takeFiles(files) {
  const isSignature = (file) => file.name.endsWith(".minisig");
  const packages = [...files].filter((file) => !isSignature(file));
  if (packages.length > 1) {
    complain("package", "Choose one package at a time.");
    return;
  }
  const limit = state.server?.upload_limit;
  if (limit && packages[0]?.size > limit) {
    complain(
      "package",
      `${visible(packages[0].name)} has ${size(packages[0].size)}. That is too large for a package: ` +
        `kvtool takes up to ${size(limit)}.`,
    );
    return;
  }
  if (packages.length === 1) {
    await take(`/api/package?name=${encodeURIComponent(packages[0].name)}`, packages[0], "package");
  }
  for (const file of [...files].filter(isSignature)) {
    await take("/api/signature", file, "signature");
  }
}

function chooseWith(buttonId, inputId) {
  const input = byId(inputId);
  if (buttonId) {
    byId(buttonId).addEventListener("click", () => input.click());
  }
  input.addEventListener("change", async () => {
    const files = [...input.files];
    input.value = ""; // the same file may be chosen again
    await takeFiles(files);
  });
}

function acceptDrops() {
  const hasFiles = (event) => [...event.dataTransfer.types].includes("Files");
  let depth = 0; // how many elements the pointer has entered and not left
  const mark = (change) => {
    depth = Math.max(0, depth + change);
    byId("drop").hidden = depth === 0;
  };
  addEventListener("dragenter", (event) => hasFiles(event) && mark(1));
  addEventListener("dragleave", (event) => hasFiles(event) && mark(-1));
  addEventListener("dragover", (event) => hasFiles(event) && event.preventDefault());
  addEventListener("drop", (event) => {
    if (hasFiles(event)) {
      event.preventDefault();
      mark(-depth);
      takeFiles([...event.dataTransfer.files]);
    }
  });
}

export function startPackage() {
  chooseWith("choose", "package-file");
  chooseWith(null, "signature-file");
  acceptDrops();
  byId("remove-package").addEventListener("click", async () => {
    try {
      await ask("DELETE", "/api/package");
      byId("choose").focus();
    } catch (error) {
      complain("package", error.message);
    }
  });
  byId("fold-package").addEventListener("click", () => fold(!byId("package-body").hidden));
  fold(false);
  let folded = null; // the run for which it was folded
  on("state run", () => {
    if (state.run && state.run.state !== "ended" && state.run.id !== folded) {
      folded = state.run.id;
      fold(true);
    }
  });
  on("state package", () => {
    // Painting the same package again would close what the reader has unfolded.
    if (!upload && JSON.stringify(state.package) !== shown) {
      paint();
    }
  });
  addEventListener("beforeunload", (event) => upload && event.preventDefault());
}
