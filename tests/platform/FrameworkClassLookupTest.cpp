#include "velmorand/desktop/FrameworkClassLookup.h"

#include <gtest/gtest.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

TEST(FrameworkClassLookupTest, FindsTheFactoryOnlyInALoadableLibraryThatExportsIt) {
    testing::TempDir bundle;
    const auto frameworks = bundle.path() / "Frameworks";
    const auto finds = [&] {
        return FrameworkClassLookup(frameworks).classExists("RTCPeerConnectionFactory");
    };
    EXPECT_FALSE(finds());  // no Frameworks folder
    std::filesystem::create_directories(frameworks);
    std::ofstream(frameworks / "libBroken.so") << "not an ELF file";
    std::filesystem::copy_file(VELMORAND_UNRELATED_RUNTIME, frameworks / "libAaaUnrelated.so");
    EXPECT_FALSE(finds());
    // Only shared libraries are loaded, versioned ones too.
    for (const auto& [name, found] :
         {std::pair{"libWebRTC.txt", false}, {"libWebRTC.so.1", true}, {"libWebRTC.so", true}}) {
        std::filesystem::copy_file(VELMORAND_FAKE_WEBRTC_RUNTIME, frameworks / name);
        EXPECT_EQ(finds(), found) << name;
        EXPECT_FALSE(FrameworkClassLookup(frameworks).classExists("RTCPeerConnection"));
        std::filesystem::remove(frameworks / name);
    }
}

}  // namespace
}  // namespace velmorand
