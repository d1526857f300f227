// The latency the sandbox's viewer page shows, against the stream bench's own decoder: a private
// Xvfb with velmorand_bench_scene on it, the real sandbox, a CLI pairing, velmorand-broadcast, and
// the viewer page in headless Chromium for N seconds. The page's figure (#stream-latency, its
// data-value) is, once a second, the mean of (time shown on the canvas − the frame's capture time)
// over that second: compare it with the "captured -> decoded" row of
//   velmorand_bench_stream --mode glass (same --codec, --scale, --fps, --quality).
//
//   node bench/viewer-latency.mjs [--seconds 20] [--codec jpeg|h264] [--scale 0.5] [--fps 30]
//                                 [--quality 0.4] [--warmup 3] [--build build/release]
// Exit status 0 with figures, 1 when the run could not be made.
import { spawn, spawnSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath, pathToFileURL } from "node:url";
import { parseArgs } from "node:util";

import { waitFor } from "../tests/e2e/harness.mjs";

const kRepo = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "..");
const kChromium = "/usr/bin/chromium";
const kAccessKey = "demo-key-1234";
// Each program's start-up, on a machine busy with the stream it measures.
const kStartMs = 20_000;

const { values: opts } = parseArgs({
  options: {
    seconds: { type: "string", default: "20" },
    warmup: { type: "string", default: "3" },
    codec: { type: "string", default: "jpeg" },
    scale: { type: "string", default: "0.5" },
    fps: { type: "string", default: "30" },
    quality: { type: "string", default: "0.4" },
    build: { type: "string", default: path.join(kRepo, "build/release") },
  },
});
const seconds = Number(opts.seconds);
const warmup = Number(opts.warmup);
const build = path.resolve(opts.build);
const programs = {
  sandbox: path.join(build, "sandbox/velmorand-sandbox"),
  cli: path.join(build, "bin/velmorand"),
  bundle: path.join(build, "lib/velmorand/bundle"),
  broadcast: path.join(build, "lib/velmorand/bundle/PlugIns/VelmorandBroadcast.appex/velmorand-broadcast"),
  scene: path.join(build, "bench/velmorand_bench_scene"),
};

const children = [];
const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-viewer-latency-"));
let context = null;

function stopChildren() {
  for (const child of children.reverse()) {
    if (child.exitCode === null && child.signalCode === null) {
      try {
        child.kill("SIGTERM");
      } catch {}
    }
  }
}
process.on("exit", () => {
  stopChildren();
  fs.rmSync(work, { recursive: true, force: true });
});
for (const signal of ["SIGINT", "SIGTERM", "SIGHUP"]) {
  process.on(signal, () => process.exit(1));
}
// Whatever hangs, the run ends and takes its children with it.
setTimeout(() => {
  console.error("viewer-latency: gave up");
  process.exit(1);
}, (seconds + warmup + 120) * 1000).unref();

function start(program, args, env = {}, stdio = ["ignore", "pipe", "pipe"]) {
  const child = spawn(program, args, { stdio, env: { ...process.env, ...env } });
  child.output = "";
  child.stdout?.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.stderr?.setEncoding("utf8").on("data", (text) => (child.output += text));
  children.push(child);
  return child;
}

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  const middle = Math.floor(sorted.length / 2);
  return sorted.length % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

