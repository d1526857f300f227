#include "velmorand/gst/GstPeerConnection.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#include <gst/webrtc/webrtc.h>
#include <nice/agent.h>

#include <chrono>
#include <mutex>
#include <utility>

#include "velmorand/gst/GstIceServerUri.h"

namespace velmorand {
namespace {

// What one connection is built of, webrtcbin's own helpers included, so that a missing plug-in is
// found before a viewer offers.
constexpr const char* kElements[] = {"appsrc",  "rtph264pay", "webrtcbin",   "rtpbin",
                                     "nicesrc", "nicesink",   "dtlssrtpenc", "dtlssrtpdec",
                                     "srtpenc", "srtpdec"};

constexpr const char* kSourceCaps =
    "video/x-h264,stream-format=byte-stream,alignment=au,profile=constrained-baseline";

// GStreamer's message, which may quote the viewer's offer: short and printable, for the log and
// for the viewer.
std::string errorText(GError* error) {
    constexpr std::size_t kMaxBytes = 120;
    std::string text = error != nullptr && error->message != nullptr ? error->message : "unknown";
    g_clear_error(&error);
    for (char& c : text) {
        if (c < 0x20 || c > 0x7E) {
            c = '?';
        }
    }
    if (text.size() > kMaxBytes) {
        text.resize(kMaxBytes);
        text += "…";
    }
    return text;
}

}  // namespace

// What GStreamer's threads reach: the owner's events, until the connection is being destroyed.
struct PeerShared {
    std::mutex mutex;
    bool closed = false;
    bool connected = false;
    bool failed = false;
    // The viewer's RTCP is passed on once a second at most, however much of it comes.
    std::chrono::steady_clock::time_point lastHeard;
    PeerConnection::Events events;

    // Runs `act` with the events unless the connection is closing.
    template <typename Act>
    void tell(Act&& act) {
        std::lock_guard lock(mutex);
        if (!closed) {
            act(events);
        }
    }

    void fail(const std::string& reason) {
        tell([&](PeerConnection::Events& events) {
            if (!std::exchange(failed, true) && events.onFailed) {
                events.onFailed(reason);
            }
        });
    }

    bool isClosed() {
        std::lock_guard lock(mutex);
        return closed;
    }
};

struct GstPeerConnection::Pipeline {
    GstElement* pipeline = nullptr;
    GstElement* source = nullptr;
    GstElement* webrtc = nullptr;
    // webrtcbin's own, which sees the viewer's RTCP.
    GstElement* rtpbin = nullptr;
    std::shared_ptr<PeerShared> shared = std::make_shared<PeerShared>();

    ~Pipeline() {
        if (pipeline == nullptr) {
            return;
        }
        {
            std::lock_guard lock(shared->mutex);
            shared->closed = true;
        }
        gst_element_set_state(pipeline, GST_STATE_NULL);
        g_signal_handlers_disconnect_by_data(webrtc, shared.get());
        if (rtpbin != nullptr) {
            g_signal_handlers_disconnect_by_data(rtpbin, shared.get());
        }
        GstBus* bus = gst_element_get_bus(pipeline);
        gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
        gst_object_unref(bus);
        gst_object_unref(pipeline);
    }
};

namespace {

// A promise's callback holds the connection's state and its webrtcbin until it has run.
struct PromiseContext {
    std::shared_ptr<PeerShared> shared;
    GstElement* webrtc;

