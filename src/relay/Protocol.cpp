#include "velmorand/relay/Protocol.h"

#include <array>
#include <cmath>
#include <limits>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

using json = nlohmann::json;

constexpr double kTwoTo63 = 9223372036854775808.0;

// A JSON number written with a fraction or exponent counts as an integer only when it is one
// exactly and fits in 64 signed bits.
std::optional<std::int64_t> exactInteger(double value) {
    if (!std::isfinite(value) || std::trunc(value) != value || value < -kTwoTo63 ||
        value >= kTwoTo63) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(value);
}

using StringMember = std::optional<std::string> IncomingMessage::*;
using FloatMember = std::optional<double> IncomingMessage::*;
using IntegerMember = std::optional<std::int64_t> IncomingMessage::*;
using PointMember = std::optional<IncomingMessage::Point> IncomingMessage::*;
using BoolMember = std::optional<bool> IncomingMessage::*;
using Member = std::variant<StringMember, FloatMember, IntegerMember, PointMember, BoolMember>;

struct Field {
    std::string_view key;
    Member member;
};

using M = IncomingMessage;
constexpr std::array<Field, 29> kFields{{
    {"x", &M::x},
    {"y", &M::y},
    {"ms", &M::ms},
    {"from", &M::from},
    {"to", &M::to},
    {"value", &M::value},
    {"text", &M::text},
    {"key", &M::key},
    {"name", &M::name},
    {"url", &M::url},
    {"bundleId", &M::bundleId},
    {"bundleID", &M::bundleID},
    {"fileName", &M::fileName},
    {"mime", &M::mime},
    {"dataB64", &M::dataB64},
    {"t", &M::t},
    {"viewerId", &M::viewerId},
    {"tier", &M::tier},
    {"rttMs", &M::rttMs},
    {"lossPct", &M::lossPct},
    {"decodeQueue", &M::decodeQueue},
    {"jitterMs", &M::jitterMs},
    {"congestion", &M::congestion},
    {"prefer", &M::prefer},
    {"fps", &M::fps},
    {"quality", &M::quality},
    {"scale", &M::scale},
    {"codec", &M::codec},
    {"streaming", &M::streaming},
}};

const Field* findField(std::string_view key) {
    for (const Field& field : kFields) {
        if (field.key == key) {
            return &field;
        }
    }
    return nullptr;
}

// Streams the frame straight into the record: no document tree is built, and the first value of
// a wrong kind stops the parse.
class IncomingDecoder {
  public:
    using number_integer_t = json::number_integer_t;
    using number_unsigned_t = json::number_unsigned_t;
    using number_float_t = json::number_float_t;
    using string_t = json::string_t;
    using binary_t = json::binary_t;

    IncomingMessage message;
    bool sawType = false;

    bool null() {
        if (skipping()) {
            return true;
        }
        switch (take()) {
            case Expect::field:
                std::visit([this](auto member) { (message.*member).reset(); }, field_->member);
                return true;
            case Expect::ignored:
            case Expect::pointIgnored:
                return true;
            default:
                return false;
        }
    }

    bool boolean(bool value) {
        if (skipping()) {
            return true;
        }
        switch (take()) {
            case Expect::field:
                if (auto* member = std::get_if<BoolMember>(&field_->member)) {
                    message.** member = value;
                    return true;
                }
                return false;
            case Expect::ignored:
            case Expect::pointIgnored:
                return true;
            default:
                return false;
        }
    }

    bool number_integer(number_integer_t value) {
        return number(static_cast<double>(value), value);
    }

    bool number_unsigned(number_unsigned_t value) {
        const bool fits =
            value <= static_cast<number_unsigned_t>(std::numeric_limits<std::int64_t>::max());
        return number(
            static_cast<double>(value),
            fits ? std::optional<std::int64_t>(static_cast<std::int64_t>(value)) : std::nullopt);
    }

    bool number_float(number_float_t value, const string_t& literal) {
        // An integer literal too long for 64 bits arrives here as a rounded float.
        const bool writtenAsInteger = literal.find_first_of(".eE") == string_t::npos;
        return number(value, writtenAsInteger ? std::nullopt : exactInteger(value));
    }

    bool string(string_t& value) {
        if (skipping()) {
            return true;
        }
        switch (take()) {
            case Expect::type:
                message.type = std::move(value);
                sawType = true;
                return true;
            case Expect::field:
                if (auto* member = std::get_if<StringMember>(&field_->member)) {
                    message.** member = std::move(value);
                    return true;
                }
                return false;
            case Expect::ignored:
            case Expect::pointIgnored:
                return true;
            default:
                return false;
        }
    }

    bool binary(binary_t&) { return false; }

    bool start_object(std::size_t) {
        if (skipping()) {
            ++skipDepth_;
            return true;
        }
        if (!started_) {
            started_ = true;
            return true;
        }
        switch (take()) {
            case Expect::field:
                if (auto* member = std::get_if<PointMember>(&field_->member)) {
                    point_ = *member;
                    pointX_.reset();
                    pointY_.reset();
                    return true;
                }
                return false;
            case Expect::ignored:
            case Expect::pointIgnored:
                skipDepth_ = 1;
                return true;
            default:
                return false;
        }
    }

