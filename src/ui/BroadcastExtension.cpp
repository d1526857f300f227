#include "velmorand/ui/BroadcastExtension.h"

#include <filesystem>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmorand/platform/Bundle.h"
#include "velmorand/platform/Files.h"
#include "velmorand/platform/PropertyList.h"

namespace velmorand {

namespace {

namespace fs = std::filesystem;

std::optional<nlohmann::json> infoDictionary(const fs::path& extension) {
    const auto text = readWholeFile(extension / "Info.plist");
    if (!text) {
        return std::nullopt;
    }
    const std::vector<std::uint8_t> bytes(text->begin(), text->end());
    nlohmann::json info;
    if (!parsePropertyList(bytes, info) || !info.is_object()) {
        return std::nullopt;
    }
    return info;
}

bool isUploadExtension(const nlohmann::json& info) {
    const auto extension = info.find("NSExtension");
    if (extension == info.end() || !extension->is_object()) {
        return false;
    }
    const auto point = extension->find("NSExtensionPointIdentifier");
    return point != extension->end() && point->is_string() &&
           point->get<std::string>() == BroadcastExtension::kExtensionPoint;
}

// The first upload extension in listing order, with its information dictionary.
struct FoundExtension {
    fs::path directory;
    nlohmann::json info;
};

std::optional<FoundExtension> firstUploadExtension(const Bundle& bundle) {
    const auto plugIns = bundle.plugInsDirectory();
    if (!plugIns) {
        return std::nullopt;
    }
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator it(*plugIns, error), end; !error && it != end;
         it.increment(error)) {
        entries.push_back(it->path());
    }
    if (error) {
        return std::nullopt;
    }
    // The listing's own order decides which of two upload extensions is "the first".
    for (const auto& entry : entries) {
        if (entry.extension() != ".appex") {
            continue;
        }
        auto info = infoDictionary(entry);
        if (!info || !isUploadExtension(*info)) {
            continue;
        }
        return FoundExtension{entry, std::move(*info)};
    }
    return std::nullopt;
}

std::optional<std::string> stringValue(const nlohmann::json& info, const char* key) {
    const auto value = info.find(key);
    if (value == info.end() || !value->is_string()) {
        return std::nullopt;
    }
    return value->get<std::string>();
}

}  // namespace

std::optional<std::string> BroadcastExtension::bundleIdentifier(const Bundle& bundle) {
    const auto found = firstUploadExtension(bundle);
    if (!found) {
        return std::nullopt;
    }
    return stringValue(found->info, "CFBundleIdentifier");
}

std::optional<fs::path> BroadcastExtension::executable(const Bundle& bundle) {
    const auto found = firstUploadExtension(bundle);
    if (!found || !stringValue(found->info, "CFBundleIdentifier")) {
        return std::nullopt;
    }
    const auto name = stringValue(found->info, "CFBundleExecutable");
    // A bare file name only: the program must stay inside its extension folder.
    if (!name || name->empty() || *name == "." || *name == ".." ||
        name->find('/') != std::string::npos) {
        return std::nullopt;
    }
    return found->directory / *name;
}

}  // namespace velmorand
