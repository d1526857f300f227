// Peer-to-peer video: the real extension answers the viewer page's WebRTC offer and sends the
// H.264 picture of an Xvfb screen straight to headless Chromium, while the relay carries only the
// signalling and the commands; a viewer whose peer connection cannot come up falls back to relay
// frames, beside one that stays peer-to-peer.
//
// Run it in a network namespace with only loopback (CMake does: unshare -n, lo up), so that no
// packet leaves the machine.
//
// node peer-e2e.mjs --sandbox PATH --cli PATH --broadcast PATH --bundle DIR --recorder PATH
//                   [--screenshot PNG]
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { parseArgs } from "node:util";

import { Desktop, kPalette, start, stopAll } from "./desktop.mjs";
import { browserEnvironment, check, keepPeerConnections, testRun, waitFor } from "./harness.mjs";

const kChromium = "/usr/bin/chromium";
const kWholeRunMs = 150_000;
const kScreen = { width: 1920, height: 1080 };
// The recorder's pattern, turned a quarter once H.264 frames come.
const kPattern = [3, 0, 1, 2].map((i) => kPalette[i]);

const { values: opts } = parseArgs({
  options: {
    sandbox: { type: "string" },
    cli: { type: "string" },
    broadcast: { type: "string" },
    bundle: { type: "string" },
    recorder: { type: "string" },
    screenshot: { type: "string" },
  },
});
for (const name of ["sandbox", "cli", "broadcast", "bundle", "recorder"]) {
  if (!opts[name]) {
    console.error(`peer-e2e: --${name} is required`);
    process.exit(2);
  }
}

const children = [];
const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-peer-e2e-"));
let browser = null;
const results = testRun("peer-e2e", kWholeRunMs, () => {
  stopAll(children);
  fs.rmSync(work, { recursive: true, force: true });
});
const { ok } = results;

let chromium;
try {
  ({ chromium } = await import("playwright-core"));
} catch (error) {
  console.error(`peer-e2e: playwright-core is not installed in tests/e2e/node_modules (${error.code ?? error.message});` +
    " run scripts/setup");
  process.exit(1);
}

// Only the test's own connections gather on loopback: the product leaves 127.0.0.1 out.
process.env.VELMORAND_ICE_LOOPBACK = "1";
const desktop = new Desktop({
  children,
  paths: { cli: opts.cli, broadcast: opts.broadcast, bundle: opts.bundle, recorder: opts.recorder },
  work,
  screen: kScreen,
});
let sandbox;

// A page of the viewer. `blocked`: its browser neither sends nor takes candidates, as behind a
// firewall that lets no peer-to-peer traffic through.
async function openViewer(context, base, { blocked = false } = {}) {
  const page = await context.newPage();
  page.setDefaultTimeout(20_000);
  page.errors = [];
  page.on("pageerror", (error) => page.errors.push(String(error)));
  await page.addInitScript(keepPeerConnections);
  if (blocked) {
    await page.addInitScript(() => {
      RTCPeerConnection.prototype.addIceCandidate = async () => {};
      Object.defineProperty(RTCPeerConnection.prototype, "onicecandidate", { set() {}, get() { return null; } });
    });
  }
  // Inside a namespace without a default route, Chromium gathers on loopback only once the page
  // has had a media permission.
  const response = await page.goto(`${base}/`);
  check(response.status() === 200, `GET / answered ${response.status()}`);
  await page.evaluate(async () => (await navigator.mediaDevices.getUserMedia({ video: true }))
    .getTracks().forEach((track) => track.stop()));
  return page;
}

// The colour at the middle of each quadrant of what the page shows: the video peer-to-peer, the
// canvas otherwise.
const quadrants = (page) => page.evaluate(() => {
  const video = document.getElementById("peer-video");
  const source = video.hidden ? document.getElementById("screen") : video;
  const width = source.videoWidth || source.width;
  const height = source.videoHeight || source.height;
  const canvas = new OffscreenCanvas(width, height);
  const context = canvas.getContext("2d");
  context.drawImage(source, 0, 0, width, height);
  return [[0.25, 0.35], [0.75, 0.35], [0.25, 0.75], [0.75, 0.75]].map(([x, y]) =>
    Array.from(context.getImageData(Math.floor(width * x), Math.floor(height * y), 1, 1).data.slice(0, 3)));
});

async function expectPattern(page, where) {
  let seen = [];
  await waitFor(`the pattern ${where}`, async () => {
    seen = await quadrants(page);
    return seen.every((colour, i) => Math.hypot(...colour.map((c, j) => c - kPattern[i][j])) < 60);
  }).catch((error) => {
    throw new Error(`${error.message} (last seen ${JSON.stringify(seen)})`);
  });
}

const pathOf = (page) => page.locator("#stream-path").textContent();