    bool end_object() {
        if (skipping()) {
            --skipDepth_;
            return true;
        }
        if (point_ != nullptr) {
            if (!pointX_ || !pointY_) {
                return false;
            }
            message.*point_ = IncomingMessage::Point{*pointX_, *pointY_};
            point_ = nullptr;
        }
        return true;
    }

    bool start_array(std::size_t) {
        if (skipping()) {
            ++skipDepth_;
            return true;
        }
        const Expect expect = take();
        if (expect == Expect::ignored || expect == Expect::pointIgnored) {
            skipDepth_ = 1;
            return true;
        }
        return false;
    }

    bool end_array() {
        --skipDepth_;
        return true;
    }

    bool key(string_t& key) {
        if (skipping()) {
            return true;
        }
        if (point_ != nullptr) {
            expect_ = key == "x"   ? Expect::pointX
                      : key == "y" ? Expect::pointY
                                   : Expect::pointIgnored;
        } else if (key == "type") {
            expect_ = Expect::type;
        } else if ((field_ = findField(key)) != nullptr) {
            expect_ = Expect::field;
        } else {
            expect_ = Expect::ignored;
        }
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

  private:
    enum class Expect { nothing, type, field, ignored, pointX, pointY, pointIgnored };

    bool skipping() const { return skipDepth_ > 0; }

    Expect take() { return std::exchange(expect_, Expect::nothing); }

    bool number(double asFloat, std::optional<std::int64_t> asInteger) {
        if (skipping()) {
            return true;
        }
        switch (take()) {
            case Expect::field:
                if (auto* member = std::get_if<FloatMember>(&field_->member)) {
                    message.** member = asFloat;
                    return true;
                }
                if (auto* member = std::get_if<IntegerMember>(&field_->member)) {
                    message.** member = asInteger;
                    return asInteger.has_value();
                }
                return false;
            case Expect::pointX:
                pointX_ = asFloat;
                return true;
            case Expect::pointY:
                pointY_ = asFloat;
                return true;
            case Expect::ignored:
            case Expect::pointIgnored:
                return true;
            default:
                return false;
        }
    }

    bool started_ = false;
    Expect expect_ = Expect::nothing;
    const Field* field_ = nullptr;
    int skipDepth_ = 0;
    PointMember point_ = nullptr;
    std::optional<double> pointX_;
    std::optional<double> pointY_;
};

void appendQuoted(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '/':
                out += "\\/";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    out += "\\u00";
                    out += kHex[(c >> 4) & 0xf];
                    out += kHex[c & 0xf];
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

// The integer rule of the decoder above, for a document tree (which keeps no number literals).
std::optional<std::int64_t> integerValue(const json& value) {
    if (value.is_number_unsigned()) {
        const auto unsignedValue = value.get<std::uint64_t>();
        if (unsignedValue > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(unsignedValue);
    }
    if (value.is_number_integer()) {
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        return exactInteger(value.get<double>());
    }
    return std::nullopt;
}

std::optional<json> parseObject(std::string_view utf8) {
    json document = json::parse(utf8, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        return std::nullopt;
    }
    return document;
}

}  // namespace

std::optional<IncomingMessage> IncomingMessage::decode(std::string_view utf8) {
    IncomingDecoder decoder;
    if (!json::sax_parse(utf8, &decoder) || !decoder.sawType) {
        return std::nullopt;
    }
    return std::move(decoder.message);
}

std::optional<std::string> PongMessage::encode() const {
    return std::string(R"({"type":"pong"})");
}

std::optional<PongMessage> PongMessage::decode(std::string_view utf8) {
    if (!parseObject(utf8)) {
        return std::nullopt;
    }
    return PongMessage{};
}

std::optional<std::string> LatencyPongMessage::encode() const {
    if (viewerId && !isValidUtf8(*viewerId)) {
        return std::nullopt;
    }
    std::string out = R"({"type":"latency_pong","t":)";
    out += std::to_string(t);
    if (viewerId) {
        out += R"(,"viewerId":)";
        appendQuoted(out, *viewerId);
    }
    out += '}';
    return out;
}

std::optional<LatencyPongMessage> LatencyPongMessage::decode(std::string_view utf8) {
    const auto document = parseObject(utf8);
    if (!document) {
        return std::nullopt;
    }
    LatencyPongMessage message;
    const auto t = document->find("t");
    if (t == document->end()) {
        return std::nullopt;
    }
    const auto integer = integerValue(*t);
    if (!integer) {
        return std::nullopt;
    }
    message.t = *integer;
    const auto viewerId = document->find("viewerId");
    if (viewerId != document->end() && !viewerId->is_null()) {
        if (!viewerId->is_string()) {
            return std::nullopt;
        }
        message.viewerId = viewerId->get<std::string>();
    }
    return message;
}

}  // namespace velmorand
