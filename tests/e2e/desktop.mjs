// The desktop end of the end-to-end tests: a private X server (or the Wayland session the test
// runs in: tests/wayland/headless-gnome), the event recorder's window over its whole screen, and
// the upload extension paired with the sandbox and broadcasting that screen, as the application
// starts it.
import { spawn, spawnSync } from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import { setTimeout as sleep } from "node:timers/promises";

import { waitFor } from "./harness.mjs";

const kGroup = "group.co.velmorand.connect";
export const kAccessKey = "demo-key-1234";
// Top left, top right, bottom left, bottom right, as the event recorder paints them and the
// synthetic device of stream-e2e.mjs draws them; far apart, so that no codec's error can turn one
// into another.
export const kPalette = [[220, 40, 40], [40, 180, 70], [40, 80, 220], [235, 200, 40]];

// A process whose output is kept for the report, and which `children` holds for stopping. One
// that cannot start ends at once, with its reason in its output.
export function start(children, program, args, options = {}) {
  const child = spawn(program, args, { stdio: ["ignore", "pipe", "pipe"], ...options });
  child.output = "";
  child.stdout?.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.stderr?.setEncoding("utf8").on("data", (text) => (child.output += text));
  child.on("error", (error) => (child.output += `${error.message}\n`));
  // On "close", not "exit": a process's last words may still be in the pipe when it has exited.
  child.exited = new Promise((resolve) => child.on("close", (code, signal) => resolve({ code, signal })));
  children.push(child);
  return child;
}

// Stops the test's processes, whichever way it ends: SIGKILL for each, for its whole group when
// it leads one, but SIGTERM for the X server, which leaves its lock file and socket behind
// otherwise.
export function stopAll(children) {
  for (const child of children) {
    if (child.exitCode === null && child.signalCode === null) {
      try {
        process.kill(child.ownGroup ? -child.pid : child.pid, child.stopSignal ?? "SIGKILL");
      } catch {}
    }
  }
}

export class Desktop {
  // paths: cli, broadcast, bundle, recorder; work: a directory of the test's own; wayland: the
  // session's own compositor rather than an X server of the test's.
  // backend: the extension's --desktop, when the test chooses.
  constructor({ children, paths, work, screen, wayland = false, backend = null }) {
    this.children = children;
    this.paths = paths;
    this.screen = screen;
    this.wayland = wayland;
    this.backend = backend;
    this.dataDir = path.join(work, "data");
    fs.mkdirSync(this.dataDir, { recursive: true });
    this.logPath = path.join(this.dataDir, "Group Containers", kGroup, "extension.log");
    this.display = null;
    this.events = [];
    this.recorder = null;
    this.extension = null;
  }

  // The X server, or the Wayland session's display.
  async startDesktop() {
    if (!this.wayland) {
      return this.startX();
    }
    this.display = process.env.WAYLAND_DISPLAY;
    if (!this.display) {
      throw new Error("no WAYLAND_DISPLAY: run the test inside tests/wayland/headless-gnome");
    }
    return this.display;
  }

  // A display nobody holds: the server picks it and says which.
  async startX() {
    const xvfb = start(this.children, "Xvfb",
      ["-displayfd", "3", "-screen", "0", `${this.screen.width}x${this.screen.height}x24`, "-nolisten", "tcp"],
      { stdio: ["ignore", "pipe", "pipe", "pipe"] });
    xvfb.stopSignal = "SIGTERM";
    let number = "";
    xvfb.stdio[3]?.setEncoding("utf8").on("data", (text) => (number += text));
    await waitFor("Xvfb's display number", () => {
      if (xvfb.exitCode !== null || xvfb.signalCode !== null) {
        throw new Error(`Xvfb ended: ${xvfb.output}`);
      }
      return /^\d+\n/.test(number);
    });
    this.xvfb = xvfb;
    this.display = `:${number.trim()}`;
    return this.display;
  }

  // The recorder ends with this process: its standard input closes.
  async startRecorder() {
    const since = this.events.length;
    const recorder = start(this.children, this.paths.recorder, [], {
      stdio: ["pipe", "pipe", "pipe"],
      env: this.wayland
        ? { ...process.env, QT_QPA_PLATFORM: "wayland" }
        : { ...process.env, QT_QPA_PLATFORM: "xcb", DISPLAY: this.display },
    });
    // Gone before its standard input closes, it must not take this process with it.
    recorder.stdin.on("error", () => {});
    let partial = "";
    recorder.stdout.on("data", (text) => {
      const lines = (partial + text).split("\n");
      partial = lines.pop();
      for (const line of lines) {
        try {
          this.events.push(JSON.parse(line));
        } catch {
          this.events.push({ event: "error", what: `not JSON: ${line}` });
        }
      }
    });
    this.recorder = recorder;
    await waitFor("the recorder's window", () => {
      const error = this.events.slice(since).find((event) => event.event === "error");
      if (error || recorder.exitCode !== null) {
        throw new Error(`the recorder failed: ${error?.what ?? recorder.output}`);
      }
      return this.events.slice(since).some((event) => event.event === "ready");
    });
  }

