// What the browser test uses: the server, the boards, packages, a device that lies, checks of a page.
import { spawn, spawnSync } from "node:child_process";
import dgram from "node:dgram";
import fs from "node:fs";
import { createRequire } from "node:module";
import path from "node:path";
import { setTimeout as pause } from "node:timers/promises";

const require = createRequire(new URL("../../build/page-test/modules.cjs", import.meta.url));
export const { chromium, firefox } = require("playwright-core");
const axeSource = fs.readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

export const { KV_BIN: bin, KV_SITE: site, KV_WORK: work, KV_PICTURES: pictures } = process.env;
export const mac = (number) => `02:76:62:02:00:${String(number).padStart(2, "0")}`;

export function run(command, ...words) {
  const done = spawnSync(command, words, { encoding: "utf8" });
  if (done.status !== 0) {
    throw new Error(`${command} ${words.join(" ")}: ${done.status}\n${done.stdout}${done.stderr}`);
  }
  return done.stdout;
}
export const board = (number, ...words) => run(`${bin}/vboard`, "--state", `${site}/boards/${number}`, ...words);

// How long to wait for what must happen, in seconds. Passing ends each wait, so a busy machine may take its time.
const kPatience = 180;

export async function patientContext(browser, options = {}) {
  const context = await browser.newContext(options);
  context.setDefaultTimeout(1000 * kPatience);
  return context;
}

// The rate at which this computer sends. Set it before uploads that something must interrupt.
export const setRate = (rate) =>
  run("tc", ..."qdisc change dev wlan0 root tbf burst 64kb latency 50ms rate".split(" "), rate);

// Waits until `ready` returns something true.
export async function until(what, ready) {
  const end = Date.now() + 1000 * kPatience;
  for (;;) {
    const value = await ready();
    if (value) {
      return value;
    }
    if (Date.now() > end) {
      throw new Error(`not seen in ${kPatience} s: ${what}`);
    }
    await pause(50);
  }
}

export class Server {
  constructor(...options) {
    this.output = "";
    this.process = spawn(`${bin}/kvtool`, ["serve", "--no-browser", "--journal", `${work}/page.journal`, ...options]);
    this.ended = new Promise((resolve) => this.process.on("exit", (code, signal) => resolve(signal ?? code)));
    this.process.stdout.on("data", (text) => {
      this.output += text;
    });
    this.process.stderr.on("data", (text) => {
      this.output += text;
    });
  }
  address() {
    return until("the address of the page", () => {
      if (this.process.exitCode !== null) {
        throw new Error(`kvtool serve ended: ${this.output}`);
      }
      return /http:\/\/\S+/.exec(this.output)?.[0];
    });
  }
  async end(signal) {
    this.process.kill(signal);
    return this.ended;
  }
}

// A package with entries that `kvtool pack` would not make.
export function rawPackage(entries) {
  const head = Buffer.alloc(24 + 256 * entries.length);
  const parts = [head];
  let at = head.length;
  entries.forEach(({ name, data, checkCode = 0x12345 }, i) => {
    const entry = 24 + 256 * i;
    Buffer.from(name).copy(head, entry);
    head.writeUInt32LE(data.length, entry + 128);
    head.writeUInt32LE(at, entry + 132);
    head.writeUInt32LE(checkCode, entry + 140);
    parts.push(data);
    at += data.length;
  });
  head.write("PRT7K", 0);
  head.write("38QX", 8);
  head.writeUInt32LE(at, 16);
  head.writeUInt32LE(entries.length, 20);
  return Buffer.concat(parts);
}

// Answers every search as a device whose texts are `firmware` and `serial`.
export async function lyingDevice(address, firmware, serial) {
  const reply = Buffer.alloc(544);
  const put = (at, text) => reply.write(text, at, "latin1");
  put(0, "searching..");
  reply.set([11, 0, 0, 0, 190, 0, 0, 0, 1], 12);
  put(24, address);
  put(40, "255.255.254.0");
  put(104, "02:00:5E:00:00:66");
  reply.writeUInt32LE(0x1302, 140);
  put(144, "IPC");
  reply.set([0, 0, 0, 80, 0, 0, 2, 42], 240);
  put(259, "\x50");
  put(292, "\x2c");
  reply.writeUInt32LE(500, 300);
  put(304, "IPCAMERA");
  put(384, firmware);
  put(448, serial);
  put(480, "admin");
  const socket = dgram.createSocket({ type: "udp4", reuseAddr: true });
  socket.on("message", (search, from) => search[12] === 10 && socket.send(reply, from.port, from.address));
  await new Promise((resolve) => socket.bind(6789, "0.0.0.0", resolve));
  return socket;
}

const kWcag = { type: "tag", values: ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa"] };
const kContrast = { type: "rule", values: ["color-contrast"] };

export async function show(page, width, theme) {
  await page.setViewportSize({ width, height: width === 360 ? 740 : 900 });
  await page.emulateMedia({ colorScheme: theme, reducedMotion: "reduce" });
}

// Takes the pictures of a state for the documents, if they are wanted.
export async function photograph(page, name, widths = [360, 1280]) {
  for (const width of pictures ? widths : []) {
    for (const theme of ["light", "dark"]) {
      await show(page, width, theme);
      await page.screenshot({ path: path.join(pictures, `${name}-${width}-${theme}.png`) });
    }
  }
}

// What must hold of the page in every state: no violation of WCAG 2.1 AA at both widths, enough contrast in the dark
// theme, and no sideways scrolling.
export async function inspect(page, name) {
  for (const [width, theme, rules] of [
    [360, "light", kWcag],
    [1280, "dark", kContrast],
    [1280, "light", kWcag],
  ]) {
    await show(page, width, theme);
    await page.evaluate(`window.axe || (() => { ${axeSource} })()`);
    const found = await page.evaluate((only) => window.axe.run({ runOnly: only, resultTypes: ["violations"] }), rules);
    const faults = found.violations.map(
      (one) =>
        `${one.id}: ${one.nodes
          .map((node) => node.html)
          .slice(0, 3)
          .join(" ")}`,
    );
    if (faults.length > 0 || found.passes.length === 0) {
      throw new Error(`${name}, ${width} px, ${theme}: ${faults.join("\n")}`);
    }
    const wide = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
    if (wide > 0) {
      throw new Error(`${name}: ${wide} px too wide at ${width} px`);
    }
  }
}
