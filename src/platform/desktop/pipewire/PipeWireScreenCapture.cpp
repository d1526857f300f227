#include "velmorand/pipewire/PipeWireScreenCapture.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <sys/stat.h>

#include <mutex>
#include <utility>

#include "velmorand/pipewire/FrameCopy.h"

namespace velmorand {
namespace {

// Whether the memory PipeWire mapped for `data` is all there: a file the compositor made shorter
// than it said would end the process (SIGBUS) when read past its end.
bool backed(const spa_data& data) {
    if (data.type != SPA_DATA_MemFd) {
        return true;
    }
    struct stat file {};
    return data.fd >= 0 && ::fstat(static_cast<int>(data.fd), &file) == 0 &&
           static_cast<std::uint64_t>(file.st_size) >= data.mapoffset + std::uint64_t{data.maxsize};
}

std::optional<PixelOrder> pixelOrder(std::uint32_t format) {
    switch (format) {
        case SPA_VIDEO_FORMAT_BGRx:
            return PixelOrder::bgrx;
        case SPA_VIDEO_FORMAT_BGRA:
            return PixelOrder::bgra;
        case SPA_VIDEO_FORMAT_RGBx:
            return PixelOrder::rgbx;
        case SPA_VIDEO_FORMAT_RGBA:
            return PixelOrder::rgba;
        default:
            return std::nullopt;
    }
}

// Raw video in one of the four 32-bit orders, of any size and rate, in shared memory.
const spa_pod* formats(spa_pod_builder& builder) {
    spa_pod_frame object{};
    spa_pod_frame choice{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_prop(&builder, SPA_FORMAT_mediaType, 0);
    spa_pod_builder_id(&builder, SPA_MEDIA_TYPE_video);
    spa_pod_builder_prop(&builder, SPA_FORMAT_mediaSubtype, 0);
    spa_pod_builder_id(&builder, SPA_MEDIA_SUBTYPE_raw);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_format, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Enum, 0);
    // The first is the preferred one; it is listed again among the alternatives.
    for (const auto format : {SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                              SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA}) {
        spa_pod_builder_id(&builder, format);
    }
    spa_pod_builder_pop(&builder, &choice);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_size, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_rectangle(&builder, 1920, 1080);
    spa_pod_builder_rectangle(&builder, 1, 1);
    spa_pod_builder_rectangle(&builder, kLargestPictureSide, kLargestPictureSide);
    spa_pod_builder_pop(&builder, &choice);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_framerate, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_fraction(&builder, 0, 1);
    spa_pod_builder_fraction(&builder, 0, 1);
    spa_pod_builder_fraction(&builder, 360, 1);
    spa_pod_builder_pop(&builder, &choice);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

// Buffers the process can map: no DMA-BUF, which would need a GPU to read back.
const spa_pod* sharedMemoryBuffers(spa_pod_builder& builder) {
    spa_pod_frame object{};
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    spa_pod_builder_prop(&builder, SPA_PARAM_BUFFERS_dataType, 0);
    spa_pod_builder_int(&builder, (1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr));
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

void initialise() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

}  // namespace

// PipeWire's objects, all touched under the thread loop's lock (or on its thread).
struct PipeWireScreenCapture::Loop {
    pw_thread_loop* thread = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener{};
    spa_hook streamListener{};
    pw_core_events coreEvents{};
    pw_stream_events streamEvents{};

    ~Loop() { close(); }

    // Stops the thread; until it holds the lock, a callback may still be running on it.
    void close() {
        if (thread == nullptr) {
            return;
        }
        pw_thread_loop_lock(thread);
        if (stream != nullptr) {
            spa_hook_remove(&streamListener);
            pw_stream_destroy(stream);
        }
        if (core != nullptr) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
        }
        pw_thread_loop_unlock(thread);
        pw_thread_loop_stop(thread);
        if (context != nullptr) {
            pw_context_destroy(context);
        }
        pw_thread_loop_destroy(std::exchange(thread, nullptr));
    }
};

PipeWireScreenCapture::PipeWireScreenCapture() : loop_(std::make_unique<Loop>()) {}

PipeWireScreenCapture::~PipeWireScreenCapture() {
    // The loop's thread is stopped before the buffers it fills go, and while a callback that is
    // still running can reach the loop: unique_ptr::reset clears the pointer before it destroys.
    loop_->close();
}

std::variant<std::unique_ptr<ScreenCapture>, CaptureError> PipeWireScreenCapture::open(
    int remote, std::uint32_t node) {
    initialise();
    std::unique_ptr<PipeWireScreenCapture> capture(new PipeWireScreenCapture());
    Loop& loop = *capture->loop_;
    loop.thread = pw_thread_loop_new("velmorand-cast", nullptr);
    if (loop.thread == nullptr) {
        if (remote >= 0) {
            ::close(remote);
        }
        return CaptureError{"cannot start PipeWire's thread"};
    }
    loop.context = pw_context_new(pw_thread_loop_get_loop(loop.thread), nullptr, 0);
    if (loop.context == nullptr || pw_thread_loop_start(loop.thread) < 0) {
        if (remote >= 0) {
            ::close(remote);
        }
        return CaptureError{"cannot start PipeWire"};
    }

    loop.coreEvents.version = PW_VERSION_CORE_EVENTS;
    loop.coreEvents.error = [](void* data, std::uint32_t id, int, int, const char* message) {
        if (id == PW_ID_CORE) {
            static_cast<PipeWireScreenCapture*>(data)->ended(std::string("PipeWire failed: ") +
                                                             (message != nullptr ? message : "?"));
        }
    };
    loop.streamEvents.version = PW_VERSION_STREAM_EVENTS;
    loop.streamEvents.state_changed = [](void* data, pw_stream_state previous,
                                         pw_stream_state state, const char* error) {
        auto* self = static_cast<PipeWireScreenCapture*>(data);
        if (state == PW_STREAM_STATE_ERROR) {
            self->ended(std::string("the screen cast failed: ") + (error != nullptr ? error : "?"));
        } else if (state == PW_STREAM_STATE_UNCONNECTED &&
                   previous != PW_STREAM_STATE_UNCONNECTED) {
            self->ended("the compositor ended the screen cast");
        }
    };
    loop.streamEvents.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format && param != nullptr) {
            static_cast<PipeWireScreenCapture*>(data)->formatChanged(param);
        }
    };
    loop.streamEvents.process = [](void* data) {
        static_cast<PipeWireScreenCapture*>(data)->frameArrived();
    };

