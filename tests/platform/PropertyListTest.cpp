#include "velmorand/platform/PropertyList.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace velmorand {
namespace {

std::vector<std::uint8_t> bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

// The same tree as the XML below, written as a binary property list.
std::vector<std::uint8_t> binarySample() {
    std::ifstream in(VELMORAND_PLATFORM_FIXTURES "/sample.bplist", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(PropertyListTest, ParsesXmlAndBinaryAlike) {
    const auto xml = bytesOf(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
  <key>blob</key><data>AAH/</data><key>count</key><integer>-42</integer>
  <key>list</key><array><integer>1</integer><string>two</string></array>
  <key>name</key><string>Velmorand</string><key>on</key><true/>
  <key>ratio</key><real>0.25</real><key>when</key><date>2024-05-06T07:08:09Z</date>
</dict></plist>)");
    for (const auto& input : {xml, binarySample()}) {
        nlohmann::json tree;
        ASSERT_TRUE(parsePropertyList(input, tree));
        EXPECT_EQ(tree, nlohmann::json({{"blob", nlohmann::json::binary({0x00, 0x01, 0xff})},
                                        {"count", -42},
                                        {"list", {1, "two"}},
                                        {"name", "Velmorand"},
                                        {"on", true},
                                        {"ratio", 0.25},
                                        {"when", "2024-05-06T07:08:09Z"}}));
        EXPECT_TRUE(tree["count"].is_number_integer());
        EXPECT_TRUE(tree["ratio"].is_number_float());
    }
}

TEST(PropertyListTest, RejectsWhatIsNoPropertyListLeavingTheTreeUntouched) {
    auto truncated = binarySample();
    truncated.resize(100);
    for (const auto& input : {bytesOf(""), bytesOf("not a plist"), bytesOf("{\"json\": true}"),
                              bytesOf("<?xml version=\"1.0\"?><plist><dict><key>a</key>"),
                              bytesOf(std::string_view("bplist00\x00\x01", 10)), truncated}) {
        nlohmann::json tree = "untouched";
        EXPECT_FALSE(parsePropertyList(input, tree)) << input.size();
        EXPECT_EQ(tree, "untouched");
    }
}

}  // namespace
}  // namespace velmorand
