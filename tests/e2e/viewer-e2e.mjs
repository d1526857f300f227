// pair → broadcast → relay → viewer, over loopback and TLS: the sandbox serving HTTPS and wss with
// a certificate of the test CA, the CLI, the upload extension as the application starts it (both
// trusting that CA through VELMORAND_CA_FILE), and the sandbox's viewer page in headless Chromium.
//
// NODE_EXTRA_CA_CERTS=PKI/ca.pem node viewer-e2e.mjs --sandbox PATH --cli PATH --broadcast PATH
//     --bundle DIR --pki DIR [--screenshot PNG]
import { spawn, spawnSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { parseArgs } from "node:util";
import { check, testRun, waitFor } from "./harness.mjs";

const kChromium = "/usr/bin/chromium";
const kAccessKey = "demo-key-1234";
const kGroup = "group.co.velmorand.connect";
const kNotPaired = "not paired — pair this device in Velmorand Connect first";
// Every wait below has its own limit; this one catches anything they miss.
const kWholeRunMs = 150_000;

const { values: opts } = parseArgs({
  options: {
    sandbox: { type: "string" },
    cli: { type: "string" },
    broadcast: { type: "string" },
    bundle: { type: "string" },
    pki: { type: "string" },
    screenshot: { type: "string" },
  },
});
for (const name of ["sandbox", "cli", "broadcast", "bundle", "pki"]) {
  if (!opts[name]) {
    console.error(`e2e: --${name} is required`);
    process.exit(2);
  }
}

const children = [];
const tempDirs = [];
let context = null;

function stopChildren() {
  for (const child of children) {
    if (child.exitCode === null && child.signalCode === null) {
      try {
        // Detached children lead their own process group.
        process.kill(child.ownGroup ? -child.pid : child.pid, "SIGKILL");
      } catch {}
    }
  }
}

function removeTempDirs() {
  for (const dir of tempDirs) {
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

const results = testRun("e2e", kWholeRunMs, () => {
  stopChildren();
  removeTempDirs();
});
const { ok } = results;

function start(program, args, { detached = false } = {}) {
  const child = spawn(program, args, { stdio: ["ignore", "pipe", "pipe"], detached });
  child.ownGroup = detached;
  child.output = "";
  child.stdout.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.stderr.setEncoding("utf8").on("data", (text) => (child.output += text));
  // On "close", not "exit": a process's last words may still be in the pipe when it has exited.
  child.exited = new Promise((resolve) => child.on("close", (code, signal) => resolve({ code, signal })));
  children.push(child);
  return child;
}

async function exitOf(child, limitMs) {
  const timeout = sleep(limitMs).then(() => null);
  const result = await Promise.race([child.exited, timeout]);
  check(result !== null, `${path.basename(child.spawnfile)} still running after ${limitMs / 1000} s`);
  return result;
}

// ---------------------------------------------------------------------------------------------
// What the test needs from scripts/setup, checked before anything starts.

let chromium;
try {
  ({ chromium } = await import("playwright-core"));
} catch (error) {
  console.error(
    `e2e: playwright-core is not installed in tests/e2e/node_modules (${error.code ?? error.message});` +
      " run scripts/setup");
  process.exit(1);
}
if (!fs.existsSync(kChromium)) {
  console.error(`e2e: ${kChromium} is missing; run scripts/setup (it installs Debian's chromium)`);
  process.exit(1);
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-e2e-"));
tempDirs.push(work);
const dataDir = path.join(work, "data");
const profileDir = path.join(work, "chromium-profile");
fs.mkdirSync(dataDir);
fs.mkdirSync(profileDir);
const extensionLog = path.join(dataDir, "Group Containers", kGroup, "extension.log");

function readLog() {
  try {
    return fs.readFileSync(extensionLog, "utf8");
  } catch {
    return "";
  }
}

function cli(...args) {
  const result = spawnSync(opts.cli, ["--data-dir", dataDir, "--bundle-dir", opts.bundle, ...args],
    { encoding: "utf8", timeout: 30_000 });
  check(!result.error, `velmorand ${args.join(" ")}: ${result.error}`);
  return result;
}

function startBroadcast() {
  // As the application does: detached, with its data and bundle directories.
  return start(opts.broadcast,
    ["--data-dir", dataDir, "--bundle-dir", opts.bundle, "--min-delay", "0.2", "--max-delay", "1"],
    { detached: true });
}

let sandbox;
let broadcast;
let page;

async function run() {
  // The CLI and the extension inherit this.
  process.env.VELMORAND_CA_FILE = path.join(opts.pki, "ca.pem");
  sandbox = start(opts.sandbox, ["--port", "0", "--relay-ping-ms", "250",
    "--tls-cert", path.join(opts.pki, "server.pem"), "--tls-key", path.join(opts.pki, "server.key")]);
  const base = await waitFor("the sandbox's URL", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  });
  check(base.startsWith("https://"), `the sandbox serves ${base}, not HTTPS`);
  ok(`sandbox listens at ${base}`);

  const paired = cli("--service-url", base, "pair", kAccessKey);
  check(paired.status === 0, `velmorand pair exited ${paired.status}: ${paired.stdout}${paired.stderr}`);
  ok("paired with the CLI");

  broadcast = startBroadcast();
  const relay = async () => (await fetch(`${base}/admin/relay`)).json();
  const state = await waitFor("the extension's relay link", async () => {
    const now = await relay();
    return now.deviceConnected ? now : null;
  });
  check(state.device?.deviceName === "Sandbox iPhone", `unexpected device ${JSON.stringify(state)}`);
  ok("the extension is connected to the relay");

  context = await chromium.launchPersistentContext(profileDir, {
    executablePath: kChromium,
    headless: true,
    timeout: 30_000,
    viewport: { width: 1200, height: 1100 },
    // The browser does not know the test CA.
    ignoreHTTPSErrors: true,
    args: [
      "--headless",
      "--no-sandbox",
      "--disable-gpu",
      "--disable-quic",
      "--no-first-run",
      "--disable-background-networking",
      "--disable-component-update",
      "--disable-sync",
    ],
  });
  page = context.pages()[0] ?? (await context.newPage());
  page.setDefaultTimeout(15_000);
  const pageErrors = [];
  page.on("pageerror", (error) => pageErrors.push(String(error)));
  page.on("console", (message) => {
    if (message.type() === "error") {
      pageErrors.push(message.text());
    }
  });

  const response = await page.goto(`${base}/`);
  check(response.status() === 200, `GET / answered ${response.status()}`);
  check(response.headers()["content-security-policy"] === "default-src 'self'",
    "the page is served without its content security policy");
  const text = (selector, pattern) =>
    page.waitForFunction(([s, p]) => new RegExp(p).test(document.querySelector(s)?.textContent ?? ""),
      [selector, pattern.source]);
  await text("#device", /^Sandbox iPhone \(sandbox-[0-9a-f]{12}\)$/);
  await page.locator('#link[data-state="open"]').waitFor();
  ok("the page lists the device and opens its relay link");

  await page.getByRole("button", { name: "Send ping" }).click();
  await text("#pong", /^answered in \d+ ms$/);
  await page.getByRole("button", { name: "Measure round trip" }).click();
  await text("#rtt", /^\d+ ms \(1 probe, min \d+ ms, mean \d+ ms\)$/);
  await text("#frames", /← \{"type":"latency_pong","t":\d+,"viewerId":"viewer-[0-9a-f]{8}"\}/);
  ok(`round trip shown: ${await page.locator("#rtt").textContent()}`);

  // Each form, and the line its message leaves in extension.log.
  const commands = [
    { form: "Tap", fill: { x: "120", y: "340" }, line: "control: tap x=120 y=340" },
    {
      form: "Swipe",
      fill: { "from x": "10", "from y": "600.5", "to x": "10", "to y": "200", ms: "300" },
      line: "control: swipe from x=10 y=600.5 to x=10 y=200 ms=300",
    },
    // What a viewer types is logged by its length only.
    { form: "Text", fill: { "Text to type": "hello, device" }, line: "control: text 13 characters" },
    // A URL's query may hold a secret: it is logged without one.
    {
      form: "Open URL",
      fill: { URL: "https://example.com/a?b=1" },
      line: 'control: openURL "https://example.com/a"',
    },
    {
      form: "Encode settings",
      select: { codec: "h264" },
      fill: { fps: "24", quality: "0.6", scale: "0.5" },
      line: 'encode_settings: fps=24 quality=0.6 scale=0.5 codec="h264"',
    },
  ];
  for (const command of commands) {
    const group = page.getByRole("group", { name: command.form, exact: true });
    for (const [label, value] of Object.entries(command.fill)) {
      await group.getByLabel(label, { exact: true }).fill(value);
    }
    for (const [label, value] of Object.entries(command.select ?? {})) {
      await group.getByLabel(label, { exact: true }).selectOption(value);
    }
    await group.getByRole("button").click();
    await waitFor(`"${command.line}" in extension.log`, () => readLog().includes(command.line));
    ok(`${command.form} reaches the extension: ${command.line}`);
  }

  if (opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true });
    ok(`screenshot in ${opts.screenshot}`);
  }
  check(pageErrors.length === 0, `the page reported errors:\n${pageErrors.join("\n")}`);
  ok("the page ran without errors");

  const shown = cli("log");
  check(shown.status === 0 && shown.stdout.includes("control: tap x=120 y=340"),
    `velmorand log (exit ${shown.status}) lacks the tap:\n${shown.stdout}${shown.stderr}`);
  ok("velmorand log shows the tap");

  process.kill(-broadcast.pid, "SIGTERM");
  const stopped = await exitOf(broadcast, 10_000);
  check(stopped.code === 0, `the extension stopped with ${JSON.stringify(stopped)}`);
  check(readLog().includes("stopped (SIGTERM)"), "extension.log lacks the SIGTERM stop");
  await text("#device", /^No device connected$/);
  ok("the extension stops on SIGTERM and the page sees the device go");

  const unpaired = cli("unpair");
  check(unpaired.status === 0, `velmorand unpair exited ${unpaired.status}: ${unpaired.stderr}`);
  const before = readLog().length;
  const refused = startBroadcast();
  const result = await exitOf(refused, 15_000);
  check(result.code === 1, `the extension started unpaired exited with ${JSON.stringify(result)}`);
  const log = readLog();
  check((log.length >= before ? log.slice(before) : log).includes(kNotPaired),
    `extension.log lacks the refusal:\n${log}`);
  ok("after unpairing the extension refuses to start");
}

try {
  await run();
  console.log(`${results.passed} passed, 0 failed`);
} catch (error) {
  console.error(`not ok - ${error.message}`);
  console.error(`--- sandbox output ---\n${sandbox?.output ?? ""}`);
  console.error(`--- extension output ---\n${broadcast?.output ?? ""}`);
  console.error(`--- extension.log ---\n${readLog()}`);
  if (page && opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true }).catch(() => {});
  }
  console.log(`${results.passed} passed, 1 failed`);
  process.exitCode = 1;
} finally {
  await Promise.race([context?.close().catch(() => {}), sleep(10_000)]);
}
process.exit();