    pw_thread_loop_lock(loop.thread);
    loop.core = remote >= 0 ? pw_context_connect_fd(loop.context, remote, nullptr, 0)
                            : pw_context_connect(loop.context, nullptr, 0);
    std::optional<CaptureError> failed;
    if (loop.core == nullptr) {
        failed = CaptureError{"cannot connect to PipeWire"};
    } else {
        pw_core_add_listener(loop.core, &loop.coreListener, &loop.coreEvents, capture.get());
        loop.stream =
            pw_stream_new(loop.core, "velmorand-screen",
                          pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                            "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
        if (loop.stream == nullptr) {
            failed = CaptureError{"cannot make a PipeWire stream"};
        } else {
            pw_stream_add_listener(loop.stream, &loop.streamListener, &loop.streamEvents,
                                   capture.get());
            std::uint8_t bytes[1024];
            spa_pod_builder builder{};
            spa_pod_builder_init(&builder, bytes, sizeof bytes);
            const spa_pod* params[] = {formats(builder)};
            // When the compositor's node goes (it ended the cast, or died), so does the capture:
            // linked to some other source instead, it would show something else.
            const auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                            PW_STREAM_FLAG_MAP_BUFFERS |
                                                            PW_STREAM_FLAG_DONT_RECONNECT);
            if (pw_stream_connect(loop.stream, PW_DIRECTION_INPUT, node, flags, params, 1) < 0) {
                failed = CaptureError{"cannot connect to the screen cast's PipeWire node"};
            }
        }
    }
    pw_thread_loop_unlock(loop.thread);
    if (failed) {
        return *failed;
    }

