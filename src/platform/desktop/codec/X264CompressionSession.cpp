#include "velmorand/codec/X264CompressionSession.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <limits>
#include <string>

// x264.h leaves including the fixed-width integer types to its users.
#include <x264.h>

#include "PicturePlanes.h"

namespace velmorand {
namespace {

// Annex E's value for BT.601 (SMPTE 170M): what the pictures are converted with. Untagged, a
// decoder may guess BT.709 for larger pictures and shift the colours.
constexpr int kBt601 = 6;

void discardLog(void*, int, const char*, va_list) {}

std::string describe(int width, int height, int frameRate, int bitRateKbps) {
    return std::to_string(width) + "x" + std::to_string(height) + " at " +
           std::to_string(frameRate) + " fps and " + std::to_string(bitRateKbps) + " kbit/s";
}

// x264 gives each picture the bit rate divided by the frame rate it was opened with, and a
// reconfiguration cannot change that frame rate. So a later frame rate is passed on as the bit
// rate that gives each picture the same share; the buffer is real time and stays unscaled.
void applyRate(x264_param_t& param, int openedFrameRate, int frameRate, int bitRateKbps) {
    const auto equivalentKbps = static_cast<int>(
        std::clamp<std::int64_t>(std::int64_t{bitRateKbps} * openedFrameRate / frameRate, 1,
                                 std::numeric_limits<int>::max()));
    param.rc.i_rc_method = X264_RC_ABR;
    param.rc.i_bitrate = equivalentKbps;
    // A ceiling at the mean rate with half a second of buffer keeps bursts (a screen that changes
    // all at once) from queueing seconds of data on the link.
    param.rc.i_vbv_max_bitrate = equivalentKbps;
    param.rc.i_vbv_buffer_size = std::max(1, bitRateKbps / 2);
}

}  // namespace

std::variant<std::unique_ptr<H264CompressionSession>, EncodeError> X264CompressionSession::open(
    const H264SessionSettings& settings) {
    const auto described =
        describe(settings.width, settings.height, settings.frameRate, settings.bitRateKbps);
    if (settings.width < 2 || settings.height < 2 || settings.width % 2 != 0 ||
        settings.height % 2 != 0 || settings.frameRate <= 0 || settings.bitRateKbps <= 0) {
        return EncodeError{"cannot make an H.264 stream of " + described};
    }
    x264_param_t param;
    if (x264_param_default_preset(&param, "ultrafast", "zerolatency") < 0) {
        return EncodeError{"x264 lacks the ultrafast preset or the zerolatency tune"};
    }
    param.pf_log = discardLog;
    param.i_log_level = X264_LOG_NONE;
    param.i_threads = kThreads;
    param.b_sliced_threads = 1;
    param.i_width = settings.width;
    param.i_height = settings.height;
    param.i_csp = X264_CSP_I420;
    param.i_bframe = 0;
    // Key frames cost many times a normal frame; send one only when a viewer needs it.
    param.i_keyint_max = X264_KEYINT_MAX_INFINITE;
    param.i_scenecut_threshold = 0;
    // Pictures come when the screen changes, never faster than the frame rate. Rate control by
    // timestamps would hold every picture back until the next one arrived to learn its duration;
    // budgeting each picture a full frame interval instead can only undershoot the bit rate.
    param.b_vfr_input = 0;
    param.b_annexb = 1;
    param.b_repeat_headers = 1;
    param.vui.b_fullrange = 0;
    param.vui.i_colorprim = kBt601;
    param.vui.i_transfer = kBt601;
    param.vui.i_colmatrix = kBt601;
    param.i_fps_num = static_cast<std::uint32_t>(settings.frameRate);
    param.i_fps_den = 1;
    applyRate(param, settings.frameRate, settings.frameRate, settings.bitRateKbps);
    // Without CABAC, 8x8 transforms or weighted prediction: what browsers decode in software.
    if (x264_param_apply_profile(&param, "baseline") < 0) {
        return EncodeError{"x264 cannot make a baseline stream of " + described};
    }
    x264_t* encoder = x264_encoder_open(&param);
    if (encoder == nullptr) {
        return EncodeError{"x264 refused a stream of " + described};
    }
    return std::unique_ptr<H264CompressionSession>(new X264CompressionSession(encoder, settings));
}

H264SessionFactory X264CompressionSession::factory() {
    return [](const H264SessionSettings& settings) { return open(settings); };
}

X264CompressionSession::X264CompressionSession(x264_t* encoder, H264SessionSettings settings)
    : encoder_(encoder), settings_(settings) {}

X264CompressionSession::~X264CompressionSession() {
    x264_encoder_close(encoder_);
}

std::variant<H264AccessUnit, EncodeError> X264CompressionSession::encode(const I420Picture& picture,
                                                                         std::int64_t timestampUs,
                                                                         bool keyFrame) {
    if (!planesFit(picture) || picture.width != settings_.width ||
        picture.height != settings_.height) {
        return EncodeError{"a " + std::to_string(picture.width) + "x" +
                           std::to_string(picture.height) + " picture does not fit a " +
                           std::to_string(settings_.width) + "x" +
                           std::to_string(settings_.height) + " H.264 stream"};
    }
    x264_picture_t in;
    x264_picture_init(&in);
    in.img.i_csp = X264_CSP_I420;
    in.img.i_plane = 3;
    // x264 copies the planes into its own frame and never writes through these pointers.
    in.img.plane[0] = const_cast<std::uint8_t*>(picture.y.data());
    in.img.plane[1] = const_cast<std::uint8_t*>(picture.u.data());
    in.img.plane[2] = const_cast<std::uint8_t*>(picture.v.data());
    in.img.i_stride[0] = picture.width;
    in.img.i_stride[1] = picture.width / 2;
    in.img.i_stride[2] = picture.width / 2;
    in.i_pts = timestampUs;
    in.i_type = keyFrame ? X264_TYPE_IDR : X264_TYPE_AUTO;
    x264_picture_t out;
    x264_picture_init(&out);
    x264_nal_t* nals = nullptr;
    int nalCount = 0;
    const int bytes = x264_encoder_encode(encoder_, &nals, &nalCount, &in, &out);
    if (bytes < 0) {
        return EncodeError{"x264 failed to encode a picture"};
    }
    if (bytes == 0 || nalCount <= 0 || nals == nullptr) {
        return EncodeError{"x264 held a picture back instead of encoding it at once"};
    }
    // x264 lays the NAL units of one call out back to back, start codes included.
    return H264AccessUnit{
        std::span<const std::uint8_t>(nals[0].p_payload, static_cast<std::size_t>(bytes)),
        out.b_keyframe != 0};
}

bool X264CompressionSession::retune(int frameRate, int bitRateKbps) {
    if (frameRate <= 0 || bitRateKbps <= 0) {
        return false;
    }
    x264_param_t param;
    x264_encoder_parameters(encoder_, &param);
    applyRate(param, settings_.frameRate, frameRate, bitRateKbps);
    return x264_encoder_reconfig(encoder_, &param) >= 0;
}

}  // namespace velmorand