async function run() {
  sandbox = start(children, opts.sandbox, ["--port", "0", "--relay-ping-ms", "1000", "--webrtc"]);
  const base = await waitFor("the sandbox's URL", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  });
  const relay = async () => (await fetch(`${base}/admin/relay`)).json();

  await desktop.startDesktop();
  await desktop.startRecorder();
  desktop.tellRecorder("animate on");
  desktop.pair(base);
  const handshake = await (await fetch(`${base}/admin/last-handshake`)).json();
  check(handshake.webrtc === true, `the device's handshake asked ${JSON.stringify(handshake.webrtc)} for WebRTC`);
  desktop.cli("encode", "--codec", "h264");
  desktop.startExtension();
  await waitFor("the extension's relay link", async () => (await relay()).deviceConnected);
  ok("the extension, paired with WebRTC, broadcasts the Xvfb screen");

  browser = await chromium.launch({
    env: browserEnvironment(),
    executablePath: kChromium,
    headless: true,
    timeout: 30_000,
    args: ["--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-background-networking",
      "--disable-component-update", "--disable-sync", "--allow-loopback-in-peer-connection",
      "--disable-features=WebRtcHideLocalIpsWithMdns", "--use-fake-device-for-media-stream",
      "--use-fake-ui-for-media-stream"],
  });
  const context = await browser.newContext({ viewport: { width: 1200, height: 1000 } });

  // One viewer: the picture comes peer-to-peer, and the relay carries no frames at all.
  const first = await openViewer(context, base);
  await first.locator('#stream-path[data-value="peer-to-peer"]').waitFor({ timeout: 30_000 });
  desktop.tellRecorder("turn");
  await expectPattern(first, "on the peer-to-peer video");
  ok(`the first viewer's picture comes peer-to-peer, with the pattern's colours (${await pathOf(first)})`);
  // Loopback would connect on the viewer's candidates alone; a viewer behind a NAT needs the
  // device's.
  await waitFor("the device's ICE candidates at the viewer", () =>
    first.evaluate(() => window.testRemoteCandidates > 0));
  await sleep(1000);
  const before = (await relay()).frames.received;
  await sleep(2000);
  const after = await relay();
  check(after.frames.received === before,
    `the device sent the relay ${after.frames.received - before} frames with its only viewer peer-to-peer`);
  check(after.viewerPaths.length === 1 && after.viewerPaths[0].path === "peer-to-peer",
    `the relay sees ${JSON.stringify(after.viewerPaths)}`);
  ok("while its only viewer is peer-to-peer, the device sends the relay no frames");
  check(desktop.logLines().some((line) => /^webrtc: viewer v\d+ is connected peer-to-peer$/.test(line)),
    "the extension's log does not say the viewer is connected");
  check(!desktop.readLog().includes("a=fmtp") && !desktop.readLog().includes("candidate:"),
    "the extension's log carries a session description or a candidate");

  // A click on the peer-to-peer picture lands on the desktop: commands still cross the relay.
  const box = await first.locator("#peer-video").boundingBox();
  const since = desktop.events.length;
  await first.mouse.click(Math.round(box.x + box.width * 0.3), Math.round(box.y + box.height * 0.6));
  const press = await waitFor("the click in the recorder's window", () =>
    desktop.events.slice(since).find((event) => event.event === "press"));
  check(Math.abs(press.x - kScreen.width * 0.3) <= 8 && Math.abs(press.y - kScreen.height * 0.6) <= 8,
    `the click landed at ${press.x},${press.y}`);
  ok(`a click on the peer-to-peer picture lands at ${press.x},${press.y}`);

  // A second viewer whose peer connection cannot come up falls back to relay frames, and the
  // first stays peer-to-peer.
  const second = await openViewer(context, base, { blocked: true });
  await waitFor("the second viewer back on relay frames", async () =>
    /^relay \(no peer-to-peer picture within 10 s\)$/.test(await pathOf(second)), 30_000);
  await expectPattern(second, "on the second viewer's canvas");
  const paths = async () => Object.fromEntries((await relay()).viewerPaths.map((v) => [v.path, v.framesForwarded]));
  const start1 = await paths();
  await sleep(2000);
  const end1 = await paths();
  check(end1["peer-to-peer"] === start1["peer-to-peer"] && end1.relay > start1.relay,
    `frames forwarded per path: ${JSON.stringify(start1)} then ${JSON.stringify(end1)}`);
  check((await pathOf(first)) === "peer-to-peer", `the first viewer's path reads ${await pathOf(first)}`);
  ok("a blocked peer connection falls back to relay frames, beside a viewer that stays peer-to-peer");

  // The figures come from the browser's statistics.
  const figures = await first.evaluate(() => ({
    fps: Number(document.getElementById("stream-fps").dataset.value),
    kbps: Number(document.getElementById("stream-bitrate").dataset.value),
    latency: Number(document.getElementById("stream-latency").dataset.value),
  }));
  check(figures.fps > 0 && figures.kbps > 0 && figures.latency >= 0, `unlikely figures ${JSON.stringify(figures)}`);
  ok(`the peer-to-peer figures: ${JSON.stringify(figures)}`);

  if (opts.screenshot) {
    await first.screenshot({ path: opts.screenshot, fullPage: true });
  }

  // A viewer whose browser stops answering on the peer link (its relay link up) is let go by the
  // device, and goes back to relay frames.
  await first.evaluate(() => window.testPeers.forEach((connection) => connection.close()));
  await waitFor("the silent viewer let go", async () =>
    (await pathOf(first)).startsWith("relay ("), 40_000);
  const reason = await pathOf(first);
  await expectPattern(first, "on the first viewer's canvas again");
  ok(`a viewer that goes silent on the peer link is let go: ${reason}`);
  for (const page of [first, second]) {
    check(page.errors.length === 0, `the page reported errors: ${page.errors.join("; ")}`);
  }
  // Under a sanitizer, what it found in the extension while peers came and went.
  check(!/ERROR: AddressSanitizer|runtime error:/.test(desktop.extension.output),
    "the extension's sanitizer reported an error");
}

try {
  await run();
  console.log(`peer-e2e: ${results.passed} checks passed`);
  process.exit(0);
} catch (error) {
  console.error(`peer-e2e: ${error.stack ?? error}`);
  console.error(`--- sandbox ---\n${sandbox?.output ?? ""}`);
  console.error(desktop.report());
  process.exit(1);
}
