// What every browser test shares: "ok" lines and their count, checks that throw, polls with a
// deadline, and an exit that runs the test's cleanup however the run ends (passed, failed,
// signalled, or given up on after `wholeRunMs`).
import { setTimeout as sleep } from "node:timers/promises";

export function check(condition, message) {
  if (!condition) {
    throw new Error(message);
  }
}

export async function waitFor(what, probe, limitMs = 10_000) {
  const deadline = Date.now() + limitMs;
  for (;;) {
    const value = await probe();
    if (value) {
      return value;
    }
    if (Date.now() > deadline) {
      throw new Error(`timed out after ${limitMs / 1000} s waiting for ${what}`);
    }
    await sleep(50);
  }
}

export function testRun(name, wholeRunMs, cleanup) {
  process.on("exit", cleanup);
  for (const signal of ["SIGINT", "SIGTERM"]) {
    process.on(signal, () => process.exit(1));
  }
  setTimeout(() => {
    console.error(`${name}: gave up after ${wholeRunMs / 1000} s`);
    process.exit(1);
  }, wholeRunMs).unref();
  const results = {
    passed: 0,
    ok(what) {
      ++results.passed;
      console.log(`ok - ${what}`);
    },
  };
  return results;
}

// The browser's environment: headless, it is no client of the test's desktop, and must not
// become one (on a Wayland desktop it would open a window there and take the pointer).
export function browserEnvironment() {
  const { WAYLAND_DISPLAY, DISPLAY, XDG_SESSION_TYPE, ...rest } = process.env;
  return rest;
}

// For a page's init script: keeps the page's peer connections in window.testPeers, so that a test
// can cut one off behind the page's back, and counts the candidates the device sent them in
// window.testRemoteCandidates.
export function keepPeerConnections() {
  const Original = RTCPeerConnection;
  window.testPeers = [];
  window.testRemoteCandidates = 0;
  const addIceCandidate = Original.prototype.addIceCandidate;
  Original.prototype.addIceCandidate = function (candidate) {
    window.testRemoteCandidates += candidate?.candidate ? 1 : 0;
    return addIceCandidate.call(this, candidate);
  };
  window.RTCPeerConnection = function (...args) {
    const connection = new Original(...args);
    window.testPeers.push(connection);
    return connection;
  };
  window.RTCPeerConnection.prototype = Original.prototype;
}
