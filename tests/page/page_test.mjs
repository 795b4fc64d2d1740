// The page in real browsers: the whole way from an empty list to upgraded cameras, and what can go wrong on it.
import assert from "node:assert/strict";
import fs from "node:fs";
import {
  bin,
  board,
  chromium,
  firefox,
  inspect,
  lyingDevice,
  mac,
  patientContext,
  photograph,
  rawPackage,
  run,
  Server,
  setRate,
  show,
  site,
  until,
  work,
} from "./support.mjs";

const began = Date.now();
const hostile = "<img src=x onerror=alert(1)><script>alert(1)</script>";
let server;
let page;
const outside = [];
const trouble = [];

// Watches for what must never happen.
async function openPage(context, address) {
  const fresh = await context.newPage();
  const origin = new URL(address).origin;
  fresh.on("request", (request) => new URL(request.url()).origin !== origin && outside.push(request.url()));
  fresh.on("dialog", (dialog) => {
    trouble.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  fresh.on("pageerror", (error) => trouble.push(error.stack ?? String(error)));
  fresh.on(
    "console",
    (message) =>
      /Content.Security.Policy|TrustedHTML/.test(message.text()) &&
      !/screenshot/.test(message.location().url) &&
      trouble.push(message.text()),
  );
  await fresh.goto(address);
  return fresh;
}

async function step(name, body) {
  const start = Date.now();
  try {
    await body();
    assert.deepEqual([outside, trouble], [[], []]);
  } catch (error) {
    const seen = [...outside, ...trouble]; // a screenshot may add some
    await page?.screenshot({ path: `${bin}/../page-failure.png`, fullPage: true }).catch(() => {});
    const shown = await page?.innerText("body").catch(() => "");
    console.error(`FAILED ${name}\n${shown}\n${server?.output}\n${seen}\n${error.stack}`);
    await server?.end("SIGKILL");
    process.exit(1);
  }
  console.log(`ok ${((Date.now() - start) / 1000).toFixed(1).padStart(5)} s  ${name}`);
}

const sees = (text, where = page) => where.getByText(text).first().waitFor();
const row = (number, where = page) => where.locator("#run-rows tr", { hasText: mac(number) });
const sent = (number, where = page) =>
  row(number, where)
    .locator("progress")
    .evaluate((bar) => bar.value);
const inState = (number, word, where = page) =>
  row(number, where).locator(".pill", { hasText: word }).waitFor();
const give = (name, buffer) =>
  page.setInputFiles("#package-file", { name, mimeType: "application/octet-stream", buffer });
const focused = () => page.evaluate(() => document.activeElement?.id || document.activeElement?.textContent);

// Presses Tab until the element has the focus.
async function tabTo(selector) {
  for (let i = 0; i < 40; ++i) {
    if (
      await page
        .locator(selector)
        .first()
        .evaluate((element) => element === document.activeElement)
    ) {
      return;
    }
    await page.keyboard.press("Tab");
  }
  throw new Error(`Tab does not reach ${selector}`);
}

const image = (size) => Buffer.from(Array.from({ length: size }, (_, i) => ((i * 2654435761) >>> 13) & 255));
fs.writeFileSync(`${work}/kernel.img`, image(1900000));
fs.writeFileSync(`${work}/rootfs.img`, image(2900000));
run(
  `${bin}/kvtool`,
  "pack",
  "-o",
  `${work}/camera-1.2.FLS`,
  `kernel=${work}/kernel.img`,
  `rootfs=${work}/rootfs.img`,
  `app=${work}/app.img`,
);
const firmware = fs.readFileSync(`${work}/camera-1.2.FLS`);

server = new Server();
let address = await server.address();
const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
const context = await patientContext(browser, { viewport: { width: 1280, height: 900 }, acceptDownloads: true });

await step("the address opens the page, and the empty list helps", async () => {
  page = await openPage(context, address);
  await sees("Connected");
  assert.equal(page.url(), `${new URL(address).origin}/`);
  await sees("No camera has answered yet.");
  await sees("This computer searches on wlan0 (172.20.18.2).");
  const paint = await page.waitForFunction(
    () => performance.getEntriesByName("first-contentful-paint")[0]?.startTime,
  );
  console.log(`   first paint after ${Math.round(await paint.jsonValue())} ms`);
  await inspect(page, "empty");
});

await step("a page asks again for files that were lost on their way", async () => {
  const fresh = await patientContext(browser);
  await fresh.addCookies(await context.cookies());
  // Twice: the preload, and then the import.
  await fresh.route("**/run.js", (route) => route.abort("internetdisconnected"), { times: 2 });
  const second = await fresh.newPage();
  await second.goto(address);
  await sees("Connected", second);
  await fresh.close();
});

await step("cameras appear by themselves", async () => {
  run(`${bin}/vboard`, "site", "start", "5", "--state", site, "--no-eth", "--", `${bin}/upgradeMain`);
  await page.waitForFunction(() => document.querySelectorAll("#camera-rows tr").length === 5);
  await sees("Choose a package first.");
});

await step("texts of a package stay texts, and its errors stop it", async () => {
  const bad = rawPackage([{ name: `kernel${hostile}\u202e\x07`, data: Buffer.alloc(3 << 20) }]);
  await give(`${hostile.replace("/", "")}\u202egpj.FLS`, bad);
  await sees("1 error");
  assert.match(
    await page.locator("#package").evaluate((section) => section.textContent),
    /kernel<img src=x onerror=alert\(1\)>/,
  );
  assert.doesNotMatch(await page.locator("body").evaluate((body) => body.textContent), /[\u202e\x07]/);
  assert.equal(await page.locator("script").count(), 1);
  await page.getByLabel(`Select ${mac(1)}`).check();
  await inspect(page, "errors");
  await page.getByRole("button", { name: "Plan upgrade of 1 camera" }).click();
  const go = page.locator("#plan-go");
  await go.press("Enter");
  assert.equal(await go.getAttribute("aria-disabled"), "true");
  await inspect(page, "override");
  await page.getByLabel("Send the package in spite of its errors").check();
  await go.click();
  await page.getByRole("button", { name: "Start with 1 camera" }).waitFor();
  await page.getByRole("button", { name: "Cancel" }).click();
  await page.getByLabel(`Select ${mac(1)}`).uncheck();
});

await step("a dropped package is drawn on the flash, to scale", async () => {
  await page.evaluate((bytes) => {
    const data = new DataTransfer();
    data.items.add(new File([Uint8Array.from(atob(bytes), (c) => c.charCodeAt(0))], "camera-1.2.FLS"));
    for (const type of ["dragenter", "dragover", "drop"]) {
      document.body.dispatchEvent(new DragEvent(type, { dataTransfer: data, bubbles: true, cancelable: true }));
    }
  }, firmware.toString("base64"));
  await sees("no errors");
  const widths = await page
    .locator("svg.map rect.image")
    .evaluateAll((rects) => rects.map((rect) => rect.getBoundingClientRect().width));
  const whole = await page.locator("svg.map").evaluate((map) => map.getBoundingClientRect().width);
  [1900000, 2900000].forEach((size, i) =>
    assert.ok(Math.abs(widths[i] - (whole * size) / 12648448) < 1, `${widths} of ${whole}`),
  );
});

await step("sort, filter, select and details with the keyboard only", async () => {
  await page.reload();
  await sees("no errors");
  await page.keyboard.press("Tab");
  assert.equal(await focused(), "Skip to the cameras");
  await page.keyboard.press("Enter");
  await tabTo("#filter");
  await page.keyboard.type("00:01");
  await page.waitForFunction(() => document.querySelectorAll("#camera-rows tr").length === 1);
  await page.keyboard.press("Control+A");
  await page.keyboard.press("Delete");
  await tabTo("[data-sort=mac] button");
  await page.keyboard.press("Enter");
  await page.keyboard.press("Enter");
  await page.keyboard.press("Enter");
  assert.equal(await page.locator("[data-sort=mac]").getAttribute("aria-sort"), "descending");
  await page.keyboard.press("Enter");
  await tabTo('#camera-rows input[tabindex="0"]');
  await page.keyboard.press("Home");
  while ((await page.evaluate(() => document.activeElement.closest("tr").dataset.id)) !== mac(1)) {
    await page.keyboard.press("ArrowDown");
  }
  for (const number of [1, 2, 3]) {
    await page.keyboard.press("Space");
    assert.ok(await page.getByLabel(`Select ${mac(number)}`).isChecked());
    await page.keyboard.press("ArrowDown");
  }
  await page.keyboard.press("Enter");
  await sees("The journal has no upgrade of this camera.");
  await photograph(page, "cameras", [1280]);
  await inspect(page, "cameras");
  await page.keyboard.press("Escape");
  await photograph(page, "cameras", [360]);
  await show(page, 1280, "light");
});

await step("plan and start; a second tab stops what has not begun", async () => {
  await page.getByRole("button", { name: "Plan upgrade of 3 cameras" }).click();
  await page.getByRole("button", { name: "Start with 3 cameras" }).waitFor();
  await photograph(page, "plan");
  await inspect(page, "plan");
  await page.locator("#plan-options summary").click();
  await page.getByLabel("Cameras at a time").fill("2");
  setRate("2mbit");
  const second = await openPage(context, new URL(address).origin);
  await page.getByRole("button", { name: "Plan again" }).click();
  await page.getByRole("button", { name: "Start with 3 cameras" }).click();
  await inState(2, "uploading");
  await until("the run's title has the focus", async () => (await focused()) === "run-title");
  await second.getByRole("button", { name: "Stop what has not begun" }).click();
  await sees("Nothing new starts");
  await second.close();
});

await step("a camera that restarts in the upload fails; a reload changes nothing", async () => {
  await until("some bytes", () => sent(2));
  board(2, "reset");
  setRate("16mbit");
  await inState(2, "failed");
  await sees("The camera has flashed nothing");
  await page.reload();
  await inState(2, "failed");
  assert.ok(await sent(1));
  await photograph(page, "run");
  await inspect(page, "run");
  await inState(1, "done");
  await sees("1 of 3 done, 1 failed, 1 not started");
});

await step("the rest is done with the keyboard only, and the report downloaded", async () => {
  await tabTo("#run-actions .main");
  await page.keyboard.press("Enter");
  await page.locator("#plan-what table").waitFor();
  await tabTo("#plan-go");
  await page.keyboard.press("Enter");
  await inState(2, "done");
  await inState(3, "done");
  await sees("complete");
  await inspect(page, "complete");
  const download = page.waitForEvent("download");
  await tabTo("#run-actions [href*=csv]");
  await page.keyboard.press("Enter");
  assert.match(fs.readFileSync(await (await download).path(), "utf8"), new RegExp(`${mac(3)}.*done`));
});

await step("a camera fails and is tried again; the server is killed and goes on from its journal", async () => {
  await page.getByLabel(`Select ${mac(4)}`).check();
  for (const number of [1, 2, 3]) {
    await page.getByLabel(`Select ${mac(number)}`).uncheck();
  }
  await page.getByRole("button", { name: "Plan upgrade of 1 camera" }).click();
  setRate("2mbit");
  await page.getByRole("button", { name: "Start with 1 camera" }).click();
  await until("some bytes", () => sent(4));
  board(4, "reset");
  await inState(4, "failed");
  board(4, "wait", "--boot", "2", "--log", "app file not exist!");
  await page.getByRole("button", { name: "Retry 1 failed camera" }).click();
  await page.getByRole("button", { name: "Start with 1 camera" }).click();
  await inState(4, "uploading");
  await until("some bytes", () => sent(4));
  await server.end("SIGKILL");
  setRate("16mbit");
  await sees("No connection to kvtool.");
  await inspect(page, "lost");
  server = new Server("--port", new URL(address).port);
  address = await server.address();
  await sees("kvtool was started again.");
  await page.goto(address);
  await page.getByRole("button", { name: "Continue with 1 camera" }).click();
  await page.getByRole("button", { name: "Start with 1 camera" }).click();
  await inState(4, "done");
  await sees("4 of 4 done");
});

await step("after the laptop has slept, the page notices that the server is silent", async () => {
  const tab = await context.newPage();
  await tab.clock.install();
  await tab.goto(new URL(address).origin);
  await sees("Connected", tab);
  server.process.kill("SIGSTOP");
  await tab.clock.fastForward(13000);
  await sees("No connection to kvtool.", tab);
  server.process.kill("SIGCONT");
  await sees("Connected", tab);
  await tab.close();
});

await step("texts of a device stay texts", async () => {
  const liar = await lyingDevice("172.20.18.2", `${hostile.slice(0, 28)}\xe2\x80\xae\x1b[31m`, hostile.slice(28, 59));
  const line = page.locator("#camera-rows tr", { hasText: "02:00:5E:00:00:66" });
  await line.waitFor();
  fs.writeFileSync(`${work}/page.journal.1`, "damaged\n");
  assert.match(await line.innerText(), /<img src=x onerror=alert\(1\)>\\xE2\\x80\\xAE\\x1B\[31m/i);
  await line.getByRole("button").click();
  await page.locator("#details").getByText(hostile.slice(28)).waitFor();
  await page.locator("#details").getByText("page.journal.1:1: not a line of a journal").waitFor();
  assert.equal(await page.locator("script").count(), 1);
  await inspect(page, "details");
  await page.keyboard.press("Escape");
  assert.equal(await focused(), "02:00:5E:00:00:66");
  liar.close();
});

await step("Firefox: list, package, map, plan", async () => {
  if (!fs.existsSync("/usr/bin/firefox-esr")) {
    console.log("   firefox-esr is not installed: NOT RUN");
    return;
  }
  const other = await firefox.launch({ executablePath: "/usr/bin/firefox-esr", channel: "moz-firefox" });
  const chrome = page;
  page = await openPage(await patientContext(other, { viewport: { width: 1280, height: 900 } }), address);
  await sees("4 of 4 done");
  await page.getByRole("button", { name: "Remove" }).click();
  await sees("Drop an upgrade package anywhere on this page");
  await give("camera-1.2.FLS", firmware);
  await sees("no errors");
  assert.equal(await page.locator("svg.map rect.image").count(), 3);
  await page.getByLabel(`Select ${mac(5)}`).check();
  await page.getByRole("button", { name: "Plan upgrade of 1 camera" }).click();
  await page.locator("#plan-what table").waitFor();
  await page.getByRole("button", { name: "Cancel" }).click();
  await other.close();
  page = chrome;
});

await step("the page says that the server has ended", async () => {
  assert.equal(await server.end("SIGINT"), 0);
  await sees("No connection to kvtool.");
});

await browser.close();
console.log(`page_test: passed in ${((Date.now() - began) / 1000).toFixed(0)} s`);
