// viewer → relay → extension → desktop, for remote control: the pointer and the keyboard on the
// viewer page's live picture, in headless Chromium, carried out by the real extension on an Xvfb
// screen (or, with --desktop wayland, on the Wayland session the test runs in; with --desktop
// portal, the same through the desktop portal, whose dialog --consent answers), as the event
// recorder's window there receives them; the clipboard as another program reads it; then nothing
// at all from a view-only extension.
//
// node control-e2e.mjs --sandbox PATH --cli PATH --broadcast PATH --bundle DIR --recorder PATH
//                      [--desktop x11|wayland|portal [--consent PATH]] [--screenshot PNG]
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import { parseArgs } from "node:util";

import { Desktop, start, stopAll } from "./desktop.mjs";
import { browserEnvironment, check, testRun, waitFor } from "./harness.mjs";

const kChromium = "/usr/bin/chromium";
// Every wait below has its own limit; this one catches anything they miss.
const kWholeRunMs = 150_000;
const kScreen = { width: 1920, height: 1080 };
// Screen pixels apart a pointer event may land from where the page was pointed at.
const kTolerance = 2;
const kViewOnly = " — not carried out (view-only)";

const { values: opts } = parseArgs({
  options: {
    sandbox: { type: "string" },
    cli: { type: "string" },
    broadcast: { type: "string" },
    bundle: { type: "string" },
    recorder: { type: "string" },
    desktop: { type: "string", default: "x11" },
    consent: { type: "string" },
    screenshot: { type: "string" },
  },
});
const portal = opts.desktop === "portal";
const wayland = opts.desktop === "wayland" || portal;
for (const name of ["sandbox", "cli", "broadcast", "bundle", "recorder", ...(portal ? ["consent"] : [])]) {
  if (!opts[name]) {
    console.error(`control-e2e: --${name} is required`);
    process.exit(2);
  }
}

const children = [];
const work = fs.mkdtempSync(path.join(os.tmpdir(), "velmorand-control-e2e-"));
let browser = null;

const results = testRun("control-e2e", kWholeRunMs, () => {
  stopAll(children);
  fs.rmSync(work, { recursive: true, force: true });
});
const { ok } = results;

let chromium;
try {
  ({ chromium } = await import("playwright-core"));
} catch (error) {
  console.error(
    `control-e2e: playwright-core is not installed in tests/e2e/node_modules (${error.code ?? error.message});` +
      " run scripts/setup");
  process.exit(1);
}
if (!fs.existsSync(kChromium)) {
  console.error(`control-e2e: ${kChromium} is missing; run scripts/setup (it installs Debian's chromium)`);
  process.exit(1);
}

const desktop = new Desktop({
  children,
  paths: { cli: opts.cli, broadcast: opts.broadcast, bundle: opts.bundle, recorder: opts.recorder,
    consent: opts.consent },
  work,
  screen: kScreen,
  wayland,
  backend: portal ? "portal" : null,
});
let sandbox;
let page;

// ---------------------------------------------------------------------------------------------
// What the recorder and extension.log show after a mark.

const mark = () => ({ events: desktop.events.length, log: desktop.logLines().length });
const eventsSince = (since, kind) =>
  desktop.events.slice(since.events).filter((event) => kind === undefined || event.event === kind);
const logSince = (since) => desktop.logLines().slice(since.log);

async function waitLog(since, pattern) {
  const found = () => logSince(since).map((line) => pattern.exec(line)).find(Boolean);
  return waitFor(`a line like ${pattern} in extension.log (since: ${JSON.stringify(logSince(since))})`, found);
}

// A broadcast through the portal starts only once the person at the device has shared the screen
// (and, unless view-only, allowed the keyboard and pointer): the portal asks at every start.
async function startExtension({ viewOnly = false } = {}) {
  desktop.startExtension({ viewOnly });
  if (portal) {
    await desktop.consentToPortal({ remoteInteraction: !viewOnly });
  }
}

