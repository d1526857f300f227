#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmorand {

struct QueryItem {
    std::string name;
    // Absent for an item without "=", as in "?flag".
    std::optional<std::string> value;
};

// An RFC 3986 URI reference split into its parts. Query item names and values are
// percent-decoded; "+" stays "+".
struct UrlComponents {
    std::string scheme;
    // Absent when the authority has no "@".
    std::optional<std::string> userInfo;
    // Without the brackets of an IP literal ("::1").
    std::string host;
    // Digits as written; empty when there is none.
    std::string port;
    std::string path;
    std::optional<std::string> query;
    std::vector<QueryItem> queryItems;

    // Parses `text` on its own, without resolving it against a base; text that is not a URI
    // reference yields absent.
    static std::optional<UrlComponents> parse(std::string_view text);
};

// `url` as it may be shown or logged: scheme, host, port and path, without the user name,
// password, query and fragment that may carry secrets. Text that is not a URL with a scheme shows
// as "(not a URL)".
std::string urlWithoutSecrets(std::string_view url);

// `url` with `?name=value` (or `&name=value`) appended, both percent-encoded as a query
// component needs; absent when `url` is not a URL.
std::optional<std::string> appendingQueryItem(std::string_view url, std::string_view name,
                                              std::string_view value);

// Absent when `text` holds a malformed escape.
std::optional<std::string> percentDecoded(std::string_view text);

}  // namespace velmorand