async function run() {
  for (const [name, file] of Object.entries(programs)) {
    if (!fs.existsSync(file)) {
      throw new Error(`${name} missing: ${file} (build the release preset)`);
    }
  }
  const { chromium } = await import(
    pathToFileURL(path.join(kRepo, "tests/e2e/node_modules/playwright-core/index.mjs")).href);

  // The server names its display on descriptor 3.
  const xvfb = start("Xvfb", ["-displayfd", "3", "-screen", "0", "1920x1080x24", "-nolisten", "tcp"],
    {}, ["ignore", "ignore", "ignore", "pipe"]);
  let displayText = "";
  xvfb.stdio[3].setEncoding("utf8").on("data", (text) => (displayText += text));
  const display = ":" + (await waitFor("Xvfb", () => displayText.includes("\n") && displayText.trim(), kStartMs));
  const scene = start(programs.scene, ["--fps", "60"], { DISPLAY: display });
  await waitFor("the scene", () => scene.output.startsWith("ready"), kStartMs);

  const sandbox = start(programs.sandbox, ["--port", "0"]);
  const base = await waitFor("the sandbox", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  }, kStartMs);
  const dataDir = path.join(work, "data");
  fs.mkdirSync(dataDir);
  const cli = (...args) => {
    const result = spawnSync(programs.cli, ["--data-dir", dataDir, "--bundle-dir", programs.bundle, ...args],
      { encoding: "utf8", timeout: 30_000 });
    if (result.status !== 0) {
      throw new Error(`velmorand ${args.join(" ")}: ${result.stdout}${result.stderr}`);
    }
  };
  cli("--service-url", base, "pair", kAccessKey);
  cli("encode", "--codec", opts.codec, "--fps", opts.fps, "--quality", opts.quality, "--scale", opts.scale);
  start(programs.broadcast, ["--data-dir", dataDir, "--bundle-dir", programs.bundle],
    { DISPLAY: display });
  await waitFor("the extension's relay link", async () =>
    (await (await fetch(`${base}/admin/relay`)).json()).deviceConnected, kStartMs);

  const profile = path.join(work, "chromium-profile");
  fs.mkdirSync(profile);
  context = await chromium.launchPersistentContext(profile, {
    executablePath: kChromium,
    headless: true,
    timeout: 30_000,
    viewport: { width: 1200, height: 1100 },
    args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  const page = context.pages()[0] ?? (await context.newPage());
  await page.goto(`${base}/`);
  await page.locator('#link[data-state="open"]').waitFor();
  await page.locator("#encode-codec").selectOption(opts.codec);
  await page.locator("#stream-start").click();
  await page.waitForFunction(() => document.querySelector("#stream-latency")?.dataset.value !== undefined,
    null, { timeout: 30_000 });
  await sleep(warmup * 1000);

  // The page refreshes its figures once a second; read each second's.
  const read = () => page.evaluate(() => ({
    latency: document.querySelector("#stream-latency").dataset.value,
    fps: document.querySelector("#stream-fps").dataset.value,
    missed: document.querySelector("#stream-missed").dataset.value,
    codec: document.querySelector("#stream-codec").dataset.value,
    size: document.querySelector("#stream-size").dataset.value,
  }));
  const samples = [];
  for (let i = 0; i < seconds; ++i) {
    await sleep(1000);
    samples.push(await read());
  }
  const latencies = samples.map((s) => Number(s.latency)).filter(Number.isFinite);
  const fps = samples.map((s) => Number(s.fps)).filter(Number.isFinite);
  const last = samples.at(-1) ?? {};
  const load = fs.readFileSync("/proc/loadavg", "utf8").split(" ")[0];
  console.log(`viewer page: ${last.codec} ${last.size}, scale ${opts.scale}, ${opts.fps} fps, ` +
    `quality ${opts.quality}; ${seconds} s after ${warmup} s; load ${load}`);
  console.log(`  per-second latency (ms): ${latencies.join(" ")}`);
  console.log(`  frames/s shown: median ${median(fps).toFixed(1)}; missed (last) ${last.missed}`);
  const mean = latencies.reduce((a, b) => a + b, 0) / latencies.length;
  console.log(`summary: viewer page ${opts.codec} scale ${opts.scale}: latency median of per-second ` +
    `means ${median(latencies)} ms, mean ${mean.toFixed(1)} ms, ${median(fps).toFixed(1)} fps`);
  if (latencies.length === 0) {
    throw new Error("the page showed no latency");
  }
}

try {
  await run();
} catch (error) {
  console.error(`viewer-latency: ${error.message}`);
  process.exitCode = 1;
} finally {
  await Promise.race([context?.close().catch(() => {}), sleep(10_000)]);
}
process.exit();