    std::unique_lock lock(capture->mutex_);
    const bool arrived = capture->changed_.wait_for(lock, kFirstFrameTimeout, [&capture] {
        return capture->fresh_ || capture->ended_.has_value();
    });
    if (capture->ended_) {
        return CaptureError{*capture->ended_};
    }
    if (!arrived && !capture->linked_) {
        return CaptureError{
            "PipeWire did not link the screen cast to this program within 10 s — is its session "
            "manager (WirePlumber) running?"};
    }
    if (!arrived) {
        return CaptureError{"the screen cast sent no picture within 10 s"};
    }
    lock.unlock();
    return std::unique_ptr<ScreenCapture>(std::move(capture));
}

void PipeWireScreenCapture::formatChanged(const void* param) {
    const auto* format = static_cast<const spa_pod*>(param);
    std::uint32_t mediaType = 0;
    std::uint32_t mediaSubtype = 0;
    spa_video_info_raw info{};
    if (spa_format_parse(format, &mediaType, &mediaSubtype) < 0 ||
        mediaType != SPA_MEDIA_TYPE_video || mediaSubtype != SPA_MEDIA_SUBTYPE_raw ||
        spa_format_video_raw_parse(format, &info) < 0) {
        return;
    }
    const auto order = pixelOrder(info.format);
    if (!order || !acceptedPictureSize(info.size.width, info.size.height)) {
        ended("the screen cast offered no picture format this program reads");
        return;
    }
    order_ = static_cast<int>(*order);
    format_ = {static_cast<int>(info.size.width), static_cast<int>(info.size.height)};
    {
        std::lock_guard lock(mutex_);
        linked_ = true;
    }
    std::uint8_t bytes[256];
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, bytes, sizeof bytes);
    const spa_pod* params[] = {sharedMemoryBuffers(builder)};
    pw_stream_update_params(loop_->stream, params, 1);
}

void PipeWireScreenCapture::frameArrived() {
    // Only the newest picture matters: older ones waiting are handed straight back.
    pw_buffer* newest = nullptr;
    while (pw_buffer* next = pw_stream_dequeue_buffer(loop_->stream)) {
        if (newest != nullptr) {
            pw_stream_queue_buffer(loop_->stream, newest);
        }
        newest = next;
    }
    if (newest == nullptr) {
        return;
    }
    bool copied = false;
    const spa_buffer* buffer = newest->buffer;
    if (buffer != nullptr && buffer->n_datas > 0 && format_.width > 0) {
        const spa_data& data = buffer->datas[0];
        const spa_chunk* chunk = data.chunk;
        if (data.data != nullptr && chunk != nullptr && chunk->size > 0 &&
            (chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) == 0 && backed(data)) {
            const FrameLayout layout{
                .width = format_.width,
                .height = format_.height,
                .stride = chunk->stride > 0 ? chunk->stride : std::int64_t{format_.width} * 4,
                .offset = chunk->offset,
            };
            copied = copyToBgrx({static_cast<const std::uint8_t*>(data.data), data.maxsize},
                                static_cast<PixelOrder>(order_), layout, scratch_);
        }
    }
    pw_stream_queue_buffer(loop_->stream, newest);
    if (!copied) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        std::swap(scratch_, incoming_);
        incomingSize_ = format_;
        fresh_ = true;
    }
    changed_.notify_all();
}

void PipeWireScreenCapture::ended(std::string why) {
    {
        std::lock_guard lock(mutex_);
        if (!ended_) {
            ended_ = std::move(why);
        }
    }
    changed_.notify_all();
}

bool PipeWireScreenCapture::waitForChange(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [this] { return fresh_ || woken_ || ended_; });
    woken_ = false;
    return fresh_ || ended_.has_value();
}

void PipeWireScreenCapture::wake() {
    {
        std::lock_guard lock(mutex_);
        woken_ = true;
    }
    changed_.notify_all();
}

ScreenSize PipeWireScreenCapture::size() {
    std::lock_guard lock(mutex_);
    return fresh_ ? incomingSize_ : currentSize_;
}

std::variant<ScreenImage, CaptureError> PipeWireScreenCapture::grab() {
    std::lock_guard lock(mutex_);
    if (ended_) {
        return CaptureError{*ended_};
    }
    if (fresh_) {
        std::swap(current_, incoming_);
        currentSize_ = incomingSize_;
        fresh_ = false;
    }
    return ScreenImage{current_.data(), currentSize_.width, currentSize_.height,
                       currentSize_.width * 4};
}

}  // namespace velmorand
