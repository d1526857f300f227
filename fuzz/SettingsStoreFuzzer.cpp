// The settings store's file reader, over a store file holding the input; then one write, which
// sets a damaged file aside and replaces it.
#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "velmorand/desktop/PlistSettingsStore.h"
#include "velmorand/platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorand;
    static const auto file = fuzzing::scratchDirectory() / "store" / "settings.plist";
    std::filesystem::remove_all(file.parent_path());
    std::filesystem::create_directories(file.parent_path());
    fuzzing::writeFile(file, fuzzing::asText(data, size));

    PlistSettingsStore store(file);
    // Every key the file holds, read through every typed view.
    nlohmann::json tree;
    if (parsePropertyList({data, size}, tree) && tree.is_object()) {
        for (const auto& [key, value] : tree.items()) {
            (void)store.object(key);
            (void)store.string(key);
            (void)store.boolean(key);
        }
    }
    (void)store.string("accessKey");
    (void)store.boolean("fps");

    store.setObject("written", std::string("yes"));
    store.synchronize();
    PlistSettingsStore reread(file);
    if (reread.string("written") != "yes") {
        // A write to a private directory must land, whatever was there before.
        __builtin_trap();
    }
    return 0;
}
