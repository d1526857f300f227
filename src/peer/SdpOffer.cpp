#include "velmorand/peer/SdpOffer.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>
#include <optional>
#include <vector>

namespace velmorand {
namespace {

constexpr std::size_t kMaxMidBytes = 32;

// One media section: its kind, its formats in the offer's order, and the attributes that matter.
struct Section {
    std::string kind;
    bool rejected = false;
    std::vector<int> formats;
    std::map<int, std::string> encodings;   // a=rtpmap: "H264/90000"
    std::map<int, std::string> parameters;  // a=fmtp: "packetization-mode=1;…"
    std::string mid;
    bool receives = true;
};

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    return text;
}

std::optional<int> number(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

bool isPayloadType(int value) {
    return value >= 0 && value <= 127;
}

std::vector<std::string_view> words(std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        const auto space = text.find(' ');
        if (space != 0) {
            out.push_back(text.substr(0, space));
        }
        if (space == std::string_view::npos) {
            break;
        }
        text.remove_prefix(space + 1);
    }
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// "a=rtpmap:96 H264/90000" and "a=fmtp:96 …" give the format and the rest.
std::optional<std::pair<int, std::string_view>> formatAttribute(std::string_view value) {
    const auto space = value.find(' ');
    const auto format = number(value.substr(0, space));
    if (!format || !isPayloadType(*format) || space == std::string_view::npos) {
        return std::nullopt;
    }
    return std::pair{*format, trimmed(value.substr(space + 1))};
}

std::optional<std::string_view> parameter(std::string_view parameters, std::string_view name) {
    while (!parameters.empty()) {
        const auto end = parameters.find(';');
        const auto item = trimmed(parameters.substr(0, end));
        const auto equals = item.find('=');
        if (equals != std::string_view::npos && equalsIgnoringCase(item.substr(0, equals), name)) {
            return item.substr(equals + 1);
        }
        if (end == std::string_view::npos) {
            break;
        }
        parameters.remove_prefix(end + 1);
    }
    return std::nullopt;
}

std::optional<unsigned> hexByte(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + 2, value, 16);
    return error == std::errc() && end == text.data() + 2 ? std::optional(value) : std::nullopt;
}

// Constrained baseline as a decoder sees it: the baseline, main or extended profile with the
// constraint flags that rule out what baseline decoders lack (the reserved bits zero).
bool isConstrainedBaseline(std::string_view profileLevelId) {
    if (profileLevelId.size() != 6) {
        return false;
    }
    const auto profile = hexByte(profileLevelId.substr(0, 2));
    const auto constraints = hexByte(profileLevelId.substr(2, 2));
    if (!profile || !constraints || !hexByte(profileLevelId.substr(4, 2))) {
        return false;
    }
    switch (*profile) {
        case 0x42:
            return (*constraints & 0x4FU) == 0x40U;
        case 0x4D:
            return (*constraints & 0x8FU) == 0x80U;
        case 0x58:
            return (*constraints & 0xCFU) == 0xC0U;
        default:
            return false;
    }
}

bool isH264(const std::string& encoding) {
    const auto slash = encoding.find('/');
    return slash != std::string::npos &&
           equalsIgnoringCase(std::string_view(encoding).substr(0, slash), "H264") &&
           std::string_view(encoding).substr(slash + 1) == "90000";
}

bool fits(const Section& section, int format) {
    const auto parameters = section.parameters.find(format);
    if (parameters == section.parameters.end()) {
        return false;
    }
    const auto mode = parameter(parameters->second, "packetization-mode");
    const auto profile = parameter(parameters->second, "profile-level-id");
    return mode == "1" && profile && isConstrainedBaseline(*profile);
}

void readAttribute(Section& section, std::string_view attribute) {
    const auto colon = attribute.find(':');
    const auto name = attribute.substr(0, colon);
    const auto value =
        colon == std::string_view::npos ? std::string_view() : attribute.substr(colon + 1);
    if (name == "rtpmap") {
        if (const auto format = formatAttribute(value)) {
            section.encodings[format->first] = std::string(format->second);
        }
    } else if (name == "fmtp") {
        if (const auto format = formatAttribute(value)) {
            section.parameters[format->first] = std::string(format->second);
        }
    } else if (name == "mid") {
        // Echoed in every candidate the device sends: a short printable name, or none.
        if (value.size() <= kMaxMidBytes &&
            std::all_of(value.begin(), value.end(), [](char c) { return c > 0x20 && c < 0x7F; })) {
            section.mid = std::string(value);
        }
    } else if (name == "sendonly" || name == "inactive") {
        section.receives = false;
    }
}

std::optional<Section> mediaLine(std::string_view value) {
    // "video 9 UDP/TLS/RTP/SAVPF 96 97 …"
    const auto fields = words(value);
    if (fields.size() < 3) {
        return std::nullopt;
    }
    Section section;
    section.kind = std::string(fields[0]);
    section.rejected = fields[1] == "0";
    for (std::size_t i = 3; i < fields.size(); ++i) {
        if (const auto format = number(fields[i]); format && isPayloadType(*format)) {
            section.formats.push_back(*format);
        }
    }
    return section;
}

}  // namespace

std::variant<SdpOffer, std::string> SdpOffer::read(std::string_view sdp) {
    if (sdp.size() > kMaxBytes) {
        return std::string("the offer is larger than 64 KiB");
    }
    if (!sdp.starts_with("v=0")) {
        return std::string("the offer is not a session description");
    }
    std::vector<Section> sections;
    while (!sdp.empty()) {
        const auto end = sdp.find('\n');
        const auto line = trimmed(sdp.substr(0, end));
        sdp.remove_prefix(end == std::string_view::npos ? sdp.size() : end + 1);
        if (line.size() < 2 || line[1] != '=') {
            continue;
        }
        if (line[0] == 'm') {
            auto section = mediaLine(line.substr(2));
            if (!section) {
                return std::string("the offer has a malformed media line");
            }
            sections.push_back(std::move(*section));
        } else if (line[0] == 'a' && !sections.empty()) {
            readAttribute(sections.back(), line.substr(2));
        }
    }
    bool hasVideo = false;
    bool hasH264 = false;
    for (std::size_t index = 0; index < sections.size(); ++index) {
        const Section& section = sections[index];
        if (section.kind != "video" || section.rejected || !section.receives) {
            continue;
        }
        hasVideo = true;
        for (const int format : section.formats) {
            const auto encoding = section.encodings.find(format);
            if (encoding == section.encodings.end() || !isH264(encoding->second)) {
                continue;
            }
            hasH264 = true;
            if (fits(section, format)) {
                return SdpOffer{format, section.mid, static_cast<int>(index)};
            }
        }
    }
    if (!hasVideo) {
        return std::string("the offer asks for no video");
    }
    if (!hasH264) {
        return std::string("the offer has no H.264");
    }
    return std::string("the offer has no constrained-baseline H.264 with packetization-mode 1");
}

}  // namespace velmorand
