// device → relay → viewer, for pictures: a device streams a known pattern through the sandbox's
// relay, and the viewer page in headless Chromium must show it in both codecs and obey its own
// stream controls.
//
// node stream-e2e.mjs --sandbox PATH [--device synthetic|extension] [--desktop x11|wayland]
//                     [--screenshot PNG]
//   synthetic: a device written here, pairing as the extension does and drawing the pattern with
//              Chromium's canvas and WebCodecs encoder.
//   extension: the real velmorand-broadcast capturing an Xvfb screen (or the Wayland session the
//              test runs in: --desktop wayland, or portal through the desktop portal, whose dialog
//              --consent answers; --view-only asks it for the screen alone, a grant it keeps) on
//              which the event recorder shows the pattern (needs --cli, --broadcast, --bundle,
//              --recorder).
import crypto from "node:crypto";
import { spawn } from "node:child_process";
import { EventEmitter } from "node:events";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { parseArgs } from "node:util";

import { Desktop, kAccessKey, kPalette, stopAll } from "./desktop.mjs";
import { browserEnvironment, check, testRun, waitFor } from "./harness.mjs";

const kChromium = "/usr/bin/chromium";
// Every wait below has its own limit; this one catches anything they miss.
const kWholeRunMs = 150_000;
const kScreen = { width: 640, height: 480 };
// The pattern turns a quarter for H.264, so that a picture left over from JPEG cannot pass for it.
const patternFor = (codec) => (codec === "h264" ? [3, 0, 1, 2] : [0, 1, 2, 3]).map((i) => kPalette[i]);
// The extension's screen: its default scale of 0.5 makes a 960×540 picture of it.
const kDesktopScreen = { width: 1920, height: 1080 };

const { values: opts } = parseArgs({
  options: {
    sandbox: { type: "string" },
    device: { type: "string", default: "synthetic" },
    cli: { type: "string" },
    broadcast: { type: "string" },
    bundle: { type: "string" },
    recorder: { type: "string" },
    desktop: { type: "string", default: "x11" },
    consent: { type: "string" },
    "view-only": { type: "boolean", default: false },
    screenshot: { type: "string" },
  },
});
if (!opts.sandbox) {
  console.error("stream-e2e: --sandbox is required");
  process.exit(2);
}
if (!["synthetic", "extension"].includes(opts.device)) {
  console.error("stream-e2e: --device is synthetic or extension");
  process.exit(2);
}
for (const name of opts.device === "extension" ? ["cli", "broadcast", "bundle", "recorder"] : []) {
  if (!opts[name]) {
    console.error(`stream-e2e: --device extension needs --${name}`);
    process.exit(2);
  }
}

const children = [];
const tempDirs = [];
let browser = null;