    static gpointer make(const std::shared_ptr<PeerShared>& shared, GstElement* webrtc) {
        return new PromiseContext{shared, GST_ELEMENT(gst_object_ref(webrtc))};
    }
    static void release(gpointer data) {
        auto* context = static_cast<PromiseContext*>(data);
        gst_object_unref(context->webrtc);
        delete context;
    }
};

// An error in a promise's reply, said for the viewer.
std::optional<std::string> replyError(GstPromise* promise) {
    if (gst_promise_wait(promise) != GST_PROMISE_RESULT_REPLIED) {
        return "the peer connection was interrupted";
    }
    const GstStructure* reply = gst_promise_get_reply(promise);
    if (reply != nullptr && gst_structure_has_field(reply, "error")) {
        GError* error = nullptr;
        gst_structure_get(reply, "error", G_TYPE_ERROR, &error, nullptr);
        return "the offer could not be answered: " + errorText(error);
    }
    return std::nullopt;
}

void answerCreated(GstPromise* promise, gpointer data) {
    auto& context = *static_cast<PromiseContext*>(data);
    const auto error = replyError(promise);
    GstWebRTCSessionDescription* answer = nullptr;
    if (!error) {
        gst_structure_get(gst_promise_get_reply(promise), "answer",
                          GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &answer, nullptr);
    }
    gst_promise_unref(promise);
    if (answer == nullptr) {
        context.shared->fail(error.value_or("the device could not answer the offer"));
        return;
    }
    if (!context.shared->isClosed()) {
        g_signal_emit_by_name(context.webrtc, "set-local-description", answer, nullptr);
        gchar* text = gst_sdp_message_as_text(answer->sdp);
        context.shared->tell([&](PeerConnection::Events& events) { events.onAnswer(text); });
        g_free(text);
    }
    gst_webrtc_session_description_free(answer);
}

void remoteDescriptionSet(GstPromise* promise, gpointer data) {
    auto& context = *static_cast<PromiseContext*>(data);
    const auto error = replyError(promise);
    gst_promise_unref(promise);
    if (error) {
        context.shared->fail(*error);
        return;
    }
    if (context.shared->isClosed()) {
        return;
    }
    GstPromise* answer = gst_promise_new_with_change_func(
        answerCreated, PromiseContext::make(context.shared, context.webrtc),
        PromiseContext::release);
    g_signal_emit_by_name(context.webrtc, "create-answer", nullptr, answer);
}

void iceCandidate(GstElement*, guint lineIndex, gchar* candidate, gpointer data) {
    static_cast<PeerShared*>(data)->tell([&](PeerConnection::Events& events) {
        events.onCandidate(IceCandidate{candidate, "", static_cast<int>(lineIndex)});
    });
}

void gatheringChanged(GstElement* webrtc, GParamSpec*, gpointer data) {
    GstWebRTCICEGatheringState state = GST_WEBRTC_ICE_GATHERING_STATE_NEW;
    g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
    if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) {
        static_cast<PeerShared*>(data)->tell(
            [](PeerConnection::Events& events) { events.onCandidate(IceCandidate{}); });
    }
}

void connectionChanged(GstElement* webrtc, GParamSpec*, gpointer data) {
    auto& shared = *static_cast<PeerShared*>(data);
    GstWebRTCPeerConnectionState state = GST_WEBRTC_PEER_CONNECTION_STATE_NEW;
    g_object_get(webrtc, "connection-state", &state, nullptr);
    if (state == GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED) {
        shared.tell([&](PeerConnection::Events& events) {
            if (!std::exchange(shared.connected, true)) {
                events.onConnected();
            }
        });
    } else if (state == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED) {
        shared.fail("the peer-to-peer connection failed (ICE or DTLS)");
    }
}

// RTCP from a source: the only one besides our own sender is the viewer's receiver.
void rtcpHeard(GstElement*, guint, guint, gpointer data) {
    auto& shared = *static_cast<PeerShared*>(data);
    shared.tell([&shared](PeerConnection::Events& events) {
        const auto now = std::chrono::steady_clock::now();
        if (now - shared.lastHeard >= std::chrono::seconds(1)) {
            shared.lastHeard = now;
            events.onHeard();
        }
    });
}

// The viewer's PLI or FIR reaches the source as a request for a key unit.
GstPadProbeReturn upstreamEvent(GstPad*, GstPadProbeInfo* info, gpointer data) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    const GstStructure* structure = event != nullptr ? gst_event_get_structure(event) : nullptr;
    if (structure != nullptr && gst_structure_has_name(structure, "GstForceKeyUnit")) {
        static_cast<PeerShared*>(data)->tell(
            [](PeerConnection::Events& events) { events.onKeyFrameWanted(); });
    }
    return GST_PAD_PROBE_OK;
}

