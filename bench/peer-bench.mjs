// Peer-to-peer against relay frames, side by side in one run: a private Xvfb with
// velmorand_bench_scene on it (the wall-clock time drawn in as a block code), the sandbox with
// --webrtc, velmorand-broadcast, and two viewer pages in headless Chromium, one kept on relay frames
// and one peer-to-peer. Each page reads the time code from what it shows at every animation frame;
// glass to glass is the page's clock minus the code, the same for both paths.
//
// It also measures the extension's CPU per frame with the relay viewer alone, then with one and
// two peers beside it (the difference is what a peer adds beyond the encoder), and with --soak S
// samples its resident memory for S seconds: the first half with a peer and a relay viewer, the
// second after the peer stopped answering behind its page's back.
//
// Run it in a network namespace with only loopback, as the browser test does:
//   tests/e2e/loopback-only node bench/peer-bench.mjs [--seconds 20] [--scale 0.5] [--fps 30]
//       [--soak 0] [--build build/release]
import { spawn, spawnSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath, pathToFileURL } from "node:url";
import { parseArgs } from "node:util";

import { keepPeerConnections, waitFor } from "../tests/e2e/harness.mjs";

const kRepo = path.resolve(path.dirname(fileURLToPath(import.meta.url)), "..");
const kChromium = "/usr/bin/chromium";
const kStartMs = 20_000;

const { values: opts } = parseArgs({
  options: {
    seconds: { type: "string", default: "20" },
    scale: { type: "string", default: "0.5" },
    fps: { type: "string", default: "30" },
    soak: { type: "string", default: "0" },
    build: { type: "string", default: path.join(kRepo, "build/release") },
  },
});
const seconds = Number(opts.seconds);
const soak = Number(opts.soak);
const build = path.resolve(opts.build);
const programs = {
  sandbox: path.join(build, "sandbox/velmorand-sandbox"),
  cli: path.join(build, "bin/velmorand"),
  bundle: path.join(build, "lib/velmorand/bundle"),
  broadcast: path.join(build, "lib/velmorand/bundle/PlugIns/VelmorandBroadcast.appex/velmorand-broadcast"),
  scene: path.join(build, "bench/velmorand_bench_scene"),
};

const children = [];
const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-peer-bench-"));
let browser = null;
process.on("exit", () => {
  for (const child of children.reverse()) {
    try {
      child.kill("SIGTERM");
    } catch {}
  }
  fs.rmSync(work, { recursive: true, force: true });
});
for (const signal of ["SIGINT", "SIGTERM"]) {
  process.on(signal, () => process.exit(1));
}
setTimeout(() => {
  console.error("peer-bench: gave up");
  process.exit(1);
}, (4 * seconds + soak + 180) * 1000).unref();

function start(program, args, env = {}, stdio = ["ignore", "pipe", "pipe"]) {
  const child = spawn(program, args, { stdio, env: { ...process.env, ...env } });
  child.output = "";
  child.stdout?.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.stderr?.setEncoding("utf8").on("data", (text) => (child.output += text));
  children.push(child);
  return child;
}

const percentile = (values, p) => {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor(p * sorted.length))];
};

// The broadcast's processes (its supervisor and the broadcast itself): CPU seconds and resident
// memory in MiB.
function extensionUsage() {
  let ticks = 0;
  let rssPages = 0;
  for (const pid of fs.readdirSync("/proc").filter((name) => /^\d+$/.test(name))) {
    try {
      const stat = fs.readFileSync(`/proc/${pid}/stat`, "utf8");
      const close = stat.lastIndexOf(")");
      if (!stat.slice(stat.indexOf("(") + 1, close).startsWith("velmorand-broad")) {
        continue;
      }
      const fields = stat.slice(close + 2).split(" ");
      ticks += Number(fields[11]) + Number(fields[12]);
      rssPages = Math.max(rssPages, Number(fields[21]));
    } catch {}
  }
  const hz = Number(spawnSync("getconf", ["CLK_TCK"], { encoding: "utf8" }).stdout) || 100;
  return { cpuSeconds: ticks / hz, rssMiB: (rssPages * 4096) / 1048576 };
}

