#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace velmorand::testing {

// The XML payload of a provisioning profile whose entitlements hold `groupsValue`, a property-list
// value spelled in XML (e.g. "<array><string>…</string></array>").
inline std::string profilePlist(std::string_view groupsValue, std::string_view name = "Velmorand") {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n"
        "  <key>AppIDName</key><string>";
    xml += name;
    xml +=
        "</string>\n"
        "  <key>Entitlements</key>\n  <dict>\n"
        "    <key>application-identifier</key><string>TEAM123.co.velmorand.connect</string>\n"
        "    <key>com.apple.security.application-groups</key>";
    xml += groupsValue;
    xml += "\n  </dict>\n</dict>\n</plist>";
    return xml;
}

// Bytes shaped like a signature container around its payload: NULs and high bytes on both sides.
inline std::string signedContainer(std::string_view payload) {
    using namespace std::string_literals;
    std::string bytes = "\x30\x80\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02\xa0\x80\x00\xff<?"s;
    bytes += payload;
    bytes += "\x00\xa0\x82\x0f\x3e\xff\xfe</plist"s;
    return bytes;
}

inline void writeProfile(const std::filesystem::path& directory, std::string_view bytes) {
    std::ofstream(directory / "embedded.mobileprovision", std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void writeEntitledProfile(const std::filesystem::path& directory) {
    writeProfile(directory, signedContainer(profilePlist(
                                "<array><string>group.co.velmorand.connect</string></array>")));
}

}  // namespace velmorand::testing