GstBusSyncReply busMessage(GstBus*, GstMessage* message, gpointer data) {
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        static_cast<PeerShared*>(data)->fail("the peer connection stopped: " + errorText(error));
    }
    return GST_BUS_DROP;
}

void addLoopbackAddress(GstElement* webrtc) {
    GObject* ice = nullptr;
    g_object_get(webrtc, "ice-agent", &ice, nullptr);
    if (ice == nullptr) {
        return;
    }
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(ice), "agent") != nullptr) {
        NiceAgent* agent = nullptr;
        g_object_get(ice, "agent", &agent, nullptr);
        if (agent != nullptr) {
            NiceAddress address;
            nice_address_init(&address);
            nice_address_set_from_string(&address, "127.0.0.1");
            nice_agent_add_local_address(agent, &address);
            g_object_unref(agent);
        }
    }
    g_object_unref(ice);
}

void useIceServers(GstElement* webrtc, const std::vector<IceServer>& servers) {
    bool haveStun = false;
    for (const auto& server : servers) {
        for (const auto& url : server.urls) {
            const std::string uri = gstIceServerUri(url, server);
            if (uri.starts_with("stun://") || uri.starts_with("stuns://")) {
                if (!std::exchange(haveStun, true)) {
                    g_object_set(webrtc, "stun-server", uri.c_str(), nullptr);
                }
            } else if (uri.starts_with("turn://") || uri.starts_with("turns://")) {
                gboolean added = FALSE;
                g_signal_emit_by_name(webrtc, "add-turn-server", uri.c_str(), &added);
            }
        }
    }
}

}  // namespace

