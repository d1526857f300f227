// The sandbox's viewer: one relay link as a dashboard viewer, the device's live picture, which
// takes the pointer and the keyboard for the device, probes, and command forms.
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
  // A peer connection that shows no picture by then is given up for relay frames.
  const kPeerConnectMs = 10000;

  // A click waits this long for a second one: a desktop must see a double click once, not as two
  // clicks and then a double click.
  const kDoubleClickMs = 250;
  // Further apart (CSS pixels), two clicks are two taps.
  const kDoubleClickSlop = 8;
  // Held still for longer, a press is a long press.
  const kLongPressMs = 500;
  // Moved further (CSS pixels), a press is a drag.
  const kDragSlop = 4;
  // A drag's moves go out at most once a display frame.
  const kMoveIntervalMs = 16;
  // Typed characters go out in batches: the first of a batch waits no longer than this, and a
  // batch grows no longer than the next.
  const kTextBatchMs = 50;
  const kMaxTextBatch = 1000;

  const kNamedKeys = {
    Enter: "enter",
    Backspace: "backspace",
    Delete: "delete",
    Tab: "tab",
    Escape: "escape",
    ArrowUp: "up",
    ArrowDown: "down",
    ArrowLeft: "left",
    ArrowRight: "right",
    Home: "home",
    End: "end",
    PageUp: "pageup",
    PageDown: "pagedown",
  };

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
    // This viewer asked the device to stop streaming.
    stopped: false,
  };

  // Peer-to-peer, when the sandbox offers it: the device sends the picture straight to this page,
  // and the relay carries only the signalling and the commands. Anything that goes wrong ends it
  // for relay frames, with the reason shown beside the path; the next relay link tries again.
  const peer = {
    enabled: false,
    connection: null,
    timer: null,
    // The picture on the page is the peer connection's.
    showing: false,
    // Why the page stays on relay frames; empty while it may still try.
    reason: "",
    // The previous getStats sample, and the figures from the latest two.
    sample: null,
    figures: null,
  };

  // What the pointer and the keyboard are doing on the picture. Held back: a click that may turn
  // into a double click, a drag's latest move, typed text; whatever is held back goes out before
  // anything that comes after it.
  const control = {
    press: null,
    pendingTap: null,
    pendingMove: null,
    moveTimer: null,
    lastMoveAt: -Infinity,
    moves: 0,
    text: "",
    textTimer: null,
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

  // The relay takes viewers that bring the token the sandbox built into this page.
  function relayUrl() {
    const scheme = location.protocol === "https:" ? "wss:" : "ws:";
    return scheme + "//" + location.host + "/relay/viewer";
  }

  function viewerToken() {
    const meta = document.querySelector('meta[name="velmorand-viewer-token"]');
    return meta ? meta.content : "";
  }

  // What the relay's refusals mean, for the person looking at the page.
  const kRefusals = {
    4401: "the sandbox did not recognise this page's viewer token: reload the page from the " +
      "URL the sandbox printed (it changes with each run of the sandbox)",
    4403: "the sandbox takes viewers only from its own page: open the URL it printed",
  };

  function connect() {
    clearTimeout(retryTimer);
    if (socket) {
      socket.onclose = null;
      socket.close();
    }
    pingsSentAt.length = 0;
    resetStream();
    // The relay knows this page by its link: a new link starts a new peer connection.
    endPeer("", { tell: false });
    const url = relayUrl();
    setLink("connecting", "Connecting to " + url + "…");
    const ws = new WebSocket(url + "?token=" + encodeURIComponent(viewerToken()));
    ws.binaryType = "arraybuffer";
    ws.onopen = () => {
      setLink("open", "Connected to " + url);
      pollDevice();
      note("relay link open", "note");
    };
    ws.onmessage = (event) => received(event.data);
    ws.onclose = (event) => {
      const refusal = kRefusals[event.code];
      if (refusal) {
        setLink("closed", "Refused (" + event.code + "): " + refusal);
        note("relay link refused with " + event.code + ": " + refusal, "note");
        return;
      }
      setLink("closed", "Closed (" + event.code + "); retrying…");
      note("relay link closed with " + event.code, "note");
      retryTimer = setTimeout(connect, kRetryMs);
    };
    socket = ws;
  }

  // A quiet message is left out of the log: a drag's moves would flood it.
  function send(message, { quiet = false } = {}) {
    const text = JSON.stringify(message);
    if (!socket || socket.readyState !== WebSocket.OPEN) {
      if (!quiet) {
        note("not sent, the relay link is not open: " + text, "note");
      }
      return false;
    }
    socket.send(text);
    if (!quiet) {
      note("→ " + text, "sent");
    }
    return true;
  }

  function received(data) {
    if (typeof data !== "string") {
      receivedFrame(data);
      return;
    }
    let message;
    try {
      message = JSON.parse(data);
    } catch {
      note("← " + data, "received");
      return;
    }
    if (message !== null && typeof message === "object" && typeof message.type === "string" &&
        message.type.startsWith("webrtc_")) {
      // Session descriptions and candidates stay out of the log.
      note("← " + message.type, "received");
      peerSignal(message);
      return;
    }
    note("← " + data, "received");
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
    set_clipboard: (f) => ({ type: "set_clipboard", value: f.elements.value.value }),
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
    // The device streams H.264, which is what a peer connection carries: time to ask for it.
    if (frame.codec === kH264) {
      startPeer();
    } else if (peer.enabled && !peer.connection) {
      // A JPEG stream is a new stream: once it is H.264 again, peer-to-peer is worth a try.
      peer.reason = "";
      setPath("relay (peer-to-peer needs H.264)");
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
      $("picture").style.setProperty("--aspect", String(width / height));
    }
    canvas.getContext("2d").drawImage(picture, 0, 0, width, height);
    if ($("picture").hidden) {
      $("picture").hidden = false;
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

  // The element the picture is on: the canvas for relay frames, the video peer-to-peer.
  function pictureElement() {
    return peer.showing ? $("peer-video") : $("screen");
  }

  // The device's screen, as the latest relay frame gave it; a peer-to-peer picture of another size
  // (the screen changed since) scales it.
  function screenSize() {
    const header = stream.header;
    const video = $("peer-video");
    if (!header || !peer.showing || video.videoWidth === 0) {
      return header && { width: header.screenWidth, height: header.screenHeight };
    }
    return {
      width: Math.round(video.videoWidth * header.screenWidth / header.pictureWidth),
      height: Math.round(video.videoHeight * header.screenHeight / header.pictureHeight),
    };
  }

  // Screen pixels, the space of remote control, under a point in client coordinates; null before
  // the first frame or off the picture. Holds however CSS scales the picture.
  function canvasToScreen(clientX, clientY) {
    const box = pictureElement().getBoundingClientRect();
    const x = (clientX - box.left) / box.width;
    const y = (clientY - box.top) / box.height;
    return x >= 0 && x <= 1 && y >= 0 && y <= 1 ? screenPoint(clientX, clientY) : null;
  }

  // As canvasToScreen, but a point off the picture is taken to its nearest edge: a drag may leave
  // the picture and must still end on the screen.
  function screenPoint(clientX, clientY) {
    const screen = screenSize();
    const box = pictureElement().getBoundingClientRect();
    if (!screen || box.width === 0 || box.height === 0) {
      return null;
    }
    const fraction = (value) => Math.min(Math.max(value, 0), 1);
    const x = fraction((clientX - box.left) / box.width);
    const y = fraction((clientY - box.top) / box.height);
    return {
      x: Math.min(Math.floor(x * screen.width), screen.width - 1),
      y: Math.min(Math.floor(y * screen.height), screen.height - 1),
    };
  }

  // ---- Peer-to-peer --------------------------------------------------------------------------

  function webrtcEnabled() {
    const meta = document.querySelector('meta[name="velmorand-webrtc"]');
    return meta !== null && meta.content === "on";
  }

  // Offers to receive the picture, H.264 only; the relay carries the offer and the candidates.
  async function startPeer() {
    if (!peer.enabled || peer.connection || peer.reason) {
      return;
    }
    let connection;
    try {
      connection = new RTCPeerConnection({ bundlePolicy: "max-bundle" });
    } catch (error) {
      endPeer("this browser cannot make a peer connection (" + error.message + ")", { tell: false });
      return;
    }
    peer.connection = connection;
    const transceiver = connection.addTransceiver("video", { direction: "recvonly" });
    const h264 = (RTCRtpReceiver.getCapabilities("video")?.codecs ?? [])
      .filter((codec) => codec.mimeType.toLowerCase() === "video/h264");
    if (h264.length > 0) {
      transceiver.setCodecPreferences(h264);
    }
    connection.onicecandidate = (event) => {
      const candidate = event.candidate;
      send({
        type: "webrtc_ice",
        candidate: candidate ? candidate.candidate : "",
        sdpMid: candidate ? candidate.sdpMid : null,
        sdpMLineIndex: candidate ? candidate.sdpMLineIndex : null,
      }, { quiet: true });
    };
    connection.ontrack = (event) => {
      // Shown as soon as decoded: the picture is for operating the device, not for smooth viewing.
      if ("jitterBufferTarget" in event.receiver) {
        event.receiver.jitterBufferTarget = 0;
      } else {
        event.receiver.playoutDelayHint = 0;
      }
      const video = $("peer-video");
      video.srcObject = event.streams[0] ?? new MediaStream([event.track]);
      // The first decoded picture; the video is hidden until then, which keeps the browser from
      // starting it by itself.
      video.onloadeddata = () => {
        if (peer.connection === connection) {
          peerShowing();
        }
      };
      video.play().catch(() => {});
    };
    connection.onconnectionstatechange = () => {
      if (peer.connection === connection && connection.connectionState === "failed") {
        endPeer("the peer-to-peer connection failed");
      }
    };
    peer.timer = setTimeout(() => endPeer("no peer-to-peer picture within 10 s"), kPeerConnectMs);
    setPath("connecting peer-to-peer…");
    try {
      await connection.setLocalDescription(await connection.createOffer());
      if (peer.connection === connection) {
        send({ type: "webrtc_offer", sdp: connection.localDescription.sdp }, { quiet: true });
        note("→ webrtc_offer", "sent");
      }
    } catch (error) {
      // A connection replaced meanwhile (a new relay link) fails here too: not this one's fault.
      if (peer.connection === connection) {
        endPeer("this browser could not make an offer (" + error.message + ")");
      }
    }
  }

  function peerSignal(message) {
    const connection = peer.connection;
    if (message.type === "webrtc_error") {
      endPeer("the device: " + String(message.reason ?? "no reason given"), { tell: false });
    } else if (!connection) {
      return;
    } else if (message.type === "webrtc_answer") {
      connection.setRemoteDescription({ type: "answer", sdp: String(message.sdp) })
        .catch((error) => {
          if (peer.connection === connection) {
            endPeer("the device's answer does not fit (" + error.message + ")");
          }
        });
    } else if (message.type === "webrtc_ice" && message.candidate) {
      connection.addIceCandidate({
        candidate: String(message.candidate),
        sdpMid: message.sdpMid ?? null,
        sdpMLineIndex: message.sdpMLineIndex ?? null,
      }).catch(() => {});
    }
  }

  function peerShowing() {
    clearTimeout(peer.timer);
    const video = $("peer-video");
    peer.showing = true;
    video.hidden = false;
    $("screen").hidden = true;
    $("picture").hidden = false;
    $("screen-idle").hidden = true;
    if (video.videoWidth > 0 && video.videoHeight > 0) {
      $("picture").style.setProperty("--aspect", String(video.videoWidth / video.videoHeight));
    }
    setPath("peer-to-peer");
    note("peer-to-peer: the picture comes straight from the device", "note");
  }

  // Back to relay frames. `tell`: the device and the relay hear that this page closed it.
  function endPeer(reason, { tell = true } = {}) {
    clearTimeout(peer.timer);
    const connection = peer.connection;
    const wasShowing = peer.showing;
    Object.assign(peer, { connection: null, showing: false, reason, sample: null, figures: null });
    const video = $("peer-video");
    video.hidden = true;
    video.srcObject = null;
    $("screen").hidden = false;
    if (connection) {
      connection.close();
      if (tell) {
        send({ type: "webrtc_close" }, { quiet: true });
      }
    }
    if (reason) {
      note("peer-to-peer ended: " + reason + " — back to relay frames", "note");
    }
    setPath(reason ? "relay (" + reason + ")" : "relay");
    if (wasShowing) {
      stream.awaitingKeyFrame = true;
      requestKeyFrame();
    }
  }

  function setPath(text) {
    setFigure("stream-path", text, peer.showing ? "peer-to-peer" : "relay");
  }

  // The browser's own figures for the peer connection: frames and bytes received, and the delay
  // from the network, the jitter buffer and the decoder.
  async function samplePeerStats() {
    const connection = peer.connection;
    if (!connection || !peer.showing) {
      return;
    }
    let inbound = null;
    let pair = null;
    (await connection.getStats()).forEach((report) => {
      if (report.type === "inbound-rtp" && report.kind === "video") {
        inbound = report;
      } else if (report.type === "candidate-pair" && report.nominated) {
        pair = report;
      }
    });
    if (!inbound || peer.connection !== connection) {
      return;
    }
    const previous = peer.sample;
    peer.sample = {
      at: inbound.timestamp,
      bytes: inbound.bytesReceived ?? 0,
      frames: inbound.framesDecoded ?? 0,
    };
    if (!previous) {
      return;
    }
    const seconds = Math.max((peer.sample.at - previous.at) / 1000, 0.001);
    const perFrame = (total, count) => (count > 0 ? total / count * 1000 : 0);
    peer.figures = {
      fps: Math.round((peer.sample.frames - previous.frames) / seconds * 10) / 10,
      kbps: Math.round((peer.sample.bytes - previous.bytes) * 8 / seconds / 1000),
      latency: Math.round((pair?.currentRoundTripTime ?? 0) * 500 +
        perFrame(inbound.jitterBufferDelay ?? 0, inbound.jitterBufferEmittedCount ?? 0) +
        perFrame(inbound.totalDecodeTime ?? 0, inbound.framesDecoded ?? 0)),
    };
  }

  // ---- Remote control on the picture ---------------------------------------------------------

  function flushTap() {
    const tap = control.pendingTap;
    if (tap) {
      clearTimeout(tap.timer);
      control.pendingTap = null;
      send({ type: "tap", x: tap.point.x, y: tap.point.y });
    }
  }

  function flushText() {
    clearTimeout(control.textTimer);
    control.textTimer = null;
    if (control.text !== "") {
      const value = control.text;
      control.text = "";
      send({ type: "text", value });
    }
  }

  function flushHeldBack() {
    flushText();
    flushTap();
  }

  function pointerDown(event) {
    if (!event.isPrimary || event.button !== 0 || control.press) {
      return;
    }
    const point = screenPoint(event.clientX, event.clientY);
    if (!point) {
      return;
    }
    event.preventDefault();
    $("keyboard").focus({ preventScroll: true });
    flushText();
    const tap = control.pendingTap;
    if (tap && Math.hypot(event.clientX - tap.clientX, event.clientY - tap.clientY) > kDoubleClickSlop) {
      flushTap();
    } else if (tap) {
      // Until this press ends, it may make the held-back click a double click.
      clearTimeout(tap.timer);
    }
    event.currentTarget.setPointerCapture(event.pointerId);
    control.press = {
      id: event.pointerId,
      clientX: event.clientX,
      clientY: event.clientY,
      began: event.timeStamp,
      point,
      last: point,
      dragging: false,
    };
  }

  function pointerMove(event) {
    const press = control.press;
    if (!press || event.pointerId !== press.id) {
      return;
    }
    const point = screenPoint(event.clientX, event.clientY);
    if (!point) {
      return;
    }
    press.last = point;
    if (!press.dragging) {
      if (Math.hypot(event.clientX - press.clientX, event.clientY - press.clientY) <= kDragSlop) {
        return;
      }
      press.dragging = true;
      flushTap();
      control.moves = 0;
      control.lastMoveAt = -Infinity;
      send({ type: "touch_down", x: press.point.x, y: press.point.y });
    }
    control.pendingMove = point;
    const wait = control.lastMoveAt + kMoveIntervalMs - performance.now();
    if (wait <= 0) {
      sendMove();
    } else if (control.moveTimer === null) {
      control.moveTimer = setTimeout(sendMove, wait);
    }
  }

  function sendMove() {
    clearTimeout(control.moveTimer);
    control.moveTimer = null;
    const point = control.pendingMove;
    control.pendingMove = null;
    if (point) {
      control.lastMoveAt = performance.now();
      ++control.moves;
      send({ type: "touch_move", x: point.x, y: point.y }, { quiet: true });
    }
  }

  // The release carries the last position itself; a move still held back adds nothing.
  function endDrag(point) {
    clearTimeout(control.moveTimer);
    control.moveTimer = null;
    control.pendingMove = null;
    if (control.moves > 0) {
      note("→ " + control.moves + " × touch_move", "sent");
    }
    send({ type: "touch_up", x: point.x, y: point.y });
  }

  function pointerUp(event) {
    const press = control.press;
    if (!press || event.pointerId !== press.id) {
      return;
    }
    control.press = null;
    const point = screenPoint(event.clientX, event.clientY) ?? press.last;
    if (press.dragging) {
      endDrag(point);
      return;
    }
    const heldMs = Math.round(event.timeStamp - press.began);
    if (heldMs > kLongPressMs) {
      flushTap();
      send({ type: "long_press", x: press.point.x, y: press.point.y, ms: heldMs });
      return;
    }
    const first = control.pendingTap;
    if (first) {
      control.pendingTap = null;
      send({ type: "double_tap", x: first.point.x, y: first.point.y });
      return;
    }
    control.pendingTap = {
      point: press.point,
      clientX: press.clientX,
      clientY: press.clientY,
      timer: setTimeout(flushTap, kDoubleClickMs),
    };
  }

  // The browser took the pointer away: a drag ends where it was, so that nothing stays held on
  // the device, and a press that had not become anything is dropped.
  function pointerLost(event) {
    const press = control.press;
    if (!press || event.pointerId !== press.id) {
      return;
    }
    control.press = null;
    if (press.dragging) {
      endDrag(press.last);
    } else {
      flushTap();
    }
  }

  // "ctrl+shift+tab", "alt+f4", "ctrl+a"; null for a key that types text, or one the device has
  // no name for.
  function keyName(event) {
    const altGraph = event.getModifierState("AltGraph");
    const ctrl = event.ctrlKey && !altGraph;
    const alt = event.altKey && !altGraph;
    let key = kNamedKeys[event.key] ??
      (/^F([1-9]|1[0-2])$/.test(event.key) ? event.key.toLowerCase() : null);
    if (key === null) {
      if (!ctrl && !alt && !event.metaKey) {
        return null;
      }
      if (event.key === " ") {
        key = "space";
      } else if (/^Digit[0-9]$/.test(event.code) && event.shiftKey) {
        // The key's own digit, not the symbol shift makes of it on this page's layout.
        key = event.code.slice(-1);
      } else if (Array.from(event.key).length === 1) {
        key = event.key.toLowerCase();
      } else {
        return null;
      }
    }
    const modifiers = [[ctrl, "ctrl"], [alt, "alt"], [event.shiftKey, "shift"], [event.metaKey, "super"]]
      .filter(([held]) => held).map(([, name]) => name);
    return [...modifiers, key].join("+");
  }

  function keyDown(event) {
    if (event.isComposing || event.keyCode === 229) {
      return;
    }
    if (event.key === "Escape" && event.shiftKey && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      $("stream-start").focus();
      return;
    }
    const name = keyName(event);
    if (name === null) {
      return;
    }
    event.preventDefault();
    flushHeldBack();
    send({ type: "key", key: name });
  }

  function typed(text) {
    if (text === "") {
      return;
    }
    flushTap();
    control.text += text;
    if (control.text.length >= kMaxTextBatch) {
      flushText();
    } else if (control.textTimer === null) {
      control.textTimer = setTimeout(flushText, kTextBatchMs);
    }
  }

  // Text arrives here whichever way it was typed; nothing is left in the field. Keys that edit
  // come as keydown, except from on-screen keyboards, which send only these.
  function beforeInput(event) {
    const keys = {
      insertLineBreak: "enter",
      insertParagraph: "enter",
      deleteContentBackward: "backspace",
      deleteContentForward: "delete",
    };
    if (event.inputType === "insertText" && event.data) {
      event.preventDefault();
      typed(event.data);
    } else if (keys[event.inputType]) {
      event.preventDefault();
      flushHeldBack();
      send({ type: "key", key: keys[event.inputType] });
    } else if (!event.inputType.endsWith("CompositionText") && event.cancelable) {
      // Pasting or dropping the page's own text, spelling corrections: not for the device.
      event.preventDefault();
    }
  }

  // Text that landed all the same, as with a browser that does not let an insertion be cancelled.
  function input(event) {
    const keyboard = event.currentTarget;
    if (!event.isComposing && !keyboard.classList.contains("composing") && keyboard.value !== "") {
      typed(keyboard.value);
      keyboard.value = "";
    }
  }

  function compositionEnd(event) {
    const keyboard = event.currentTarget;
    keyboard.classList.remove("composing");
    keyboard.value = "";
    typed(event.data ?? "");
  }

  function attachControl() {
    for (const picture of [$("screen"), $("peer-video")]) {
      picture.addEventListener("pointerdown", pointerDown);
      picture.addEventListener("pointermove", pointerMove);
      picture.addEventListener("pointerup", pointerUp);
      picture.addEventListener("pointercancel", pointerLost);
      picture.addEventListener("lostpointercapture", pointerLost);
      // The keyboard field keeps the focus a click on the picture gives it.
      picture.addEventListener("mousedown", (event) => event.preventDefault());
    }
    const keyboard = $("keyboard");
    keyboard.addEventListener("keydown", keyDown);
    keyboard.addEventListener("beforeinput", beforeInput);
    keyboard.addEventListener("input", input);
    keyboard.addEventListener("compositionstart", () => keyboard.classList.add("composing"));
    keyboard.addEventListener("compositionend", compositionEnd);
    keyboard.addEventListener("blur", flushText);
    for (const button of document.querySelectorAll("button[data-button]")) {
      button.addEventListener("click", () => {
        flushHeldBack();
        send({ type: "button", name: button.dataset.button });
      });
    }
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
    samplePeerStats().catch(() => {});
    const figures = peer.showing ? peer.figures : null;
    const fps = figures ? figures.fps : Math.round(stream.shown / seconds * 10) / 10;
    const kbps = figures ? figures.kbps : Math.round(stream.payloadBytes * 8 / seconds / 1000);
    // The device sends nothing while its screen does not change: no frames then is not a fault.
    const still = fps === 0 && stream.header !== null && !stream.stopped;
    setFigure("stream-fps", still ? "idle, screen unchanged" : fps.toFixed(1), fps);
    setFigure("stream-bitrate", kbps + " kbit/s", kbps);
    if (figures) {
      setFigure("stream-latency", figures.latency + " ms (network, jitter buffer and decoding)",
        figures.latency);
    } else if (stream.latencies > 0) {
      const latency = Math.round(stream.latencySumMs / stream.latencies);
      setFigure("stream-latency", latency + " ms", latency);
    } else {
      setFigure("stream-latency", still ? "no new frame" : "—");
      delete $("stream-latency").dataset.value;
    }
    setFigure("stream-missed", String(stream.missed), stream.missed);
    const header = stream.header;
    setFigure("stream-keyframes", header && header.codec === kJpeg
      ? "every frame (JPEG)" : String(stream.keyFrames), stream.keyFrames);
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
    if (send({ type: "need_stream", prefer: $("encode-codec").value || undefined })) {
      stream.stopped = false;
    }
  }

  function stopStreaming() {
    if (send({ type: "stream_control", streaming: false })) {
      stream.stopped = true;
    }
  }

  async function pollDevice() {
    const device = $("device");
    try {
      const response = await fetch("/admin/relay", { cache: "no-store" });
      const relay = await response.json();
      device.dataset.connected = String(relay.deviceConnected === true);
      if (!relay.deviceConnected) {
        device.textContent = "No device connected";
        $("screen-idle").textContent = "No device connected. On the device, start one with " +
          "velmorand broadcast (or Start Broadcast in the app).";
      } else if (relay.device) {
        device.textContent = relay.device.deviceName + " (" + relay.device.deviceId + ")";
      } else {
        device.textContent = "A device is connected";
      }
      if (relay.deviceConnected) {
        $("screen-idle").textContent = "No picture yet.";
      }
      $("viewers").textContent = String(relay.viewers);
    } catch (error) {
      device.dataset.connected = "false";
      device.textContent = "The sandbox does not answer (" + error.message + ")";
    }
  }

  document.addEventListener("DOMContentLoaded", () => {
    $("viewer-id").textContent = viewerId;
    peer.enabled = webrtcEnabled();
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
    $("stream-stop").addEventListener("click", stopStreaming);
    $("request-key-frame").addEventListener("click", () => send({ type: "request_idr" }));
    for (const form of document.querySelectorAll("form[data-command]")) {
      form.addEventListener("submit", (event) => {
        event.preventDefault();
        send(builders[form.dataset.command](form));
      });
    }
    attachControl();
    connect();
    pollDevice();
    setInterval(pollDevice, kDevicePollMs);
    setInterval(updateFigures, kFiguresMs);
  });

  // For tests: where a point on the picture lands on the device's screen, and the peer
  // connection's statistics.
  window.velmorandViewer = Object.freeze({
    canvasToScreen,
    peerStats: async () => (peer.connection ? [...(await peer.connection.getStats()).values()] : []),
  });
})();