  // Restarts the compositor of the Wayland session the test runs in (tests/wayland/
  // headless-gnome), as a crash and a restart would; the recorder goes with it and starts again.
  async restartCompositor() {
    const session = Number(process.env.VELMORAND_HEADLESS_GNOME_PID);
    if (!this.wayland || !session) {
      throw new Error("only a headless GNOME session's compositor can be restarted");
    }
    process.kill(session, "SIGUSR1");
    await waitFor("the recorder to go with the compositor", () => this.recorder.exitCode !== null ||
      this.recorder.signalCode !== null);
    // The new compositor takes a moment to listen.
    const deadline = Date.now() + 15_000;
    for (;;) {
      try {
        return await this.startRecorder();
      } catch (error) {
        if (Date.now() > deadline) {
          throw error;
        }
        await sleep(200);
      }
    }
  }

  tellRecorder(command) {
    this.recorder.stdin.write(command + "\n");
  }

  cli(...args) {
    const result = spawnSync(this.paths.cli, ["--data-dir", this.dataDir, "--bundle-dir", this.paths.bundle, ...args],
      { encoding: "utf8", timeout: 30_000 });
    if (result.error || result.status !== 0) {
      throw new Error(`velmorand ${args.join(" ")} exited ${result.status}: ${result.error ?? ""}` +
        `${result.stdout}${result.stderr}`);
    }
    return result;
  }

  pair(serviceUrl) {
    this.cli("--service-url", serviceUrl, "pair", kAccessKey);
  }

  // As the application does: detached, with its data and bundle directories; on this display.
  startExtension({ viewOnly = false } = {}) {
    const args = ["--data-dir", this.dataDir, "--bundle-dir", this.paths.bundle, "--min-delay", "0.2", "--max-delay", "1",
      ...(this.backend ? ["--desktop", this.backend] : [])];
    // On Wayland, an X server of its own in the environment (Xwayland's place) must not lead it
    // astray.
    const extension = start(this.children, this.paths.broadcast, viewOnly ? [...args, "--view-only"] : args, {
      detached: true,
      env: this.wayland ? process.env : { ...process.env, DISPLAY: this.display },
    });
    extension.ownGroup = true;
    this.extension = extension;
    return extension;
  }

  async stopExtension() {
    const extension = this.extension;
    process.kill(-extension.pid, "SIGTERM");
    const result = await Promise.race([extension.exited, sleep(10_000).then(() => null)]);
    if (result === null) {
      throw new Error("the extension still runs 10 s after SIGTERM");
    }
    this.extension = null;
    return result;
  }

  // How many keycodes the server's keyboard mapping binds to `keysym` ("eacute").
  keycodesFor(keysym) {
    const result = spawnSync("xmodmap", ["-display", this.display, "-pke"], { encoding: "utf8" });
    if (result.status !== 0) {
      throw new Error(`xmodmap failed (${result.status ?? result.error}): ${result.stderr}`);
    }
    return result.stdout.split("\n").filter((line) => line.split(/\s+/).includes(keysym)).length;
  }

  // The person at the device answering the desktop portal's dialog (tests/wayland/PortalConsent):
  // resolves once it has pressed Share.
  async consentToPortal({ remoteInteraction = false } = {}) {
    const person = start(this.children, this.paths.consent,
      [...(remoteInteraction ? ["--remote-interaction"] : []), "--timeout", "30",
        ...(process.env.VELMORAND_CONSENT_DUMP ? ["--dump", process.env.VELMORAND_CONSENT_DUMP] : [])]);
    const ended = await person.exited;
    if (ended.code !== 0 || !person.output.includes("shared")) {
      throw new Error(`the portal's dialog was not answered (${JSON.stringify(ended)}): ${person.output}`);
    }
  }

  // The clipboard's text as a program on the desktop reads it: on Wayland the recorder's, which
  // has the keyboard; on X11 xclip's, as UTF8_STRING. Null when it holds no text.
  async clipboardText() {
    if (!this.wayland) {
      return this.paste("UTF8_STRING");
    }
    const since = this.events.length;
    this.tellRecorder("clipboard");
    const answer = await waitFor("the recorder's clipboard", () =>
      this.events.slice(since).find((event) => event.event === "clipboard"));
    return answer.text;
  }

  // A program on the Wayland desktop (the recorder) taking the clipboard with `text`: resolves once
  // the desktop's clipboard holds it.
  async copyToClipboard(text) {
    this.tellRecorder(`copy ${text}`);
    await waitFor(`"${text}" on the clipboard`, async () => (await this.clipboardText()) === text);
  }

  // The CLIPBOARD as another application on this display pastes it, in the form `target`:
  // what it got, or null when the owner refused that form.
  paste(target) {
    const result = spawnSync("xclip", ["-display", this.display, "-selection", "clipboard", "-o", "-t", target],
      { encoding: "utf8", timeout: 10_000 });
    if (result.error?.code === "ENOENT") {
      throw new Error("xclip is missing; run scripts/setup");
    }
    return result.status === 0 ? result.stdout : null;
  }

  readLog() {
    try {
      return fs.readFileSync(this.logPath, "utf8");
    } catch {
      return "";
    }
  }

  // extension.log's lines without their time stamps.
  logLines() {
    return this.readLog().split("\n").filter(Boolean).map((line) => line.replace(/^\S+ /, ""));
  }

  // What the test needs to know after a failure.
  report() {
    return `--- Xvfb ${this.display} ---\n${this.xvfb?.output ?? ""}\n` +
      `--- recorder ---\n${this.recorder?.output ?? ""}\n` +
      `--- recorder's last events ---\n${this.events.slice(-12).map((e) => JSON.stringify(e)).join("\n")}\n` +
      `--- extension output ---\n${this.extension?.output ?? ""}\n` +
      `--- extension.log ---\n${this.readLog()}`;
  }
}
