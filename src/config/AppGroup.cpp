#include "velmorand/config/AppGroup.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmorand/platform/Bundle.h"
#include "velmorand/platform/Files.h"
#include "velmorand/platform/PropertyList.h"

namespace velmorand {
namespace {

// Each byte is one Latin-1 character; its UTF-8 form takes two bytes from 0x80 on.
std::vector<std::uint8_t> latin1ToUtf8(std::string_view latin1) {
    std::vector<std::uint8_t> utf8;
    utf8.reserve(latin1.size());
    for (const char c : latin1) {
        const auto byte = static_cast<std::uint8_t>(c);
        if (byte < 0x80) {
            utf8.push_back(byte);
        } else {
            utf8.push_back(static_cast<std::uint8_t>(0xC0 | (byte >> 6)));
            utf8.push_back(static_cast<std::uint8_t>(0x80 | (byte & 0x3F)));
        }
    }
    return utf8;
}

}  // namespace

bool AppGroup::available() const {
    std::call_once(once_, [this] { available_ = hasAppGroupInEmbeddedProvision(bundle_); });
    return available_;
}

bool AppGroup::hasAppGroupInEmbeddedProvision(const Bundle& bundle) {
    const auto path = bundle.resource("embedded", "mobileprovision");
    if (!path) {
        return false;
    }
    const auto contents = readWholeFile(*path);
    if (!contents) {
        return false;
    }

    // The profile is a signed container; its payload is found by text search. The markers are
    // ASCII, so byte offsets equal Latin-1 character offsets.
    constexpr std::string_view kStart = "<?xml";
    constexpr std::string_view kEnd = "</plist>";
    const std::string_view text = *contents;
    const auto start = text.find(kStart);
    const auto end = text.find(kEnd);
    if (start == std::string_view::npos || end == std::string_view::npos || end < start) {
        return false;
    }
    const auto payload = latin1ToUtf8(text.substr(start, end + kEnd.size() - start));

    nlohmann::json plist;
    if (!parsePropertyList(payload, plist) || !plist.is_object()) {
        return false;
    }
    const auto entitlements = plist.find("Entitlements");
    if (entitlements == plist.end() || !entitlements->is_object()) {
        return false;
    }
    const auto groups = entitlements->find("com.apple.security.application-groups");
    if (groups == entitlements->end() || !groups->is_array() ||
        !std::all_of(groups->begin(), groups->end(),
                     [](const nlohmann::json& group) { return group.is_string(); })) {
        return false;
    }
    return std::any_of(groups->begin(), groups->end(), [](const nlohmann::json& group) {
        return group.get_ref<const std::string&>() == kAppGroupName;
    });
}

}  // namespace velmorand