const results = testRun("stream-e2e", kWholeRunMs, () => {
  stopAll(children);
  for (const dir of tempDirs) {
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
const { ok } = results;

function start(program, args) {
  const child = spawn(program, args, { stdio: ["ignore", "pipe", "pipe"] });
  child.output = "";
  child.stdout.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.stderr.setEncoding("utf8").on("data", (text) => (child.output += text));
  children.push(child);
  return child;
}

// ---------------------------------------------------------------------------------------------
// A WebSocket client, as far as a device needs one: Node 20 has none, and a browser cannot send
// the device's token header.

const kMaxIncoming = 1024 * 1024;

class WebSocketLink extends EventEmitter {
  constructor(socket, head) {
    super();
    this.socket = socket;
    this.buffer = head;
    this.fragments = [];
    this.opcode = 0;
    socket.setNoDelay(true);
    socket.on("data", (chunk) => {
      this.buffer = Buffer.concat([this.buffer, chunk]);
      this.parse();
    });
    socket.on("close", () => this.emit("close"));
    socket.on("error", () => {});
  }

  static open(url, headers) {
    return new Promise((resolve, reject) => {
      const key = crypto.randomBytes(16).toString("base64");
      const request = http.request(url, {
        headers: {
          Connection: "Upgrade",
          Upgrade: "websocket",
          "Sec-WebSocket-Version": "13",
          "Sec-WebSocket-Key": key,
          ...headers,
        },
      });
      request.on("upgrade", (response, socket, head) => {
        const accept = crypto.createHash("sha1")
          .update(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest("base64");
        if (response.headers["sec-websocket-accept"] !== accept) {
          socket.destroy();
          reject(new Error("the relay answered the upgrade with a wrong accept key"));
          return;
        }
        resolve(new WebSocketLink(socket, head));
      });
      request.on("response", (response) => reject(new Error(`upgrade refused: ${response.statusCode}`)));
      request.on("error", reject);
      request.setTimeout(10_000, () => request.destroy(new Error("upgrade timed out")));
      request.end();
    });
  }

  parse() {
    while (this.buffer.length >= 2) {
      const fin = (this.buffer[0] & 0x80) !== 0;
      const opcode = this.buffer[0] & 0x0f;
      let length = this.buffer[1] & 0x7f;
      let offset = 2;
      if (length === 126) {
        if (this.buffer.length < 4) return;
        length = this.buffer.readUInt16BE(2);
        offset = 4;
      } else if (length === 127) {
        if (this.buffer.length < 10) return;
        length = Number(this.buffer.readBigUInt64BE(2));
        offset = 10;
      }
      if ((this.buffer[1] & 0x80) !== 0 || length > kMaxIncoming) {
        this.socket.destroy();
        return;
      }
      if (this.buffer.length < offset + length) return;
      const payload = this.buffer.subarray(offset, offset + length);
      this.buffer = this.buffer.subarray(offset + length);
      if (opcode === 8) {
        this.sendFrame(8, payload.subarray(0, 2));
        this.socket.end();
        return;
      }
      if (opcode === 9) {
        this.sendFrame(10, payload);
        continue;
      }
      if (opcode === 1 || opcode === 2) {
        this.opcode = opcode;
        this.fragments = [payload];
      } else if (opcode === 0) {
        this.fragments.push(payload);
      } else {
        continue;
      }
      if (fin) {
        const data = Buffer.concat(this.fragments);
        this.fragments = [];
        if (this.opcode === 1) {
          this.emit("text", data.toString("utf8"));
        }
      }
    }
  }

  // Client frames are masked.
  sendFrame(opcode, payload) {
    const length = payload.length;
    const header = length < 126 ? Buffer.alloc(2) : length < 65536 ? Buffer.alloc(4) : Buffer.alloc(10);
    header[0] = 0x80 | opcode;
    if (length < 126) {
      header[1] = 0x80 | length;
    } else if (length < 65536) {
      header[1] = 0x80 | 126;
      header.writeUInt16BE(length, 2);
    } else {
      header[1] = 0x80 | 127;
      header.writeBigUInt64BE(BigInt(length), 2);
    }
    const mask = crypto.randomBytes(4);
    const masked = Buffer.allocUnsafe(length);
    for (let i = 0; i < length; ++i) {
      masked[i] = payload[i] ^ mask[i & 3];
    }
    this.socket.write(Buffer.concat([header, mask, masked]));
  }

  sendText(text) {
    this.sendFrame(1, Buffer.from(text, "utf8"));
  }

  sendBinary(bytes) {
    this.sendFrame(2, bytes);
  }

  close() {
    this.socket.destroy();
  }
}

// ---------------------------------------------------------------------------------------------
// The frame format on the relay: a 28-byte header, big-endian, then the picture.

function frameHeader({ codec, key, parameterSets, captureUs, sequence, picture, screen }) {
  const header = Buffer.alloc(28);
  header.write("VMF1", 0, "latin1");
  header[4] = codec === "h264" ? 2 : 1;
  header[5] = (key ? 1 : 0) | (parameterSets ? 2 : 0);
  header.writeBigUInt64BE(BigInt(captureUs), 8);
  header.writeUInt32BE(sequence >>> 0, 16);
  header.writeUInt16BE(picture.width, 20);
  header.writeUInt16BE(picture.height, 22);
  header.writeUInt16BE(screen.width, 24);
  header.writeUInt16BE(screen.height, 26);
  return header;
}

// What runs in the synthetic device's own page: the pattern, drawn and encoded on request.
function encoderPageScript() {
  const state = { canvas: null, encoder: null, size: "", waiting: [] };
  const toBase64 = (bytes) => new Promise((resolve, reject) => {
    const reader = new FileReader();
    reader.onload = () => resolve(reader.result.slice(reader.result.indexOf(",") + 1));
    reader.onerror = () => reject(reader.error);
    reader.readAsDataURL(new Blob([bytes]));
  });
  const draw = (width, height, colours) => {
    if (!state.canvas || state.canvas.width !== width || state.canvas.height !== height) {
      state.canvas = new OffscreenCanvas(width, height);
    }
    const context = state.canvas.getContext("2d");
    const halfW = width / 2;
    const halfH = height / 2;
    colours.forEach(([r, g, b], i) => {
      context.fillStyle = `rgb(${r}, ${g}, ${b})`;
      context.fillRect((i % 2) * halfW, Math.floor(i / 2) * halfH, halfW, halfH);
    });
  };
  const h264Encoder = (width, height) => {
    const size = width + "x" + height;
    if (state.encoder && state.encoder.state === "configured" && state.size === size) {
      return state.encoder;
    }
    state.encoder?.state !== "closed" && state.encoder?.close();
    const encoder = new VideoEncoder({
      output: (chunk) => {
        const bytes = new Uint8Array(chunk.byteLength);
        chunk.copyTo(bytes);
        state.waiting.shift()?.resolve({ bytes, key: chunk.type === "key" });
      },
      error: (error) => {
        for (const waiter of state.waiting.splice(0)) {
          waiter.reject(error);
        }
      },
    });
    encoder.configure({
      codec: "avc1.42001f",
      width,
      height,
      bitrate: 1_000_000,
      latencyMode: "realtime",
      avc: { format: "annexb" },
    });
    state.encoder = encoder;
    state.size = size;
    return encoder;
  };
  window.encodeFrame = async ({ codec, width, height, key, quality, colours, timestampUs }) => {
    draw(width, height, colours);
    if (codec === "jpeg") {
      const blob = await state.canvas.convertToBlob({ type: "image/jpeg", quality });
      return { data: await toBase64(blob), key: true, parameterSets: false };
    }
    const encoder = h264Encoder(width, height);
    const chunk = new Promise((resolve, reject) => {
      state.waiting.push({ resolve, reject });
      setTimeout(() => reject(new Error("the H.264 encoder gave no output")), 5000);
    });
    const frame = new VideoFrame(state.canvas, { timestamp: timestampUs });
    encoder.encode(frame, { keyFrame: key });
    frame.close();
    const { bytes, key: isKey } = await chunk;
    // Annex B: a start code, then the first NAL unit's header.
    const start = bytes[2] === 1 ? 3 : 4;
    return { data: await toBase64(bytes), key: isKey, parameterSets: (bytes[start] & 0x1f) === 7 };
  };
}

// A device that pairs with the sandbox as the extension does, and streams the pattern: JPEG
// frames, or H.264 with key frames on demand, answering the viewers' stream messages.
async function startSyntheticDevice({ base, context }) {
  const handshake = await fetch(`${base}/api/agent-handshake`, {
    method: "POST",
    headers: { "content-type": "application/json" },
    body: JSON.stringify({ accessKey: kAccessKey, webrtc: false }),
  });
  check(handshake.ok, `the handshake answered ${handshake.status}`);
  const { deviceToken, relayWsUrl } = await handshake.json();

  const encoderPage = await context.newPage();
  // Any loopback page is a secure context, as WebCodecs needs; this one never reaches the sandbox.
  await encoderPage.route("**/synthetic-device", (route) =>
    route.fulfill({ contentType: "text/html", body: "<!doctype html><title>synthetic device</title>" }));
  await encoderPage.goto(`${base}/synthetic-device`);
  await encoderPage.evaluate(`(${encoderPageScript})()`);

  const link = await WebSocketLink.open(relayWsUrl.replace(/^ws/, "http") + "/device",
    { "x-device-token": deviceToken });
  const device = {
    name: "synthetic device",
    screen: kScreen,
    heard: [],
    sent: [],
    streaming: false,
    codec: "jpeg",
    fps: 10,
    quality: 0.8,
    scale: 0.5,
    keyPending: true,
    sequence: 0,
    closed: false,
    error: null,
    colours: patternFor,
    skipSequence() {
      this.skip = true;
    },
    close() {
      this.closed = true;
      link.close();
    },
  };
  link.on("close", () => (device.closed = true));
  link.on("text", (text) => {
    let message;
    try {
      message = JSON.parse(text);
    } catch {
      return;
    }
    if (message === null || typeof message !== "object") {
      return;
    }
    device.heard.push(message);
    switch (message.type) {
      case "ping":
        link.sendText(JSON.stringify({ type: "pong" }));
        break;
      case "latency_ping":
        link.sendText(JSON.stringify({ type: "latency_pong", t: message.t, viewerId: message.viewerId }));
        break;
      case "need_stream":
        if (["jpeg", "h264"].includes(message.prefer)) {
          device.codec = message.prefer;
        }
        device.streaming = true;
        device.keyPending = true;
        break;
      case "stream_control":
        device.streaming = message.streaming !== false;
        device.keyPending = true;
        break;
      case "request_idr":
        device.keyPending = true;
        break;
      case "encode_settings":
        if (["jpeg", "h264"].includes(message.codec) && message.codec !== device.codec) {
          device.codec = message.codec;
          device.keyPending = true;
        }
        if (Number.isFinite(message.fps)) device.fps = Math.min(Math.max(message.fps, 1), 30);
        if (Number.isFinite(message.quality)) device.quality = Math.min(Math.max(message.quality, 0.1), 1);
        if (Number.isFinite(message.scale)) device.scale = Math.min(Math.max(message.scale, 0.1), 1);
        break;
    }
  });

  const even = (n) => Math.max(2, Math.round(n / 2) * 2);
  async function sendFrame() {
    const codec = device.codec;
    const picture = { width: even(kScreen.width * device.scale), height: even(kScreen.height * device.scale) };
    const key = codec === "jpeg" || device.keyPending;
    device.keyPending = false;
    const captureUs = Date.now() * 1000;
    const encoded = await encoderPage.evaluate((args) => window.encodeFrame(args), {
      codec, ...picture, key, quality: device.quality, colours: device.colours(codec), timestampUs: captureUs,
    });
    if (device.skip && !encoded.key) {
      device.skip = false;
      ++device.sequence;
    }
    const header = frameHeader({
      codec, key: encoded.key, parameterSets: encoded.parameterSets, captureUs,
      sequence: device.sequence++, picture, screen: kScreen,
    });
    link.sendBinary(Buffer.concat([header, Buffer.from(encoded.data, "base64")]));
    device.sent.push({ sequence: device.sequence - 1, codec, key: encoded.key, at: Date.now() });
  }
  (async () => {
    while (!device.closed) {
      const began = Date.now();
      if (device.streaming) {
        try {
          await sendFrame();
        } catch (error) {
          device.error ??= error;
        }
      }
      await sleep(Math.max(5, 1000 / device.fps - (Date.now() - began)));
    }
  })();
  return device;
}

// What the extension heard, read back from the lines it logs about the stream messages.
function heardInLog(lines) {
  const heard = [];
  const value = (text) => (text === "(none)" ? undefined : JSON.parse(text));
  for (const line of lines) {
    let match;
    if ((match = /^need_stream(?: \(prefer ("\w*")\))?$/.exec(line))) {
      heard.push({ type: "need_stream", prefer: match[1] && JSON.parse(match[1]) });
    } else if ((match = /^encode_settings: fps=(\S+) quality=(\S+) scale=(\S+) codec=(\S+)$/.exec(line))) {
      heard.push({
        type: "encode_settings", fps: value(match[1]), quality: value(match[2]), scale: value(match[3]),
        codec: value(match[4]),
      });
    } else if ((match = /^stream_control: (on|off)$/.exec(line))) {
      heard.push({ type: "stream_control", streaming: match[1] === "on" });
    } else if (line === "request_idr: key frame requested") {
      heard.push({ type: "request_idr" });
    }
  }
  return heard;
}

// The real extension, paired with the CLI, capturing an Xvfb screen (with --desktop wayland, the
// Wayland session the test runs in) where the event recorder shows the pattern; the recorder keeps
// a marker moving along the top edge, away from where the pattern is looked at, since the
// extension sends nothing while the screen is still.
async function startExtensionDevice({ base }) {
  const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-stream-e2e-"));
  tempDirs.push(work);
  const desktop = new Desktop({
    children,
    paths: { cli: opts.cli, broadcast: opts.broadcast, bundle: opts.bundle, recorder: opts.recorder,
      consent: opts.consent },
    work,
    screen: kDesktopScreen,
    wayland: opts.desktop !== "x11",
    backend: opts.desktop === "portal" ? "portal" : null,
  });
  await desktop.startDesktop();
  await desktop.startRecorder();
  desktop.tellRecorder("animate on");
  desktop.pair(base);
  desktop.startExtension({ viewOnly: opts["view-only"] });
  // The extension asks before it connects: the portal's dialog for the screen and the keyboard
  // and pointer together, or view-only for the screen alone.
  if (opts.desktop === "portal") {
    await desktop.consentToPortal({ remoteInteraction: !opts["view-only"] });
  }
  return {
    name: "extension",
    screen: kDesktopScreen,
    get heard() {
      return heardInLog(desktop.logLines());
    },
    error: null,
    colours: patternFor,
    // The recorder turns its pattern once H.264 frames come: the screen changes, so new ones come.
    showPatternFor: (codec) => codec === "h264" && desktop.tellRecorder("turn"),
    desktop,
    restartCompositor: opts.desktop === "wayland"
      ? async () => {
        await desktop.restartCompositor();
        desktop.tellRecorder("turn");
        desktop.tellRecorder("animate on");
      }
      : null,
    logLines: () => desktop.logLines(),
    close() {},
    report: () => desktop.report(),
  };
}

// ---------------------------------------------------------------------------------------------

let chromium;
try {
  ({ chromium } = await import("playwright-core"));
} catch (error) {
  console.error(
    `stream-e2e: playwright-core is not installed in tests/e2e/node_modules (${error.code ?? error.message});` +
      " run scripts/setup");
  process.exit(1);
}
if (!fs.existsSync(kChromium)) {
  console.error(`stream-e2e: ${kChromium} is missing; run scripts/setup (it installs Debian's chromium)`);
  process.exit(1);
}

let sandbox;
let device;
let page;

// The canvas's colour at the middle of each quadrant, on the viewer's page or another's.
const quadrants = (on = page) => on.evaluate(() => {
  const canvas = document.getElementById("screen");
  const context = canvas.getContext("2d");
  return [[0.25, 0.25], [0.75, 0.25], [0.25, 0.75], [0.75, 0.75]].map(([x, y]) =>
    Array.from(context.getImageData(Math.floor(canvas.width * x), Math.floor(canvas.height * y), 1, 1)
      .data.slice(0, 3)));
});

function nearest(colour) {
  const distance = (a, b) => Math.hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
  return kPalette.reduce((best, candidate) => (distance(colour, candidate) < distance(colour, best) ? candidate : best));
}

async function expectPattern(codec, on = page) {
  const expected = device.colours(codec);
  const matches = (colours) => colours.every((colour, i) => nearest(colour) === expected[i] &&
    Math.hypot(...colour.map((c, j) => c - expected[i][j])) < 60);
  let seen = [];
  await waitFor(`the ${codec} pattern on the canvas`, async () => {
    seen = await quadrants(on);
    return matches(seen);
  }).catch((error) => {
    throw new Error(`${error.message} (last seen ${JSON.stringify(seen)})`);
  });
  return seen;
}

const figure = async (id) => page.locator(`#${id}`).getAttribute("data-value");
const heardSince = (since, type, fields = {}) => device.heard.slice(since).find((message) =>
  message.type === type && Object.entries(fields).every(([key, value]) => message[key] === value));
const waitHeard = (since, type, fields) =>
  waitFor(`${JSON.stringify({ type, ...fields })} at the device`, () => heardSince(since, type, fields));

async function run() {
  sandbox = start(opts.sandbox, ["--port", "0", "--relay-ping-ms", "1000"]);
  const base = await waitFor("the sandbox's URL", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  });
  ok(`sandbox listens at ${base}`);
  const relay = async () => (await fetch(`${base}/admin/relay`)).json();

  browser = await chromium.launch({
    env: browserEnvironment(),
    executablePath: kChromium,
    headless: true,
    timeout: 30_000,
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  const context = await browser.newContext({ viewport: { width: 1200, height: 1100 } });
  device = await (opts.device === "synthetic" ? startSyntheticDevice : startExtensionDevice)({ base, context });
  await waitFor("the device's relay link", async () => (await relay()).deviceConnected);
  ok(`the ${device.name} is connected to the relay`);

  page = await context.newPage();
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
  await waitHeard(0, "need_stream");
  ok("the viewer joining asks the device to stream");

  await page.locator("#stream-codec[data-value=jpeg]").waitFor();
  await expectPattern("jpeg");
  await page.waitForFunction(() => Number(document.getElementById("stream-fps").dataset.value) > 0);
  const { width, height } = device.screen;
  const expectedSize = `${width / 2}×${height / 2} (screen ${width}×${height})`;
  const size = await page.locator("#stream-size").textContent();
  check(size === expectedSize, `the picture's size reads "${size}", not "${expectedSize}"`);
  ok(`JPEG: the canvas shows the pattern, ${expectedSize}`);
  await page.waitForFunction(() =>
    document.getElementById("stream-keyframes").textContent === "every frame (JPEG)");
  ok("with JPEG every frame reads as a key frame");

  // Whatever CSS makes of the canvas, a point on it is a point on the device's screen.
  const point = await page.evaluate(() => {
    const box = document.getElementById("screen").getBoundingClientRect();
    return window.velmorandViewer.canvasToScreen(box.left + box.width * 0.75, box.top + box.height * 0.25);
  });
  check(point?.x === width * 0.75 && point?.y === height * 0.25,
    `the canvas maps (75 %, 25 %) to ${JSON.stringify(point)}`);
  ok("a point on the canvas maps to screen pixels");


  const settings = page.getByRole("group", { name: "Encode settings", exact: true });
  let since = device.heard.length;
  await settings.getByLabel("codec", { exact: true }).selectOption("h264");
  await settings.getByLabel("fps", { exact: true }).fill("15");
  await settings.getByRole("button").click();
  await waitHeard(since, "encode_settings", { codec: "h264", fps: 15 });
  await page.locator("#stream-codec[data-value=h264]").waitFor();
  device.showPatternFor?.("h264");
  await expectPattern("h264");
  const codec = await page.locator("#stream-codec").textContent();
  check(/^H\.264 \(avc1\.[0-9a-f]{6}\)$/.test(codec), `the codec reads "${codec}"`);
  ok(`H.264: the codec switch reaches the device and the canvas shows the pattern (${codec})`);

  // Two seconds of H.264 at 15 frames a second, to judge the figures by.
  await sleep(2500);
  const figures = {
    fps: Number(await figure("stream-fps")),
    kbps: Number(await figure("stream-bitrate")),
    latency: Number(await figure("stream-latency")),
    missed: Number(await figure("stream-missed")),
  };
  check(figures.fps >= 5 && figures.fps <= 20 && figures.kbps > 0 && figures.latency >= 0 &&
    figures.latency < 1000 && figures.missed === 0, `unlikely figures ${JSON.stringify(figures)}`);
  ok(`the figures make sense: ${JSON.stringify(figures)}`);

  since = device.heard.length;
  const keyFrames = Number(await figure("stream-keyframes"));
  await page.getByRole("button", { name: "Request key frame" }).click();
  await waitHeard(since, "request_idr");
  await page.waitForFunction((before) =>
    Number(document.getElementById("stream-keyframes").dataset.value) > before, keyFrames);
  ok("Request key frame reaches the device, and a key frame follows");


  if (device.skipSequence) {
    since = device.heard.length;
    const gapAt = device.sequence;
    device.skipSequence();
    await page.waitForFunction(() => document.getElementById("stream-missed").dataset.value === "1");
    await waitHeard(since, "request_idr");
    await waitFor("a key frame after the gap", () =>
      device.sent.some((frame) => frame.key && frame.sequence > gapAt));
    // A whole second of figures after it: the picture moves again.
    await sleep(2000);
    check(Number(await figure("stream-fps")) > 5, "the picture stays still after the gap");
    ok("a frame lost on the way counts as missed, the page asks for a key frame and goes on");
  }

  since = device.heard.length;
  await page.getByRole("button", { name: "Stop streaming" }).click();
  await waitHeard(since, "stream_control", { streaming: false });
  await sleep(500);
  const stoppedAt = (await relay()).frames.received;
  await sleep(1500);
  const later = (await relay()).frames.received;
  check(later === stoppedAt, `frames kept coming after Stop: ${stoppedAt} then ${later}`);
  await page.waitForFunction(() => document.getElementById("stream-fps").dataset.value === "0");
  ok("Stop streaming stops the frames");

  since = device.heard.length;
  await page.getByRole("button", { name: "Start streaming" }).click();
  await waitHeard(since, "need_stream", { prefer: "h264" });
  await waitFor("frames again", async () => (await relay()).frames.received > later);
  await page.waitForFunction(() => Number(document.getElementById("stream-fps").dataset.value) > 0);
  ok("Start streaming starts them again");

  if (device.desktop) {
    // A still screen: nothing is sent after its last change, and a viewer who joins then still
    // gets a key frame of it to start from.
    device.desktop.tellRecorder("animate off");
    await sleep(1000);
    const stillAt = (await relay()).frames.received;
    await sleep(2000);
    const stillLater = (await relay()).frames.received;
    check(stillLater === stillAt, `a still screen sent ${stillLater - stillAt} frames in 2 s`);
    const second = await context.newPage();
    await second.goto(`${base}/`);
    // Its decoder shows nothing before a key frame: the pattern is the proof.
    await second.locator("#stream-codec[data-value=h264]").waitFor();
    await expectPattern("h264", second);
    await second.close();
    device.desktop.tellRecorder("animate on");
    ok(`a still screen sends nothing in 2 s; a viewer who joins then gets a key frame of it`);
  }

  if (device.restartCompositor) {
    const logged = device.logLines().length;
    await device.restartCompositor();
    const since = () => device.logLines().slice(logged);
    await waitFor("the capture's end in extension.log", () =>
      since().some((line) => line.startsWith("stream: stopped — ")), 15_000);
    await waitFor("a new stream in extension.log", () =>
      since().some((line) => /^stream: new h264 stream, 960x540 from a 1920x1080 screen$/.test(line)), 20_000);
    const received = (await relay()).frames.received;
    await waitFor("frames from the new stream", async () => (await relay()).frames.received > received);
    await expectPattern("h264");
    ok(`the compositor restarts: ${since().find((line) => line.startsWith("stream: stopped — "))}, ` +
      "and the picture comes back");
  }


  if (opts.desktop === "portal" && opts["view-only"]) {
    // A screen cast alone is a grant the portal keeps: the next broadcast shares without asking.
    const { desktop } = device;
    await desktop.stopExtension();
    const logged = desktop.logLines().length;
    const received = (await relay()).frames.received;
    desktop.startExtension({ viewOnly: true });
    await waitFor("frames from the next broadcast, nobody asked", async () =>
      (await relay()).frames.received > received, 20_000);
    const said = desktop.logLines().slice(logged).filter((line) => line.startsWith("portal: "));
    check(JSON.stringify(said) === JSON.stringify(
      ["portal: sharing the screen as the person at the device allowed before"]),
    `the next broadcast logged ${JSON.stringify(said)}`);
    ok("the portal's grant is kept: the next broadcast shares the screen without asking");
  }

  if (opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true });
    ok(`screenshot in ${opts.screenshot}`);
  }
  const log = await page.locator("#frames").textContent();
  const frameLines = (log.match(/← \d+ frames? \(/g) ?? []).length;
  check(frameLines > 0 && frameLines < 40, `${frameLines} lines about frames in the log`);
  check(pageErrors.length === 0, `the page reported errors:\n${pageErrors.join("\n")}`);
  check(device.error === null, `the device failed: ${device.error?.stack ?? device.error}`);
  ok("the page ran without errors, logging frames once a second");

  since = device.heard.length;
  await page.close();
  await waitHeard(since, "stream_control", { streaming: false });
  ok("the last viewer leaving stops the stream");
}

try {
  await run();
  console.log(`${results.passed} passed, 0 failed`);
} catch (error) {
  console.error(`not ok - ${error.message}`);
  console.error(`--- sandbox output ---\n${sandbox?.output ?? ""}`);
  console.error(`--- device heard ---\n${JSON.stringify(device?.heard ?? [])}`);
  if (device?.report) {
    console.error(device.report());
  }
  if (device?.error) {
    console.error(`--- device error ---\n${device.error.stack ?? device.error}`);
  }
  if (page && !page.isClosed() && opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true }).catch(() => {});
  }
  console.log(`${results.passed} passed, 1 failed`);
  process.exitCode = 1;
} finally {
  device?.close?.();
  await Promise.race([browser?.close().catch(() => {}), sleep(10_000)]);
}
process.exit();
