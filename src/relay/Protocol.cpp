#include "velmorand/relay/Protocol.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <span>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

using json = nlohmann::json;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A number literal as written: its significant digits and where the decimal point falls among
// them, so that it can be judged without rounding it to a double first.
struct DecimalLiteral {
    bool negative = false;
    // Without leading zeros; empty for zero.
    std::string digits;
    // How many of `digits` stand before the decimal point; may lie outside 0..digits.size().
    long long point = 0;

    // `literal` is a JSON number, except that its decimal point may be any one character: the
    // parser hands its literals over with the locale's.
    static std::optional<DecimalLiteral> parse(std::string_view literal) {
        // Past this the exact exponent no longer matters: every digit stands far from the point.
        constexpr long long kExponentLimit = 1'000'000'000'000;
        DecimalLiteral result;
        std::size_t i = 0;
        result.negative = i < literal.size() && literal[i] == '-';
        i += result.negative ? 1 : 0;
        std::string mantissa;
        while (i < literal.size() && isDigit(literal[i])) {
            mantissa += literal[i++];
        }
        long long integerDigits = static_cast<long long>(mantissa.size());
        if (i < literal.size() && literal[i] != 'e' && literal[i] != 'E') {
            ++i;
            while (i < literal.size() && isDigit(literal[i])) {
                mantissa += literal[i++];
            }
        }
        long long exponent = 0;
        if (i < literal.size()) {
            ++i;
            const bool negativeExponent = i < literal.size() && literal[i] == '-';
            i += i < literal.size() && (literal[i] == '-' || literal[i] == '+') ? 1 : 0;
            if (i == literal.size()) {
                return std::nullopt;
            }
            while (i < literal.size() && isDigit(literal[i])) {
                exponent = std::min(exponent * 10 + (literal[i++] - '0'), kExponentLimit);
            }
            exponent = negativeExponent ? -exponent : exponent;
        }
        if (i != literal.size() || mantissa.empty()) {
            return std::nullopt;
        }
        const auto leadingZeros = std::min(mantissa.find_first_not_of('0'), mantissa.size());
        result.digits = mantissa.substr(leadingZeros);
        result.point = integerDigits - static_cast<long long>(leadingZeros) + exponent;
        return result;
    }

    // The value, when it is an integer exactly and fits in 64 signed bits.
    std::optional<std::int64_t> exactInteger() const {
        if (digits.empty()) {
            return 0;
        }
        const auto whole = static_cast<std::size_t>(std::max(point, 0LL));
        if (whole < digits.size() && digits.find_first_not_of('0', whole) != std::string::npos) {
            return std::nullopt;  // a fraction
        }
        if (point > std::numeric_limits<std::int64_t>::digits10 + 1) {
            return std::nullopt;
        }
        std::uint64_t magnitude = 0;  // at most 19 digits: within 64 unsigned bits
        for (std::size_t k = 0; k < whole; ++k) {
            magnitude = magnitude * 10 + (k < digits.size() ? digits[k] - '0' : 0);
        }
        constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        if (magnitude > kMax + (negative ? 1 : 0)) {
            return std::nullopt;
        }
        if (negative) {
            return magnitude > kMax ? std::numeric_limits<std::int64_t>::min()
                                    : -static_cast<std::int64_t>(magnitude);
        }
        return static_cast<std::int64_t>(magnitude);
    }
};

// Whether `token` follows the JSON number grammar exactly.
bool isJsonNumber(std::string_view token) {
    std::size_t i = token.starts_with('-') ? 1 : 0;
    const auto digitsFrom = [&](std::size_t start) {
        while (i < token.size() && isDigit(token[i])) {
            ++i;
        }
        return i > start;
    };
    if (i < token.size() && token[i] == '0') {
        ++i;
    } else if (!digitsFrom(i)) {
        return false;
    }
    if (i < token.size() && token[i] == '.' && !digitsFrom(++i)) {
        return false;
    }
    if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
        ++i;
        i += i < token.size() && (token[i] == '+' || token[i] == '-') ? 1 : 0;
        if (!digitsFrom(i)) {
            return false;
        }
    }
    return i == token.size();
}

// A number whose magnitude is too large for a double. The JSON parser gives up on the whole
// text at such a number, wherever it stands.
bool overflowsDouble(std::string_view token) {
    if (!isJsonNumber(token)) {
        return false;
    }
    double value = 0;
    const auto result = std::from_chars(token.data(), token.data() + token.size(), value);
    // Out of range also means too close to zero; only a magnitude of at least 1 overflows.
    const auto literal = DecimalLiteral::parse(token);
    return result.ec == std::errc::result_out_of_range && literal && !literal->digits.empty() &&
           literal->point > 0;
}

