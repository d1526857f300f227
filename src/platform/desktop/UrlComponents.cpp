#include "velmorand/platform/UrlComponents.h"

#include <uriparser/Uri.h>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

// Validates `text` as an RFC 3986 URI reference and hands the parse to `use` while it is alive.
template <typename Use>
bool withParsedUri(std::string_view text, Use&& use) {
    UriUriA uri;
    const char* errorPosition = nullptr;
    const char* first = text.data();
    // uriparser wants a non-null range even for empty text.
    static constexpr char kEmpty[] = "";
    if (text.empty()) {
        first = kEmpty;
    }
    if (uriParseSingleUriExA(&uri, first, first + text.size(), &errorPosition) != URI_SUCCESS) {
        return false;
    }
    use(uri, first);
    uriFreeUriMembersA(&uri);
    return true;
}

std::string rangeText(const UriTextRangeA& range) {
    if (range.first == nullptr || range.afterLast == nullptr) {
        return {};
    }
    return std::string(range.first, range.afterLast);
}

struct Layout {
    std::size_t pathBegin = 0;
    std::size_t pathEnd = 0;
    // npos when the text has no "?".
    std::size_t queryBegin = std::string_view::npos;
    std::size_t queryEnd = std::string_view::npos;
    // Where a new query (or the end of the existing one) goes: before any fragment.
    std::size_t fragmentBegin = 0;
};

// Where the path, query and fragment sit in text already validated as a URI reference; the
// generic syntax fixes these boundaries, so plain scanning is exact here.
Layout layoutOf(std::string_view text, const UriUriA& uri, const char* base) {
    Layout layout;
    std::size_t position = 0;
    if (uri.scheme.first != nullptr) {
        position = static_cast<std::size_t>(uri.scheme.afterLast - base) + 1;
    }
    if (text.substr(position, 2) == "//") {
        position = text.find_first_of("/?#", position + 2);
        if (position == std::string_view::npos) {
            position = text.size();
        }
    }
    layout.pathBegin = position;
    layout.fragmentBegin = text.find('#', position);
    if (layout.fragmentBegin == std::string_view::npos) {
        layout.fragmentBegin = text.size();
    }
    const auto question = text.find('?', position);
    if (question != std::string_view::npos && question < layout.fragmentBegin) {
        layout.pathEnd = question;
        layout.queryBegin = question + 1;
        layout.queryEnd = layout.fragmentBegin;
    } else {
        layout.pathEnd = layout.fragmentBegin;
    }
    return layout;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

void appendEncoded(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (isUnreserved(c)) {
            out.push_back(ch);
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0F]);
        }
    }
}

// Decoding that cannot fail on escapes the parser has already accepted; bytes that do not form
// UTF-8 keep their escaped spelling so the text stays valid.
std::string decodedQueryPart(std::string_view raw) {
    auto decoded = percentDecoded(raw);
    return decoded ? std::move(*decoded) : std::string(raw);
}

std::vector<QueryItem> splitQuery(std::string_view query) {
    std::vector<QueryItem> items;
    if (query.empty()) {
        return items;
    }
    std::size_t start = 0;
    while (true) {
        const auto end = query.find('&', start);
        const auto piece =
            query.substr(start, end == std::string_view::npos ? query.npos : end - start);
        const auto equals = piece.find('=');
        QueryItem item;
        if (equals == std::string_view::npos) {
            item.name = decodedQueryPart(piece);
        } else {
            item.name = decodedQueryPart(piece.substr(0, equals));
            item.value = decodedQueryPart(piece.substr(equals + 1));
        }
        items.push_back(std::move(item));
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
    }
    return items;
}

}  // namespace

std::optional<UrlComponents> UrlComponents::parse(std::string_view text) {
    std::optional<UrlComponents> result;
    withParsedUri(text, [&](const UriUriA& uri, const char* base) {
        const auto layout = layoutOf(text, uri, base);
        UrlComponents components;
        components.scheme = rangeText(uri.scheme);
        if (uri.userInfo.first != nullptr) {
            components.userInfo = rangeText(uri.userInfo);
        }
        components.host = rangeText(uri.hostText);
        components.port = rangeText(uri.portText);
        components.path =
            std::string(text.substr(layout.pathBegin, layout.pathEnd - layout.pathBegin));
        if (layout.queryBegin != std::string_view::npos) {
            const auto query = text.substr(layout.queryBegin, layout.queryEnd - layout.queryBegin);
            components.query = std::string(query);
            components.queryItems = splitQuery(query);
        }
        result = std::move(components);
    });
    return result;
}

std::string urlWithoutSecrets(std::string_view url) {
    const auto parts = UrlComponents::parse(url);
    if (!parts || parts->scheme.empty()) {
        return "(not a URL)";
    }
    std::string shown = parts->scheme + ":";
    if (!parts->host.empty() || url.substr(parts->scheme.size() + 1).starts_with("//")) {
        const bool literal = parts->host.find(':') != std::string::npos;
        shown += "//" + (literal ? "[" + parts->host + "]" : parts->host);
        if (!parts->port.empty()) {
            shown += ":" + parts->port;
        }
    }
    return shown + parts->path;
}

std::optional<std::string> appendingQueryItem(std::string_view url, std::string_view name,
                                              std::string_view value) {
    std::optional<std::string> result;
    withParsedUri(url, [&](const UriUriA& uri, const char* base) {
        const auto layout = layoutOf(url, uri, base);
        std::string item;
        appendEncoded(item, name);
        item.push_back('=');
        appendEncoded(item, value);

        std::string out(url.substr(0, layout.fragmentBegin));
        if (layout.queryBegin == std::string_view::npos) {
            out.push_back('?');
        } else if (layout.queryEnd > layout.queryBegin) {
            out.push_back('&');
        }
        out += item;
        out += url.substr(layout.fragmentBegin);
        result = std::move(out);
    });
    return result;
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '%') {
            out.push_back(text[index]);
            continue;
        }
        if (index + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = hexValue(text[index + 1]);
        const int low = hexValue(text[index + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out.push_back(static_cast<char>(high * 16 + low));
        index += 2;
    }
    // Decoded bytes that are not text count as malformed too, as they do on the platform.
    if (!isValidUtf8(out)) {
        return std::nullopt;
    }
    return out;
}

}  // namespace velmorand
