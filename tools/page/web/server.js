// What the server has sent, and the requests to it. Everything lives in the server; this is a copy for display.
import { banner } from "./base.js";

// The server sends something at least every 5 s.
const kSilenceMs = 12000;
const kAgainMs = 1000;
const kAnswerMs = 5000;

export const state = {
  connection: "connecting",
  server: null,
  search: null,
  devices: new Map(), // by id
  package: null,
  plan: null,
  run: null,
  members: new Map(), // of the run, by device
};

// Topics: `connection`, `state` (everything may have changed), and the names of the server's events.
const listeners = new Map();
export function on(topics, listener) {
  for (const topic of topics.split(" ")) {
    listeners.set(topic, [...(listeners.get(topic) ?? []), listener]);
  }
}
export const tell = (topic, what) => (listeners.get(topic) ?? []).forEach((listener) => listener(what));

const receive = {
  state(all) {
    Object.assign(state, { server: all.server, search: all.search, package: all.package, plan: all.plan });
    state.devices = new Map(all.devices.map((device) => [device.id, device]));
    state.run = all.run;
    state.members = new Map((all.run?.members ?? []).map((member) => [member.device, member]));
  },
  device(device) {
    state.devices.set(device.id, device);
  },
  search(search) {
    state.search = search;
  },
  package(what) {
    state.package = what;
  },
  plan(plan) {
    state.plan = plan;
  },
  run(run) {
    if (run?.id !== state.run?.id) {
      state.members = new Map();
    }
    state.run = run;
  },
  member(member) {
    state.members.set(member.device, member);
  },
  progress(uploads) {
    for (const upload of uploads) {
      Object.assign(state.members.get(upload.device) ?? {}, upload);
    }
  },
  note() {},
  ending() {},
  ping() {},
};

let source = null;
let heard = 0;

function setConnection(connection) {
  if (state.connection !== connection) {
    state.connection = connection;
    tell("connection");
  }
}

export function connect() {
  source?.close();
  const mine = (source = new EventSource("/api/events"));
  heard = Date.now();
  for (const [topic, take] of Object.entries(receive)) {
    mine.addEventListener(topic, (event) => {
      heard = Date.now();
      if (topic === "state") {
        setConnection("live");
      }
      const what = topic === "ping" ? null : JSON.parse(event.data);
      take(what);
      tell(topic, what);
    });
  }
  mine.addEventListener("error", () => mine === source && lose());
}

// The browser's own reconnection cannot tell a server that is gone from one that was started again and has another
// token.
async function lose() {
  source?.close();
  source = null;
  setConnection("lost");
  try {
    const reply = await fetch("/api/state", { signal: AbortSignal.timeout(kAnswerMs) });
    if (reply.ok) {
      connect();
      return;
    }
    setConnection(reply.status === 403 ? "stranger" : "lost");
  } catch {
    // The server does not answer yet.
  }
  setTimeout(lose, kAgainMs);
}

// A laptop that has slept notices here that it missed something.
export function checkConnection() {
  if (source && Date.now() - heard > kSilenceMs) {
    lose();
  }
}

// Sends a request and returns the reply's object. Throws an Error with a text for people.
export async function ask(method, path, body = {}) {
  let reply;
  try {
    reply = await fetch(path, {
      method,
      headers: { "Content-Type": "application/json" },
      body: method === "GET" ? undefined : JSON.stringify(body),
    });
  } catch {
    throw new Error("kvtool does not answer. Look at the terminal in which it was started.");
  }
  return understand(reply.status, await reply.text());
}

function understand(status, text) {
  let json = {};
  try {
    json = JSON.parse(text);
  } catch {
    // Not from kvtool; the status says enough.
  }
  if (status < 200 || status > 299) {
    throw new Error(json.error ?? `kvtool refused this (HTTP status ${status}).`);
  }
  return json;
}

// Sends a file. Returns { done: promise of the reply's object, cancel }.
export function send(path, file, progress) {
  const request = new XMLHttpRequest();
  const done = new Promise((resolve, reject) => {
    request.open("POST", path);
    request.setRequestHeader("Content-Type", "application/octet-stream");
    request.upload.addEventListener("progress", (event) => progress(event.loaded, event.total));
    request.addEventListener("load", () => {
      try {
        resolve(understand(request.status, request.responseText));
      } catch (error) {
        reject(error);
      }
    });
    request.addEventListener("error", () =>
      reject(new Error("The file did not reach kvtool. Check that kvtool is running and that the file can be read.")),
    );
    request.addEventListener("abort", () => reject(new Error("")));
    request.send(file);
  });
  return { done, cancel: () => request.abort() };
}

on("state", () => banner("ending", ""));
