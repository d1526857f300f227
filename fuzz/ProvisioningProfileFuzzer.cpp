// The embedded provisioning profile reader, over a bundle whose profile is the input.
#include <cstddef>
#include <cstdint>

#include "FakeBundle.h"
#include "FuzzSupport.h"
#include "velmorand/config/AppGroup.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorand;
    static const auto root = [] {
        auto path = fuzzing::scratchDirectory() / "profile-bundle";
        std::filesystem::create_directories(path);
        return path;
    }();
    static const testing::FakeBundle bundle(root);
    fuzzing::writeFile(root / "embedded.mobileprovision", fuzzing::asText(data, size));
    (void)AppGroup::hasAppGroupInEmbeddedProvision(bundle);
    return 0;
}
