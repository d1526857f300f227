// The upload-extension lookup, over a bundle whose only extension's Info.plist is the input.
#include <cstddef>
#include <cstdint>

#include "FakeBundle.h"
#include "FuzzSupport.h"
#include "velmorand/ui/BroadcastExtension.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorand;
    static const auto root = [] {
        auto path = fuzzing::scratchDirectory() / "extension-bundle";
        std::filesystem::create_directories(path / "PlugIns" / "Upload.appex");
        return path;
    }();
    static const testing::FakeBundle bundle(root);
    fuzzing::writeFile(root / "PlugIns" / "Upload.appex" / "Info.plist",
                       fuzzing::asText(data, size));
    const auto identifier = BroadcastExtension::bundleIdentifier(bundle);
    const auto program = BroadcastExtension::executable(bundle);
    // A program is only ever named for an extension that has an identifier, and stays inside it.
    if (program && (!identifier || program->parent_path().filename() != "Upload.appex")) {
        __builtin_trap();
    }
    return 0;
}
