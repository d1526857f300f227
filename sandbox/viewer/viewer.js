// The sandbox's viewer: one relay link as a dashboard viewer, the device's live picture, probes,
// and command forms.
"use strict";

(() => {
  const kMaxFrames = 200;
  const kRetryMs = 2000;
  const kDevicePollMs = 2000;
  const kFiguresMs = 1000;

  // One binary message per frame: this header, big-endian, then one JPEG image or one H.264
  // access unit in Annex B.
  const kHeaderBytes = 28;
  const kMagic = 0x564d4631; // "VMF1"
  const kJpeg = 1;
  const kH264 = 2;
  const kKeyFrameFlag = 1;
  const kParameterSetsFlag = 2;
  // The relay forwards nothing larger.
  const kMaxFrameBytes = 16 * 1024 * 1024;
  // Beyond these a frame is dropped rather than queued: a picture that waits is a late picture.
  const kMaxPendingImages = 2;
  const kMaxDecodeQueue = 3;
  // However often the picture breaks, the device is not asked for key frames more often.
  const kKeyFrameRequestMs = 1000;

  const $ = (id) => document.getElementById(id);
  const viewerId = "viewer-" + Array.from(crypto.getRandomValues(new Uint8Array(4)),
    (b) => b.toString(16).padStart(2, "0")).join("");

  let socket = null;
  let retryTimer = null;
  let autoTimer = null;
  // Pongs carry nothing to match them by; the device answers in order.
  const pingsSentAt = [];
  const rtts = [];

  const stream = {
    // The latest frame's header: its screen size turns canvas points into control coordinates.
    header: null,
    nextSequence: null,
    // H.264 decodes nothing until a key frame, after a gap or an error as at the start.
    awaitingKeyFrame: true,
    decoder: null,
    decoderCodec: "",
    decoderSize: "",
    pendingImages: 0,
    // JPEG decodes may finish out of order; an older picture is not drawn over a newer one.
    imagesStarted: 0,
    imageDrawn: 0,
    lastKeyFrameRequest: -Infinity,
    // Since the relay link opened.
    missed: 0,
    keyFrames: 0,
    // Since the last figures; the frame counts also feed the log's summary.
    since: performance.now(),
    shown: 0,
    payloadBytes: 0,
    latencySumMs: 0,
    latencies: 0,
    frames: 0,
    keys: 0,
    dropped: 0,
    rejected: 0,
    problem: "",
  };

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
    resetStream();
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
      receivedFrame(data);
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

  // ---- The live picture ----------------------------------------------------------------------

  function parseFrame(buffer) {
    if (buffer.byteLength <= kHeaderBytes || buffer.byteLength > kMaxFrameBytes) {
      return null;
    }
    const view = new DataView(buffer);
    const codec = view.getUint8(4);
    if (view.getUint32(0) !== kMagic || (codec !== kJpeg && codec !== kH264)) {
      return null;
    }
    const flags = view.getUint8(5);
    return {
      codec,
      key: (flags & kKeyFrameFlag) !== 0,
      parameterSets: (flags & kParameterSetsFlag) !== 0,
      captureUs: Number(view.getBigUint64(8)),
      sequence: view.getUint32(16),
      pictureWidth: view.getUint16(20),
      pictureHeight: view.getUint16(22),
      screenWidth: view.getUint16(24),
      screenHeight: view.getUint16(26),
      payload: new Uint8Array(buffer, kHeaderBytes),
    };
  }

  function receivedFrame(buffer) {
    const frame = parseFrame(buffer);
    if (!frame) {
      ++stream.rejected;
      return;
    }
    ++stream.frames;
    stream.payloadBytes += frame.payload.byteLength;
    if (frame.key) {
      ++stream.keys;
      ++stream.keyFrames;
    }
    // A new connection of the device starts again from 0; a step back is one too.
    const gap = stream.nextSequence === null || frame.sequence === 0
      ? 0 : (frame.sequence - stream.nextSequence) >>> 0;
    stream.nextSequence = (frame.sequence + 1) >>> 0;
    if (gap > 0 && gap < 0x80000000) {
      stream.missed += gap;
      stream.awaitingKeyFrame = true;
    }
    stream.header = frame;
    if (frame.codec === kJpeg) {
      closeDecoder();
      showJpeg(frame);
    } else {
      decodeH264(frame);
    }
  }

  function showJpeg(frame) {
    if (stream.pendingImages >= kMaxPendingImages) {
      ++stream.dropped;
      return;
    }
    ++stream.pendingImages;
    const order = ++stream.imagesStarted;
    createImageBitmap(new Blob([frame.payload], { type: "image/jpeg" }))
      .then((bitmap) => {
        if (order > stream.imageDrawn) {
          stream.imageDrawn = order;
          show(bitmap, frame.captureUs);
        }
        bitmap.close();
      }, () => {
        stream.problem = "a JPEG frame did not decode";
      })
      .finally(() => --stream.pendingImages);
  }

  // "avc1." and the three bytes after the SPS's NAL header: profile, constraints, level.
  function codecFromSps(bytes) {
    const end = Math.min(bytes.length - 4, 256);
    for (let i = 0; i < end; ++i) {
      if (bytes[i] === 0 && bytes[i + 1] === 0 && bytes[i + 2] === 1 &&
          (bytes[i + 3] & 0x1f) === 7) {
        const hex = (b) => b.toString(16).padStart(2, "0");
        return "avc1." + hex(bytes[i + 4]) + hex(bytes[i + 5]) + hex(bytes[i + 6]);
      }
    }
    return null;
  }

  function configureDecoder(codec, size) {
    closeDecoder();
    const decoder = new VideoDecoder({
      output: (videoFrame) => {
        show(videoFrame, videoFrame.timestamp);
        videoFrame.close();
      },
      error: (error) => {
        if (stream.decoder === decoder) {
          stream.decoder = null;
          stream.problem = "H.264 decoder: " + error.message;
          stream.awaitingKeyFrame = true;
          requestKeyFrame();
        }
      },
    });
    decoder.configure({ codec, optimizeForLatency: true });
    stream.decoder = decoder;
    stream.decoderCodec = codec;
    stream.decoderSize = size;
  }

  function closeDecoder() {
    const decoder = stream.decoder;
    stream.decoder = null;
    stream.decoderCodec = "";
    if (decoder && decoder.state !== "closed") {
      decoder.close();
    }
  }

  function decodeH264(frame) {
    if (typeof VideoDecoder === "undefined") {
      stream.problem = "this browser cannot decode H.264 here (WebCodecs needs a secure context)";
      return;
    }
    if (frame.key && frame.parameterSets) {
      const codec = codecFromSps(frame.payload);
      const size = frame.pictureWidth + "x" + frame.pictureHeight;
      if (codec && (!stream.decoder || codec !== stream.decoderCodec || size !== stream.decoderSize)) {
        try {
          configureDecoder(codec, size);
        } catch (error) {
          stream.decoder = null;
          stream.problem = "H.264 decoder: " + error.message;
        }
      }
    }
    const decoder = stream.decoder;
    if (!decoder || (stream.awaitingKeyFrame && !frame.key)) {
      stream.awaitingKeyFrame = true;
      ++stream.dropped;
      requestKeyFrame();
      return;
    }
    if (decoder.decodeQueueSize > kMaxDecodeQueue) {
      // Every later frame builds on this one: nothing decodes until the next key frame.
      stream.awaitingKeyFrame = true;
      ++stream.dropped;
      requestKeyFrame();
      return;
    }
    try {
      decoder.decode(new EncodedVideoChunk({
        type: frame.key ? "key" : "delta",
        timestamp: frame.captureUs,
        data: frame.payload,
      }));
      stream.awaitingKeyFrame = false;
    } catch (error) {
      stream.problem = "H.264 decoder: " + error.message;
      closeDecoder();
      stream.awaitingKeyFrame = true;
      requestKeyFrame();
    }
  }

  function requestKeyFrame() {
    const now = performance.now();
    if (now - stream.lastKeyFrameRequest >= kKeyFrameRequestMs && send({ type: "request_idr" })) {
      stream.lastKeyFrameRequest = now;
    }
  }

  function show(picture, captureUs) {
    const canvas = $("screen");
    const width = picture.displayWidth ?? picture.width;
    const height = picture.displayHeight ?? picture.height;
    if (canvas.width !== width || canvas.height !== height) {
      canvas.width = width;
      canvas.height = height;
      canvas.style.setProperty("--aspect", String(width / height));
    }
    canvas.getContext("2d").drawImage(picture, 0, 0, width, height);
    if (canvas.hidden) {
      canvas.hidden = false;
      $("screen-idle").hidden = true;
    }
    ++stream.shown;
    // The device and this page share a clock only in the sandbox; elsewhere this is a guess.
    const latencyMs = (performance.timeOrigin + performance.now()) - captureUs / 1000;
    if (Number.isFinite(latencyMs)) {
      stream.latencySumMs += latencyMs;
      ++stream.latencies;
    }
  }

  function resetStream() {
    closeDecoder();
    stream.header = null;
    stream.nextSequence = null;
    stream.awaitingKeyFrame = true;
    stream.missed = 0;
    stream.keyFrames = 0;
  }

  // Screen pixels, the space of remote control, under a point in client coordinates; null before
  // the first frame or off the picture. Holds however CSS scales the canvas.
  function canvasToScreen(clientX, clientY) {
    const header = stream.header;
    const box = $("screen").getBoundingClientRect();
    if (!header || box.width === 0 || box.height === 0) {
      return null;
    }
    const x = (clientX - box.left) / box.width;
    const y = (clientY - box.top) / box.height;
    if (!(x >= 0 && x <= 1 && y >= 0 && y <= 1)) {
      return null;
    }
    return {
      x: Math.min(Math.floor(x * header.screenWidth), header.screenWidth - 1),
      y: Math.min(Math.floor(y * header.screenHeight), header.screenHeight - 1),
    };
  }

  function setFigure(id, text, value) {
    const element = $(id);
    element.textContent = text;
    if (value !== undefined) {
      element.dataset.value = String(value);
    }
  }

  // Once a second: the figures, and one line in the log instead of one per frame.
  function updateFigures() {
    const now = performance.now();
    const seconds = Math.max((now - stream.since) / 1000, 0.001);
    stream.since = now;
    const fps = Math.round(stream.shown / seconds * 10) / 10;
    const kbps = Math.round(stream.payloadBytes * 8 / seconds / 1000);
    setFigure("stream-fps", fps.toFixed(1), fps);
    setFigure("stream-bitrate", kbps + " kbit/s", kbps);
    if (stream.latencies > 0) {
      const latency = Math.round(stream.latencySumMs / stream.latencies);
      setFigure("stream-latency", latency + " ms", latency);
    } else {
      setFigure("stream-latency", "—");
      delete $("stream-latency").dataset.value;
    }
    setFigure("stream-missed", String(stream.missed), stream.missed);
    setFigure("stream-keyframes", String(stream.keyFrames), stream.keyFrames);
    const header = stream.header;
    if (header) {
      const codec = header.codec === kJpeg ? "JPEG"
        : "H.264" + (stream.decoderCodec ? " (" + stream.decoderCodec + ")" : "");
      setFigure("stream-codec", codec);
      $("stream-codec").dataset.value = header.codec === kJpeg ? "jpeg" : "h264";
      const picture = header.pictureWidth + "×" + header.pictureHeight;
      setFigure("stream-size", header.pictureWidth === header.screenWidth &&
        header.pictureHeight === header.screenHeight
        ? picture : picture + " (screen " + header.screenWidth + "×" + header.screenHeight + ")",
      header.pictureWidth + "x" + header.pictureHeight);
    }
    if (stream.frames > 0) {
      note("← " + stream.frames + (stream.frames === 1 ? " frame" : " frames") + " (" + stream.keys +
        " key), " + (stream.payloadBytes / 1024).toFixed(1) + " KiB" +
        (stream.dropped > 0 ? ", " + stream.dropped + " not decoded" : ""), "received");
    }
    if (stream.rejected > 0) {
      note("← " + stream.rejected + " binary messages that are not frames, ignored", "note");
    }
    if (stream.problem) {
      note(stream.problem, "note");
    }
    Object.assign(stream, {
      shown: 0, payloadBytes: 0, latencySumMs: 0, latencies: 0, frames: 0, keys: 0, dropped: 0,
      rejected: 0, problem: "",
    });
  }

  function startStreaming() {
    send({ type: "need_stream", prefer: $("encode-codec").value || undefined });
  }

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
    $("stream-start").addEventListener("click", startStreaming);
    $("stream-stop").addEventListener("click",
      () => send({ type: "stream_control", streaming: false }));
    $("request-key-frame").addEventListener("click", () => send({ type: "request_idr" }));
    for (const form of document.querySelectorAll("form[data-command]")) {
      form.addEventListener("submit", (event) => {
        event.preventDefault();
        send(builders[form.dataset.command](form));
      });
    }
    connect();
    pollDevice();
    setInterval(pollDevice, kDevicePollMs);
    setInterval(updateFigures, kFiguresMs);
  });

  // For whoever adds control on the picture, and for tests.
  window.velmorandViewer = Object.freeze({ canvasToScreen });
})();