const near = (event, point) =>
  Math.abs(event.x - point.x) <= kTolerance && Math.abs(event.y - point.y) <= kTolerance;

// A point on the picture, in whole CSS pixels, and the screen pixel it stands for.
async function spot(fx, fy) {
  const box = await page.locator("#screen").boundingBox();
  const x = Math.round(box.x + box.width * fx);
  const y = Math.round(box.y + box.height * fy);
  return {
    x,
    y,
    screen: {
      x: Math.floor(((x - box.x) / box.width) * kScreen.width),
      y: Math.floor(((y - box.y) / box.height) * kScreen.height),
    },
  };
}

// The characters the recorder's window was typed, in order, pastes included; keys that type
// nothing left out.
const typedSince = (since) => eventsSince(since)
  .filter((event) => event.event === "key" || event.event === "paste")
  .map((event) => event.text).join("");

// ---------------------------------------------------------------------------------------------

async function run() {
  sandbox = start(children, opts.sandbox, ["--port", "0", "--relay-ping-ms", "1000"]);
  const base = await waitFor("the sandbox's URL", () => {
    const line = sandbox.output.split("\n")[0];
    return sandbox.output.includes("\n") && /^https?:\/\//.test(line) ? line : null;
  });
  const relay = async () => (await fetch(`${base}/admin/relay`)).json();

  await desktop.startDesktop();
  await desktop.startRecorder();
  desktop.pair(base);
  await startExtension();
  await waitFor("the extension's relay link", async () => (await relay()).deviceConnected);
  ok(`the extension broadcasts ${desktop.display}, where the recorder's window has the focus`);

  browser = await chromium.launch({
    env: browserEnvironment(),
    executablePath: kChromium,
    headless: true,
    timeout: 30_000,
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  const context = await browser.newContext({ viewport: { width: 1200, height: 1100 } });
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
  await page.locator('#stream-size[data-value="960x540"]').waitFor();
  await page.locator("#screen").waitFor({ state: "visible" });
  ok("the page shows the desktop's picture");

  // A click: one tap, where the page was clicked, once the wait for a second click is over.
  let since = mark();
  const click = await spot(0.3, 0.6);
  await page.mouse.click(click.x, click.y);
  const tap = await waitLog(since, /^control: tap x=(\d+) y=(\d+)$/);
  const tapped = { x: Number(tap[1]), y: Number(tap[2]) };
  check(near(tapped, click.screen), `the page sent a tap at ${JSON.stringify(tapped)} for ${JSON.stringify(click.screen)}`);
  await waitFor("the click in the recorder's window", () => eventsSince(since, "release").length > 0);
  await sleep(300);
  const presses = eventsSince(since, "press");
  const releases = eventsSince(since, "release");
  check(presses.length === 1 && releases.length === 1 && presses[0].button === 1 &&
    near(presses[0], click.screen) && near(releases[0], click.screen),
  `for a click at ${JSON.stringify(click.screen)} the window got ${JSON.stringify(eventsSince(since))}`);
  check(await page.evaluate(() => document.activeElement?.id === "keyboard"),
    "a click on the picture leaves the keyboard elsewhere");
  ok(`a click at (30 %, 60 %) of the picture lands at ${JSON.stringify(presses[0])} on the screen`);

  // A double click: one double click for the desktop, not two clicks and then two more.
  since = mark();
  const twice = await spot(0.7, 0.3);
  await page.mouse.dblclick(twice.x, twice.y);
  await waitLog(since, /^control: doubleTap x=\d+ y=\d+$/);
  await waitFor("the double click in the recorder's window", () => eventsSince(since, "release").length >= 2);
  await sleep(400);
  const clicks = eventsSince(since).filter((event) => event.event === "press" || event.event === "release");
  check(clicks.length === 4 && clicks.every((event) => near(event, twice.screen)) &&
    !logSince(since).some((line) => line.startsWith("control: tap ")),
  `a double click made ${JSON.stringify(clicks)} and logged ${JSON.stringify(logSince(since))}`);
  ok("a double click is one double tap: two presses and releases in the window, no taps");

  // A press held still: a long press, held about as long.
  since = mark();
  const hold = await spot(0.25, 0.25);
  await page.mouse.move(hold.x, hold.y);
  await page.mouse.down();
  await sleep(700);
  await page.mouse.up();
  const longPress = await waitLog(since, /^control: longPress x=\d+ y=\d+ ms=(\d+) — held (\d+) ms$/);
  await waitFor("the long press in the recorder's window", () => eventsSince(since, "release").length > 0);
  const held = Number(longPress[1]);
  check(held >= 650 && held < 2000 && eventsSince(since, "press").length === 1 &&
    near(eventsSince(since, "press")[0], hold.screen),
  `a 700 ms press was sent as ${longPress[0]} and made ${JSON.stringify(eventsSince(since))}`);
  ok(`a press held 700 ms is a long press: ${longPress[0]}`);

  // A drag: the button goes down where it began, the pointer follows, the button comes up where
  // it ended; nothing else. (extension.log names the commands in camel case.)
  since = mark();
  const from = await spot(0.2, 0.3);
  const to = await spot(0.6, 0.7);
  await page.mouse.move(from.x, from.y);
  await page.mouse.down();
  for (let step = 1; step <= 12; ++step) {
    await page.mouse.move(from.x + ((to.x - from.x) * step) / 12, from.y + ((to.y - from.y) * step) / 12);
    await sleep(20);
  }
  await page.mouse.up();
  await waitLog(since, /^control: touchUp x=\d+ y=\d+$/);
  await waitFor("the drag's release in the recorder's window", () => eventsSince(since, "release").length > 0);
  const commands = logSince(since).filter((line) => line.startsWith("control: ")).map((line) => line.split(" ")[1]);
  const moved = commands.filter((command) => command === "touchMove").length;
  check(commands[0] === "touchDown" && commands.at(-1) === "touchUp" && moved >= 3 &&
    commands.length === moved + 2, `a drag was sent as ${JSON.stringify(commands)}`);
  const drag = eventsSince(since).filter((event) => event.event !== "key");
  const pressAt = drag.findIndex((event) => event.event === "press");
  const releaseAt = drag.findIndex((event) => event.event === "release");
  const between = drag.slice(pressAt + 1, releaseAt).filter((event) => event.event === "motion");
  check(pressAt >= 0 && releaseAt > pressAt && near(drag[pressAt], from.screen) && near(drag[releaseAt], to.screen) &&
    between.length >= 3 && between.some((event) => event.x > from.screen.x + 50 && event.x < to.screen.x - 50) &&
    drag.filter((event) => event.event === "press").length === 1,
  `a drag from ${JSON.stringify(from.screen)} to ${JSON.stringify(to.screen)} made ${JSON.stringify(drag)}`);
  ok(`a drag is a press, ${between.length} moves and a release in the window, ${moved} touch_moves sent`);

  // Typing: every character, in order, whatever the layout lacks; an input method's text once it
  // is composed, not while. The portal offers no clipboard to paste what no key types, so there
  // those characters are counted as having no key, and the rest still arrive in order.
  // What no key types is pasted on GNOME; whatever another program had on the clipboard is there
  // again afterwards.
  const kept = "the desktop's own \u2713";
  if (wayland && !portal) {
    await desktop.copyToClipboard(kept);
  }
  since = mark();
  await page.keyboard.type("Hello é€!");
  const cdp = await page.context().newCDPSession(page);
  await cdp.send("Input.imeSetComposition", { text: "にほん", selectionStart: 3, selectionEnd: 3 });
  await sleep(200);
  check(!typedSince(since).includes("に"), `text still being composed reached the window: "${typedSince(since)}"`);
  await cdp.send("Input.insertText", { text: "日本" });
  const sent = "Hello é€!日本";
  // Through the portal, the layout decides which of the others arrive; the letters always do.
  const least = portal ? "Hello !" : sent;
  const textLines = () => logSince(since).filter((line) => line.startsWith("control: text "))
    .map((line) => /^control: text (\d+) characters?(?: — (\d+) with no key)?$/.exec(line) ?? [line]);
  const total = (group) => textLines().reduce((sum, match) => sum + Number(match[group] ?? 0), 0);
  await waitFor(`"${least}" in the recorder's window (so far "${typedSince(since)}")`,
    () => typedSince(since).length >= least.length);
  await waitFor(`${Array.from(sent).length} characters typed in extension.log (${JSON.stringify(logSince(since))})`,
    () => total(1) >= Array.from(sent).length);
  await sleep(300);
  const arrived = Array.from(typedSince(since));
  const inOrder = arrived.reduce((rest, character) => {
    const at = rest?.indexOf(character) ?? -1;
    return at < 0 ? null : rest.slice(at + 1);
  }, Array.from(sent)) !== null;
  check(textLines().every((match) => match.length > 1) &&
    logSince(since).every((line) => line.startsWith("control: text ")),
  `typing logged ${JSON.stringify(logSince(since))}`);
  check(portal ? inOrder && arrived.join("").includes("Hello") && arrived.includes("!") : arrived.join("") === sent,
    `"${sent}" typed on the page arrived as "${arrived.join("")}"`);
  check(total(1) === Array.from(sent).length && total(2) === Array.from(sent).length - arrived.length,
    `"${arrived.join("")}" arrived, and typing logged ${JSON.stringify(logSince(since))}`);
  ok(`typed text "${sent}" arrives as "${arrived.join("")}", in ${textLines().length} text command(s)`);
  if (wayland && !portal) {
    let after = null;
    await waitFor("the clipboard another program held back after typing", async () =>
      (after = await desktop.clipboardText()) === kept, 3000)
      .catch((error) => { throw new Error(`${error.message}: it holds ${JSON.stringify(after)}`); });
    ok("the clipboard another program held is back after typing");
  }

  // Keys and combinations, by their names. Every key of a combination is let go after it: the
  // key after a combination of two modifiers arrives with neither held.
  const keys = [
    { press: "Control+a", line: 'control: key "ctrl+a"', keysym: ["a"], modifier: "ctrl" },
    { press: "Control+Shift+z", line: 'control: key "ctrl+shift+z"', keysym: ["z", "Z"], modifier: "shift" },
    { press: "Enter", line: 'control: key "enter"', keysym: ["Return"] },
    { press: "Shift+Tab", line: 'control: key "shift+tab"', keysym: ["Tab", "ISO_Left_Tab"], modifier: "shift" },
    { press: "F5", line: 'control: key "f5"', keysym: ["F5"] },
    { press: "Backspace", line: 'control: key "backspace"', keysym: ["BackSpace"] },
  ];
  for (const key of keys) {
    since = mark();
    await page.keyboard.press(key.press);
    await waitLog(since, new RegExp(`^${key.line.replace(/[+]/g, "\\+")}$`));
    const arrived = await waitFor(`${key.keysym[0]} in the recorder's window`, () =>
      eventsSince(since, "key").find((event) => key.keysym.includes(event.keysym)));
    check(key.modifier === undefined ? !arrived.ctrl && !arrived.shift : arrived[key.modifier] === true,
      `${key.press} arrived as ${JSON.stringify(eventsSince(since, "key"))}`);
    check(logSince(since).filter((line) => line.startsWith("control: ")).length === 1,
      `${key.press} logged ${JSON.stringify(logSince(since))}`);
  }
  // The one combination kept back: it gives the keyboard back to the page.
  since = mark();
  await page.keyboard.press("Shift+Escape");
  await sleep(300);
  check(await page.evaluate(() => document.activeElement?.id !== "keyboard") &&
    !logSince(since).some((line) => line.startsWith("control: ")),
  `Shift+Esc went to the device: ${JSON.stringify(logSince(since))}`);
  ok(`keys arrive by name, with their modifiers held: ${keys.map((key) => key.press).join(", ")}; ` +
    "Shift+Esc leaves the picture");

  // The device's buttons, as the desktop's keys for them.
  since = mark();
  const buttons = [
    ["Home", "home", "Super_L"],
    ["Volume up", "volumeup", "XF86AudioRaiseVolume"],
    ["Volume down", "volumedown", "XF86AudioLowerVolume"],
    ["Mute", "mute", "XF86AudioMute"],
    ["Lock", "lock", "XF86ScreenSaver"],
  ];
  for (const [label, name] of buttons) {
    await page.getByRole("group", { name: "Device buttons" }).getByRole("button", { name: label, exact: true }).click();
    await waitLog(since, new RegExp(`^control: button "${name}"$`));
  }
  // GNOME keeps Super for itself (its overview: what the home button is for), so no window gets
  // it there.
  const expected = buttons.map(([, , keysym]) => keysym).filter((keysym) => !wayland || keysym !== "Super_L");
  await waitFor(`${expected.join(", ")} in the recorder's window`,
    () => eventsSince(since, "key").length >= expected.length);
  const pressed = eventsSince(since, "key").map((event) => event.keysym);
  check(JSON.stringify(pressed) === JSON.stringify(expected), `the buttons arrived as ${JSON.stringify(pressed)}`);
  ok(`the device buttons arrive as ${pressed.join(", ")}`);

  // The clipboard: what a viewer pastes, another application reads back in each form that can
  // hold it (Latin-1 cannot hold the euro sign).
  since = mark();
  const pasted = "h\u00e9llo w\u00f6rld \u20ac \u2713";
  const clipboard = page.getByRole("group", { name: "Clipboard", exact: true });
  await clipboard.getByLabel("Text to paste", { exact: true }).fill(pasted);
  await clipboard.getByRole("button").click();
  if (portal) {
    await waitLog(since, /^control: setClipboard 15 characters — refused: this desktop offers no clipboard to set$/);
    ok("a viewer's paste is refused on the portal, which offers no clipboard");
  } else if (wayland) {
    await waitLog(since, /^control: setClipboard 15 characters$/);
    const read = await waitFor("the viewer's paste on the desktop's clipboard", async () => {
      const text = await desktop.clipboardText();
      return text === pasted ? text : null;
    });
    ok(`a viewer's paste is the desktop's clipboard: ${JSON.stringify(read)}`);
    since = mark();
    await page.focus("#keyboard");
    await page.keyboard.type("\u00e9");
    await waitFor("é typed after the paste", () => typedSince(since) === "\u00e9");
    // It is put back once the paste's reads are over, a moment after the character arrived.
    let after = null;
    await waitFor("the viewer's paste back on the clipboard after typing é", async () =>
      (after = await desktop.clipboardText()) === pasted, 3000)
      .catch((error) => { throw new Error(`${error.message}: it holds ${JSON.stringify(after)}`); });
    ok("the viewer's paste stays on the clipboard when é is typed after it");
  } else {
    await waitLog(since, /^control: setClipboard 15 characters$/);
    const forms = {
      UTF8_STRING: desktop.paste("UTF8_STRING"),
      "text/plain;charset=utf-8": desktop.paste("text/plain;charset=utf-8"),
      STRING: desktop.paste("STRING"),
    };
    check(forms.UTF8_STRING === pasted && forms["text/plain;charset=utf-8"] === pasted && forms.STRING === null,
      `the clipboard read back as ${JSON.stringify(forms)}`);
    const targets = desktop.paste("TARGETS") ?? "";
    check(targets.includes("UTF8_STRING") && !targets.split("\n").includes("STRING"),
      `the clipboard offers ${JSON.stringify(targets)}`);
    ok(`a viewer's paste is the desktop's clipboard: ${JSON.stringify(forms)}`);
  }
  // The form is further down the page: the picture back into view.
  await page.locator("#screen").scrollIntoViewIfNeeded();

  // The deliberate stop (a frame rate no integer holds), mid-drag: the broadcast comes back by
  // itself, and lets go of the button the dead one held and of the keycode it borrowed for é.
  since = mark();
  check(wayland || desktop.keycodesFor("eacute") === 1, "typing é did not borrow a keycode for it");
  const grab = await spot(0.4, 0.4);
  await page.mouse.move(grab.x, grab.y);
  await page.mouse.down();
  await page.mouse.move(grab.x + 40, grab.y + 40);
  await waitLog(since, /^control: touchDown x=\d+ y=\d+$/);
  await waitFor("the drag's press in the recorder's window", () => eventsSince(since, "press").length > 0);
  await page.evaluate(async () => {
    const token = document.querySelector('meta[name="velmorand-viewer-token"]').content;
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    const viewer = new WebSocket(`${scheme}//${location.host}/relay/viewer?token=${token}`);
    await new Promise((resolve) => (viewer.onopen = resolve));
    viewer.send(JSON.stringify({ type: "encode_settings", fps: 1e300 }));
  });
  await waitLog(since, /^the broadcast died of signal 6 \(Aborted\) after [\d.]+ s — starting it again in 1 s$/);
  await waitFor("the held button let go of in the recorder's window",
    () => eventsSince(since, "release").length > 0, 15_000);
  if (portal) {
    await desktop.consentToPortal({ remoteInteraction: true });
  }
  await waitLog(since, /^relay: link open$/);
  check(wayland || desktop.keycodesFor("eacute") === 0, "the keycode borrowed for é is still bound");
  await page.mouse.up();
  ok(`the broadcast comes back after the deliberate stop, with the button${wayland ? "" : " and the keycode"} let go`);

  // View-only: the same commands are logged and nothing reaches the window.
  const stopped = await desktop.stopExtension();
  check(stopped.code === 0, `the extension stopped with ${JSON.stringify(stopped)}`);
  since = mark();
  await startExtension({ viewOnly: true });
  await waitLog(since, /^view-only: viewers' commands are logged, not carried out$/);
  await waitFor("the view-only extension's relay link", async () => (await relay()).deviceConnected);
  await waitLog(since, /^relay: link open$/);
  since = mark();
  const ignored = await spot(0.5, 0.5);
  await page.mouse.click(ignored.x, ignored.y);
  await waitLog(since, new RegExp(`^control: tap x=\\d+ y=\\d+${kViewOnly.replace(/[()]/g, "\\$&")}$`));
  await page.keyboard.type("ok");
  await waitLog(since, new RegExp(`^control: text 2 characters${kViewOnly.replace(/[()]/g, "\\$&")}$`));
  await sleep(500);
  check(eventsSince(since).length === 0, `the view-only extension made ${JSON.stringify(eventsSince(since))}`);
  ok("a view-only extension logs a click and typing as not carried out, and the window gets nothing");

  if (opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true });
    ok(`screenshot in ${opts.screenshot}`);
  }
  check(pageErrors.length === 0, `the page reported errors:\n${pageErrors.join("\n")}`);
  ok("the page ran without errors");
}

try {
  await run();
  console.log(`${results.passed} passed, 0 failed`);
} catch (error) {
  console.error(`not ok - ${error.message}`);
  console.error(`--- sandbox output ---\n${sandbox?.output ?? ""}`);
  console.error(desktop.report());
  if (page && opts.screenshot) {
    await page.screenshot({ path: opts.screenshot, fullPage: true }).catch(() => {});
  }
  console.log(`${results.passed} passed, 1 failed`);
  process.exitCode = 1;
} finally {
  await Promise.race([browser?.close().catch(() => {}), sleep(10_000)]);
}
process.exit();
