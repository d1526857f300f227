// The sandbox's viewer: one relay link as a dashboard viewer, probes, and command forms.
"use strict";

(() => {
  const kMaxFrames = 200;
  const kRetryMs = 2000;
  const kDevicePollMs = 2000;

  const $ = (id) => document.getElementById(id);
  const viewerId = "viewer-" + Array.from(crypto.getRandomValues(new Uint8Array(4)),
    (b) => b.toString(16).padStart(2, "0")).join("");

  let socket = null;
  let retryTimer = null;
  let autoTimer = null;
  // Pongs carry nothing to match them by; the device answers in order.
  const pingsSentAt = [];
  const rtts = [];

  function note(text, kind) {
    const list = $("frames");
    const item = document.createElement("li");
    item.className = kind;
    const time = new Date().toLocaleTimeString([], { hour12: false });
    item.textContent = time + "  " + text;
    list.append(item);
    while (list.childElementCount > kMaxFrames) {
      list.firstElementChild.remove();
    }
    list.scrollTop = list.scrollHeight;
  }

  function setLink(state, text) {
    const link = $("link");
    link.dataset.state = state;
    link.textContent = text;
  }

  function relayUrl() {
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    return scheme + "//" + location.host + "/relay/viewer";
  }

  function connect() {
    clearTimeout(retryTimer);
    if (socket) {
      socket.onclose = null;
      socket.close();
    }
    pingsSentAt.length = 0;
    const url = relayUrl();
    setLink("connecting", "Connecting to " + url + "…");
    const ws = new WebSocket(url);
    ws.binaryType = "arraybuffer";
    ws.onopen = () => {
      setLink("open", "Connected to " + url);
      pollDevice();
      note("relay link open", "note");
    };
    ws.onmessage = (event) => received(event.data);
    ws.onclose = (event) => {
      setLink("closed", "Closed (" + event.code + "); retrying…");
      note("relay link closed with " + event.code, "note");
      retryTimer = setTimeout(connect, kRetryMs);
    };
    socket = ws;
  }

  function send(message) {
    const text = JSON.stringify(message);
    if (!socket || socket.readyState !== WebSocket.OPEN) {
      note("not sent, the relay link is not open: " + text, "note");
      return false;
    }
    socket.send(text);
    note("→ " + text, "sent");
    return true;
  }

  function received(data) {
    if (typeof data !== "string") {
      note("← binary frame, " + data.byteLength + " bytes", "received");
      return;
    }
    note("← " + data, "received");
    let message;
    try {
      message = JSON.parse(data);
    } catch {
      return;
    }
    if (message === null || typeof message !== "object") {
      return;
    }
    if (message.type === "pong" && pingsSentAt.length > 0) {
      $("pong").textContent = "answered in " + (Date.now() - pingsSentAt.shift()) + " ms";
    } else if (message.type === "latency_pong" && message.viewerId === viewerId &&
               Number.isInteger(message.t)) {
      showRoundTrip(Date.now() - message.t);
    } else if (message.type === "device_offline") {
      $("rtt").textContent = "no device connected";
    }
  }

  function showRoundTrip(ms) {
    rtts.push(ms);
    const min = Math.min(...rtts);
    const mean = Math.round(rtts.reduce((a, b) => a + b, 0) / rtts.length);
    $("rtt").textContent = ms + " ms (" + rtts.length + (rtts.length === 1 ? " probe" : " probes") +
      ", min " + min + " ms, mean " + mean + " ms)";
  }

  function sendPing() {
    if (send({ type: "ping" })) {
      pingsSentAt.push(Date.now());
      $("pong").textContent = "waiting…";
    }
  }

  function sendLatencyProbe() {
    send({ type: "latency_ping", t: Date.now(), viewerId });
  }

  // Number fields left empty are left out of the message.
  function numberField(form, name) {
    const text = form.elements[name].value.trim();
    return text === "" ? undefined : Number(text);
  }

  const builders = {
    tap: (f) => ({ type: "tap", x: numberField(f, "x"), y: numberField(f, "y") }),
    swipe: (f) => {
      const ms = numberField(f, "ms");
      return {
        type: "swipe",
        from: { x: numberField(f, "fromX"), y: numberField(f, "fromY") },
        to: { x: numberField(f, "toX"), y: numberField(f, "toY") },
        // The device takes whole milliseconds only.
        ms: ms === undefined ? undefined : Math.round(ms),
      };
    },
    text: (f) => ({ type: "text", value: f.elements.value.value }),
    open_url: (f) => ({ type: "open_url", url: f.elements.url.value.trim() }),
    encode_settings: (f) => ({
      type: "encode_settings",
      codec: f.elements.codec.value || undefined,
      fps: numberField(f, "fps"),
      quality: numberField(f, "quality"),
      scale: numberField(f, "scale"),
    }),
  };

  async function pollDevice() {
    const device = $("device");
    try {
      const response = await fetch("/admin/relay", { cache: "no-store" });
      const relay = await response.json();
      device.dataset.connected = String(relay.deviceConnected === true);
      if (!relay.deviceConnected) {
        device.textContent = "No device connected";
      } else if (relay.device) {
        device.textContent = relay.device.deviceName + " (" + relay.device.deviceId + ")";
      } else {
        device.textContent = "A device is connected";
      }
      $("viewers").textContent = String(relay.viewers);
    } catch (error) {
      device.dataset.connected = "false";
      device.textContent = "The sandbox does not answer (" + error.message + ")";
    }
  }

  document.addEventListener("DOMContentLoaded", () => {
    $("viewer-id").textContent = viewerId;
    $("reconnect").addEventListener("click", connect);
    $("send-ping").addEventListener("click", sendPing);
    $("send-latency").addEventListener("click", sendLatencyProbe);
    $("auto-latency").addEventListener("change", (event) => {
      clearInterval(autoTimer);
      if (event.target.checked) {
        autoTimer = setInterval(sendLatencyProbe, 1000);
      }
    });
    $("clear-frames").addEventListener("click", () => $("frames").replaceChildren());
    for (const form of document.querySelectorAll("form[data-command]")) {
      form.addEventListener("submit", (event) => {
        event.preventDefault();
        send(builders[form.dataset.command](form));
      });
    }
    connect();
    pollDevice();
    setInterval(pollDevice, kDevicePollMs);
  });
})();