// Runs in each page: at every animation frame, the time code of what the page shows, and how long
// ago it was drawn on the device's screen.
function timeCodeReader(screenWidth) {
  const kCell = 32, kColumns = 16, kRows = 4, kLeft = 64, kTop = 64, kSpan = 2 ** 48;
  const crc8 = (value) => {
    let crc = 0;
    for (let byte = 5; byte >= 0; --byte) {
      crc ^= Math.floor(value / 2 ** (8 * byte)) & 0xff;
      for (let bit = 0; bit < 8; ++bit) {
        crc = crc & 0x80 ? ((crc << 1) ^ 0x07) & 0xff : (crc << 1) & 0xff;
      }
    }
    return crc;
  };
  const canvas = new OffscreenCanvas(1, 1);
  const context = canvas.getContext("2d", { willReadFrequently: true });
  window.benchSamples = [];
  let last = null;
  const read = () => {
    const video = document.getElementById("peer-video");
    const source = video.hidden ? document.getElementById("screen") : video;
    const width = source.videoWidth || source.width;
    const height = source.videoHeight || source.height;
    if (width < 16 || height < 16) {
      return null;
    }
    const s = width / screenWidth;
    canvas.width = width;
    canvas.height = Math.ceil((kTop + kRows * kCell + kCell) * s);
    context.drawImage(source, 0, 0);
    const means = [];
    for (let cell = 0; cell < kColumns * kRows; ++cell) {
      const cx = (kLeft + (cell % kColumns + 0.5) * kCell) * s;
      const cy = (kTop + (Math.floor(cell / kColumns) + 0.5) * kCell) * s;
      const half = (kCell * s) / 4;
      const data = context.getImageData(Math.round(cx - half), Math.round(cy - half),
        Math.max(1, Math.round(2 * half)), Math.max(1, Math.round(2 * half))).data;
      let sum = 0;
      for (let i = 0; i < data.length; i += 4) {
        sum += (data[i] + data[i + 1] + data[i + 2]) / 3;
      }
      means.push(sum / (data.length / 4));
    }
    const white = (means[0] + means[2] + means[61] + means[63]) / 4;
    const black = (means[1] + means[3] + means[60] + means[62]) / 4;
    if (white - black < 96) {
      return null;
    }
    const bits = means.map((mean) => mean > (white + black) / 2);
    let value = 0;
    for (let i = 0; i < 48; ++i) {
      value = value * 2 + (bits[4 + i] ? 1 : 0);
    }
    let crc = 0;
    for (let i = 0; i < 8; ++i) {
      crc = (crc << 1) | (bits[52 + i] ? 1 : 0);
    }
    return crc === crc8(value) ? value : null;
  };
  const tick = () => {
    const code = read();
    if (code !== null && code !== last) {
      last = code;
      const nowUs = Math.round((performance.timeOrigin + performance.now()) * 1000);
      window.benchSamples.push((((nowUs % kSpan) - code + kSpan) % kSpan) / 1000);
    }
    requestAnimationFrame(tick);
  };
  requestAnimationFrame(tick);
}