namespace {

// GStreamer started, and every element a connection needs in its registry (loaded too, with
// `load`); else what is missing.
std::optional<std::string> checkElements(bool load) {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        return "GStreamer did not start: " + errorText(error);
    }
    for (const char* name : kElements) {
        GstElementFactory* factory = gst_element_factory_find(name);
        bool usable = factory != nullptr;
        if (usable && load) {
            GstPluginFeature* loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory));
            usable = loaded != nullptr;
            if (loaded != nullptr) {
                gst_object_unref(loaded);
            }
        }
        if (factory != nullptr) {
            gst_object_unref(factory);
        }
        if (!usable) {
            return std::string("GStreamer's ") + name +
                   " element does not load (it comes with gstreamer1.0-plugins-bad, "
                   "gstreamer1.0-plugins-good and gstreamer1.0-nice)";
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> GstPeerConnection::findPlugins() {
    static const std::optional<std::string> missing = checkElements(false);
    return missing;
}

std::optional<std::string> GstPeerConnection::loadPlugins() {
    static const std::optional<std::string> missing = checkElements(true);
    return missing;
}

GstPeerConnection::GstPeerConnection(std::unique_ptr<Pipeline> pipeline)
    : pipeline_(std::move(pipeline)) {}

GstPeerConnection::~GstPeerConnection() = default;

PeerConnectionFactory GstPeerConnection::factory(Options options) {
    return [options](Setup setup,
                     Events events) -> std::variant<std::unique_ptr<PeerConnection>, std::string> {
        if (auto missing = loadPlugins()) {
            return *missing;
        }
        auto made = std::make_unique<Pipeline>();
        made->shared->events = std::move(events);
        made->pipeline = gst_pipeline_new(nullptr);
        made->source = gst_element_factory_make("appsrc", nullptr);
        GstElement* payloader = gst_element_factory_make("rtph264pay", nullptr);
        made->webrtc = gst_element_factory_make("webrtcbin", nullptr);
        if (made->pipeline == nullptr || made->source == nullptr || payloader == nullptr ||
            made->webrtc == nullptr) {
            for (GstElement* element : {made->pipeline, made->source, payloader, made->webrtc}) {
                if (element != nullptr) {
                    gst_object_unref(element);
                }
            }
            made->pipeline = nullptr;
            return std::string("a GStreamer element could not be made");
        }
        GstCaps* caps = gst_caps_from_string(kSourceCaps);
        g_object_set(made->source, "is-live", TRUE, "format", GST_FORMAT_TIME, "do-timestamp", TRUE,
                     "block", FALSE, "max-bytes", guint64{kMaxQueuedBytes}, "caps", caps, nullptr);
        gst_caps_unref(caps);
        g_object_set(payloader, "config-interval", -1, "pt",
                     guint{static_cast<guint>(setup.payloadType)}, nullptr);
        gst_util_set_object_arg(G_OBJECT(payloader), "aggregate-mode", "zero-latency");
        gst_util_set_object_arg(G_OBJECT(made->webrtc), "bundle-policy", "max-bundle");
        useIceServers(made->webrtc, setup.iceServers);
        if (options.loopback) {
            addLoopbackAddress(made->webrtc);
        }
        gst_bin_add_many(GST_BIN(made->pipeline), made->source, payloader, made->webrtc, nullptr);
        if (gst_element_link_many(made->source, payloader, made->webrtc, nullptr) == FALSE) {
            return std::string("the H.264 payloader does not link to webrtcbin");
        }
        GstWebRTCRTPTransceiver* transceiver = nullptr;
        g_signal_emit_by_name(made->webrtc, "get-transceiver", 0, &transceiver);
        if (transceiver != nullptr) {
            g_object_set(transceiver, "direction", GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY,
                         nullptr);
            gst_object_unref(transceiver);
        }

        PeerShared* shared = made->shared.get();
        g_signal_connect(made->webrtc, "on-ice-candidate", G_CALLBACK(iceCandidate), shared);
        g_signal_connect(made->webrtc, "notify::ice-gathering-state", G_CALLBACK(gatheringChanged),
                         shared);
        g_signal_connect(made->webrtc, "notify::connection-state", G_CALLBACK(connectionChanged),
                         shared);
        made->rtpbin = gst_bin_get_by_name(GST_BIN(made->webrtc), "rtpbin");
        if (made->rtpbin != nullptr) {
            // The bin keeps it as long as webrtcbin lives.
            gst_object_unref(made->rtpbin);
            g_signal_connect(made->rtpbin, "on-ssrc-active", G_CALLBACK(rtcpHeard), shared);
        }
        GstPad* sourcePad = gst_element_get_static_pad(made->source, "src");
        gst_pad_add_probe(sourcePad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, upstreamEvent, shared,
                          nullptr);
        gst_object_unref(sourcePad);
        GstBus* bus = gst_element_get_bus(made->pipeline);
        gst_bus_set_sync_handler(bus, busMessage, shared, nullptr);
        gst_object_unref(bus);

        if (gst_element_set_state(made->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            return std::string("the peer connection's pipeline did not start");
        }
        GstSDPMessage* sdp = nullptr;
        gst_sdp_message_new_from_text(setup.offer.c_str(), &sdp);
        if (sdp == nullptr) {
            return std::string("the offer is not a session description");
        }
        GstWebRTCSessionDescription* offer =
            gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_OFFER, sdp);
        GstPromise* promise = gst_promise_new_with_change_func(
            remoteDescriptionSet, PromiseContext::make(made->shared, made->webrtc),
            PromiseContext::release);
        g_signal_emit_by_name(made->webrtc, "set-remote-description", offer, promise);
        gst_webrtc_session_description_free(offer);
        return std::unique_ptr<PeerConnection>(new GstPeerConnection(std::move(made)));
    };
}

void GstPeerConnection::addCandidate(const IceCandidate& candidate) {
    // The end of the viewer's candidates needs no word: libnice keeps checking what it has.
    if (!candidate.candidate.empty()) {
        g_signal_emit_by_name(pipeline_->webrtc, "add-ice-candidate",
                              guint{static_cast<guint>(candidate.sdpMLineIndex)},
                              candidate.candidate.c_str());
    }
}

bool GstPeerConnection::send(std::span<const std::uint8_t> accessUnit) {
    auto* source = GST_APP_SRC(pipeline_->source);
    if (gst_app_src_get_current_level_bytes(source) + accessUnit.size() > kMaxQueuedBytes) {
        return false;
    }
    GstBuffer* buffer = gst_buffer_new_memdup(accessUnit.data(), accessUnit.size());
    return gst_app_src_push_buffer(source, buffer) == GST_FLOW_OK;
}

}  // namespace velmorand