// `utf8` with each number too large for a double replaced by an empty array, which is read as
// the number itself would have to be: skipped under a key that is ignored, and failing the frame
// wherever a value is read (a field, the type, a point's coordinate). Absent when there is none.
std::optional<std::string> withOverflowsReplaced(std::string_view utf8) {
    std::optional<std::string> replaced;
    std::size_t i = 0;
    while (i < utf8.size()) {
        const char c = utf8[i];
        if (c == '"') {
            for (++i; i < utf8.size() && utf8[i] != '"'; ++i) {
                i += utf8[i] == '\\' ? 1 : 0;
            }
            ++i;
            continue;
        }
        if (c != '-' && !isDigit(c)) {
            ++i;
            continue;
        }
        const auto end = std::min(utf8.find_first_not_of("0123456789+-.eE", i), utf8.size());
        const auto token = utf8.substr(i, end - i);
        if (overflowsDouble(token)) {
            if (!replaced) {
                replaced.emplace(utf8);
            }
            replaced->replace(i, token.size(), std::string(token.size(), ' ').replace(0, 2, "[]"));
        }
        i = end;
    }
    return replaced;
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

// The fields of a latency pong, which shares its keys and kinds with the inbound record.
constexpr std::array<Field, 2> kLatencyPongFields{{{"t", &M::t}, {"viewerId", &M::viewerId}}};

// Streams the frame straight into the record: no document tree is built, and the first value of
// a wrong kind stops the parse.
class IncomingDecoder {
  public:
    using number_integer_t = json::number_integer_t;
    using number_unsigned_t = json::number_unsigned_t;
    using number_float_t = json::number_float_t;
    using string_t = json::string_t;
    using binary_t = json::binary_t;

    // `readsType`: "type" must then be a string; otherwise it is ignored as any unknown key.
    IncomingDecoder(std::span<const Field> fields, bool readsType)
        : fields_(fields), readsType_(readsType) {}

    IncomingMessage message;
    bool sawType = false;
    // The parse stopped at a number too large for a double.
    bool overflowed = false;

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

    // Also an integer literal too long for 64 bits. Judged as written: as a double,
    // 1.0000000000000001 would be 1 and 9223372036854775807.0 would be 2^63.
    bool number_float(number_float_t value, const string_t& literal) {
        const auto written = DecimalLiteral::parse(literal);
        return number(value, written ? written->exactInteger() : std::nullopt);
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
        } else if (readsType_ && key == "type") {
            expect_ = Expect::type;
        } else if ((field_ = findField(key)) != nullptr) {
            expect_ = Expect::field;
        } else {
            expect_ = Expect::ignored;
        }
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const json::exception& error) {
        constexpr int kNumberOverflow = 406;
        overflowed = error.id == kNumberOverflow;
        return false;
    }

  private:
    const Field* findField(std::string_view key) const {
        const auto it = std::find_if(fields_.begin(), fields_.end(),
                                     [key](const Field& field) { return field.key == key; });
        return it == fields_.end() ? nullptr : &*it;
    }

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

    std::span<const Field> fields_;
    bool readsType_;
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

// Runs a fresh decoder over the frame; a frame with numbers too large for a double is read again
// with those numbers replaced, so that only a number the decoder reads can fail it.
std::optional<IncomingDecoder> decodeWith(std::string_view utf8, std::span<const Field> fields,
                                          bool readsType) {
    IncomingDecoder decoder(fields, readsType);
    if (json::sax_parse(utf8, &decoder)) {
        return decoder;
    }
    if (!decoder.overflowed) {
        return std::nullopt;
    }
    const auto replaced = withOverflowsReplaced(utf8);
    decoder = IncomingDecoder(fields, readsType);
    if (!replaced || !json::sax_parse(*replaced, &decoder)) {
        return std::nullopt;
    }
    return decoder;
}

}  // namespace

std::optional<IncomingMessage> IncomingMessage::decode(std::string_view utf8) {
    auto decoder = decodeWith(utf8, kFields, /*readsType=*/true);
    if (!decoder || !decoder->sawType) {
        return std::nullopt;
    }
    return std::move(decoder->message);
}

std::optional<std::string> PongMessage::encode() const {
    return std::string(R"({"type":"pong"})");
}

std::optional<PongMessage> PongMessage::decode(std::string_view utf8) {
    if (!decodeWith(utf8, {}, /*readsType=*/false)) {
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
    auto decoder = decodeWith(utf8, kLatencyPongFields, /*readsType=*/false);
    if (!decoder || !decoder->message.t) {
        return std::nullopt;
    }
    return LatencyPongMessage{*decoder->message.t, std::move(decoder->message.viewerId)};
}

}  // namespace velmorand