// Each page in a window of its own: a page behind another would be a background tab, whose
// animation frames the browser throttles.
async function openViewer(browser, base, { relayOnly }) {
  const context = await browser.newContext({ viewport: { width: 1200, height: 1000 } });
  const page = await context.newPage();
  await page.addInitScript(keepPeerConnections);
  if (relayOnly) {
    await page.addInitScript(() => {
      window.RTCPeerConnection = function () {
        throw new Error("kept on relay frames by the bench");
      };
    });
  }
  await page.goto(`${base}/`);
  await page.evaluate(async () => (await navigator.mediaDevices.getUserMedia({ video: true }))
    .getTracks().forEach((track) => track.stop()));
  await page.locator(`#stream-path[data-value="${relayOnly ? "relay" : "peer-to-peer"}"]`)
    .waitFor({ timeout: 30_000 });
  await page.locator('#stream-codec[data-value="h264"]').waitFor({ timeout: 30_000 });
  await page.evaluate(timeCodeReader, 1920);
  const visibility = await page.evaluate(() => document.visibilityState);
  if (visibility !== "visible") {
    throw new Error(`a viewer page is ${visibility}: its figures would not count`);
  }
  return page;
}

// The extension's CPU per frame over `seconds`, counting the frames the relay received.
async function cpuPerFrame(relay, label) {
  const before = { usage: extensionUsage(), frames: (await relay()).frames.received };
  await sleep(seconds * 1000);
  const after = { usage: extensionUsage(), frames: (await relay()).frames.received };
  const frames = after.frames - before.frames;
  const ms = ((after.usage.cpuSeconds - before.usage.cpuSeconds) * 1000) / Math.max(frames, 1);
  console.log(`  ${label}: ${frames} frames in ${seconds} s, ${ms.toFixed(2)} ms of CPU per frame`);
  return ms;
}

