#include "velmorand/desktop/FrameworkClassLookup.h"

#include <gtest/gtest.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

namespace fs = std::filesystem;

class FrameworkClassLookupTest : public ::testing::Test {
  protected:
    fs::path frameworks() const { return bundle_.path() / "Frameworks"; }

    void ship(const char* library, const char* as) {
        fs::create_directories(frameworks());
        fs::copy_file(library, frameworks() / as);
    }

    testing::TempDir bundle_;
};

TEST_F(FrameworkClassLookupTest, FindsTheFactoryOnlyInALibraryThatExportsIt) {
    ship(VELMORAND_UNRELATED_RUNTIME, "libAaaUnrelated.so");
    FrameworkClassLookup lookup(frameworks());
    EXPECT_FALSE(lookup.classExists("RTCPeerConnectionFactory"));

    ship(VELMORAND_FAKE_WEBRTC_RUNTIME, "libWebRTC.so");
    FrameworkClassLookup withRuntime(frameworks());
    EXPECT_TRUE(withRuntime.classExists("RTCPeerConnectionFactory"));
    EXPECT_FALSE(withRuntime.classExists("RTCPeerConnection"));
}

TEST_F(FrameworkClassLookupTest, NoFrameworksOrBrokenOnesMeanNoClass) {
    FrameworkClassLookup missing(frameworks());
    EXPECT_FALSE(missing.classExists("RTCPeerConnectionFactory"));

    fs::create_directories(frameworks());
    std::ofstream(frameworks() / "libWebRTC.so") << "not an ELF file";
    FrameworkClassLookup broken(frameworks());
    EXPECT_FALSE(broken.classExists("RTCPeerConnectionFactory"));
}

}  // namespace
}  // namespace velmorand
