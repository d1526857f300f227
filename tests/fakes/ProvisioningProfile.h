#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

// Provisioning profiles as a bundle embeds them; the shared app group is available only where one
// lists it.
namespace velmorand::testing {

// The XML payload of a provisioning profile whose group list is `groups`, a property-list value.
inline std::string profilePlist(std::string_view groups) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD "
           "PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist "
           "version=\"1.0\"><dict><key>Entitlements</key><dict><key>application-identifier</key>"
           "<string>TEAM123.co.velmorand.connect</string><key>com.apple.security.application-"
           "groups</key>" +
           std::string(groups) + "</dict></dict></plist>";
}

// Bytes shaped like a signature container around its payload: NULs, high bytes and partial
// markers on both sides.
inline std::string signedContainer(std::string_view payload) {
    using namespace std::string_literals;
    return "\x30\x80\x06\x09\x2a\x86\x48\xf7\x0d\x01\x07\x02\xa0\x80\x00\xff<?"s +
           std::string(payload) + "\x00\xa0\x82\x0f\x3e\xff\xfe</plist"s;
}

inline void writeProfile(const std::filesystem::path& directory, std::string_view bytes) {
    std::ofstream(directory / "embedded.mobileprovision", std::ios::binary) << bytes;
}

inline const std::string kEntitledProfile =
    signedContainer(profilePlist("<array><string>group.co.velmorand.connect</string></array>"));

}  // namespace velmorand::testing