async function run() {
  for (const [name, file] of Object.entries(programs)) {
    if (!fs.existsSync(file)) {
      throw new Error(`${name} missing: ${file} (build the release preset)`);
    }
  }
  const { chromium } = await import(
    pathToFileURL(path.join(kRepo, "tests/e2e/node_modules/playwright-core/index.mjs")).href);
  const xvfb = start("Xvfb", ["-displayfd", "3", "-screen", "0", "1920x1080x24", "-nolisten", "tcp"],
    {}, ["ignore", "ignore", "ignore", "pipe"]);
  let displayText = "";
  xvfb.stdio[3].setEncoding("utf8").on("data", (text) => (displayText += text));
  const display = ":" + (await waitFor("Xvfb", () => displayText.includes("\n") && displayText.trim(), kStartMs));
  const scene = start(programs.scene, ["--fps", "60"], { DISPLAY: display });
  await waitFor("the scene", () => scene.output.startsWith("ready"), kStartMs);
  const sandbox = start(programs.sandbox, ["--port", "0", "--webrtc"]);
  const base = await waitFor("the sandbox", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  }, kStartMs);
  const relay = async () => (await fetch(`${base}/admin/relay`)).json();
  const dataDir = path.join(work, "data");
  fs.mkdirSync(dataDir);
  const cli = (...args) => {
    const result = spawnSync(programs.cli, ["--data-dir", dataDir, "--bundle-dir", programs.bundle, ...args],
      { encoding: "utf8", timeout: 30_000 });
    if (result.status !== 0) {
      throw new Error(`velmorand ${args.join(" ")}: ${result.stdout}${result.stderr}`);
    }
  };
  cli("--service-url", base, "pair", "demo-key-1234");
  cli("encode", "--codec", "h264", "--fps", opts.fps, "--scale", opts.scale);
  start(programs.broadcast, ["--data-dir", dataDir, "--bundle-dir", programs.bundle],
    { DISPLAY: display, VELMORAND_ICE_LOOPBACK: "1" });
  await waitFor("the extension's relay link", async () => (await relay()).deviceConnected, kStartMs);

  browser = await chromium.launch({
    executablePath: kChromium,
    headless: true,
    args: ["--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-background-networking",
      "--disable-component-update", "--disable-sync", "--allow-loopback-in-peer-connection",
      "--disable-features=WebRtcHideLocalIpsWithMdns", "--use-fake-device-for-media-stream",
      "--use-fake-ui-for-media-stream", "--disable-background-timer-throttling",
      "--disable-renderer-backgrounding", "--disable-backgrounding-occluded-windows"],
  });
  const load = () => fs.readFileSync("/proc/loadavg", "utf8").split(" ")[0];
  console.log(`peer-bench: H.264, scale ${opts.scale}, ${opts.fps} fps cap, scene at 60 fps; ` +
    `windows of ${seconds} s`);

  const relayPage = await openViewer(browser, base, { relayOnly: true });
  await sleep(3000);
  const alone = await cpuPerFrame(relay, "relay viewer alone");
  const peerPage = await openViewer(browser, base, { relayOnly: false });
  await sleep(3000);
  for (const page of [relayPage, peerPage]) {
    await page.evaluate(() => (window.benchSamples.length = 0));
  }
  const onePeer = await cpuPerFrame(relay, "relay viewer and one peer");
  const kbps = await peerPage.evaluate(() => document.getElementById("stream-bitrate").dataset.value);
  console.log(`  the peer receives ${kbps} kbit/s`);
  const glass = {};
  for (const [name, page] of [["relay", relayPage], ["peer-to-peer", peerPage]]) {
    const samples = await page.evaluate(() => window.benchSamples);
    glass[name] = samples;
    console.log(`  glass to glass, ${name}: ${samples.length} pictures, p50 ${percentile(samples, 0.5).toFixed(1)} ms, ` +
      `p95 ${percentile(samples, 0.95).toFixed(1)} ms`);
  }
  // Where the browser's own receiving path spends the peer's time, per frame.
  const inbound = (await peerPage.evaluate(() => window.velmorandViewer.peerStats()))
    .find((report) => report.type === "inbound-rtp" && report.kind === "video");
  if (inbound) {
    const perFrame = (total, count) => ((total / Math.max(count, 1)) * 1000).toFixed(1);
    console.log(`  the browser's receiving path, per frame: jitter buffer ` +
      `${perFrame(inbound.jitterBufferDelay, inbound.jitterBufferEmittedCount)} ms, decoding ` +
      `${perFrame(inbound.totalDecodeTime, inbound.framesDecoded)} ms, arrival to decoded ` +
      `${perFrame(inbound.totalProcessingDelay, inbound.framesDecoded)} ms`);
  }
  const secondPeer = await openViewer(browser, base, { relayOnly: false });
  await sleep(3000);
  const twoPeers = await cpuPerFrame(relay, "relay viewer and two peers");
  console.log(`summary: glass p50 relay ${percentile(glass.relay, 0.5).toFixed(1)} ms, peer-to-peer ` +
    `${percentile(glass["peer-to-peer"], 0.5).toFixed(1)} ms; CPU a peer adds per frame: ` +
    `${(onePeer - alone).toFixed(2)} ms (first), ${(twoPeers - onePeer).toFixed(2)} ms (second); load ${load()}`);

  if (soak > 0) {
    await secondPeer.close();
    const samples = [];
    const sample = async (phase) => {
      const { rssMiB } = extensionUsage();
      samples.push(rssMiB);
      console.log(`  ${phase} +${samples.length * 10 - 10} s: ${rssMiB.toFixed(1)} MiB`);
    };
    for (let t = 0; t < soak / 2; t += 10) {
      await sample("peer and relay viewer");
      await sleep(10_000);
    }
    await peerPage.evaluate(() => window.testPeers.forEach((connection) => connection.close()));
    for (let t = 0; t < soak / 2; t += 10) {
      await sample("the peer silent, then let go");
      await sleep(10_000);
    }
    console.log(`summary: resident memory over ${soak} s: first ${samples[0].toFixed(1)} MiB, ` +
      `max ${Math.max(...samples).toFixed(1)} MiB, last ${samples.at(-1).toFixed(1)} MiB`);
  }
}

try {
  await run();
} catch (error) {
  console.error(`peer-bench: ${error.stack ?? error}`);
  process.exitCode = 1;
} finally {
  await Promise.race([browser?.close().catch(() => {}), sleep(10_000)]);
}
process.exit();
