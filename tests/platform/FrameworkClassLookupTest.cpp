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
    std::filesystem::copy_file(VELMORAND_FAKE_WEBRTC_RUNTIME, frameworks / "libWebRTC.so");
    EXPECT_TRUE(finds());
    EXPECT_FALSE(FrameworkClassLookup(frameworks).classExists("RTCPeerConnection"));
}

}  // namespace
}  // namespace velmorand
