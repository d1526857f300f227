#include "velmorand/platform/PropertyList.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string_view>

namespace velmorand {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// {blob: <00 01 ff>, count: -42, list: [1, "two"], name: "Velmorand", on: true, ratio: 0.25,
//  when: 2024-05-06T07:08:09Z} as a binary property list.
constexpr std::uint8_t kBinaryList[] = {
    0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd7, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
    0x08, 0x09, 0x0a, 0x0d, 0x0e, 0x0f, 0x10, 0x54, 0x62, 0x6c, 0x6f, 0x62, 0x55, 0x63, 0x6f, 0x75,
    0x6e, 0x74, 0x54, 0x6c, 0x69, 0x73, 0x74, 0x54, 0x6e, 0x61, 0x6d, 0x65, 0x52, 0x6f, 0x6e, 0x55,
    0x72, 0x61, 0x74, 0x69, 0x6f, 0x54, 0x77, 0x68, 0x65, 0x6e, 0x43, 0x00, 0x01, 0xff, 0x13, 0xff,
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xd6, 0xa2, 0x0b, 0x0c, 0x10, 0x01, 0x53, 0x74, 0x77, 0x6f,
    0x59, 0x56, 0x65, 0x6c, 0x6d, 0x6f, 0x72, 0x61, 0x6e, 0x64, 0x09, 0x23, 0x3f, 0xd0, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x33, 0x41, 0xc5, 0xf4, 0x5c, 0xac, 0x80, 0x00, 0x00, 0x08, 0x17, 0x1c,
    0x22, 0x27, 0x2c, 0x2f, 0x35, 0x3a, 0x3e, 0x47, 0x4a, 0x4c, 0x50, 0x5a, 0x5b, 0x64, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x6d};

void expectSampleTree(const nlohmann::json& tree) {
    ASSERT_TRUE(tree.is_object());
    EXPECT_EQ(tree["name"], "Velmorand");
    EXPECT_EQ(tree["count"], -42);
    EXPECT_TRUE(tree["count"].is_number_integer());
    EXPECT_EQ(tree["ratio"], 0.25);
    EXPECT_TRUE(tree["ratio"].is_number_float());
    EXPECT_EQ(tree["on"], true);
    EXPECT_EQ(tree["list"], nlohmann::json::array({1, "two"}));
    EXPECT_EQ(tree["when"], "2024-05-06T07:08:09Z");
    ASSERT_TRUE(tree["blob"].is_binary());
    EXPECT_EQ(static_cast<const std::vector<std::uint8_t>&>(tree["blob"].get_binary()),
              (std::vector<std::uint8_t>{0x00, 0x01, 0xff}));
}

TEST(PropertyListTest, ParsesXml) {
    constexpr std::string_view xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
  <key>blob</key><data>AAH/</data>
  <key>count</key><integer>-42</integer>
  <key>list</key><array><integer>1</integer><string>two</string></array>
  <key>name</key><string>Velmorand</string>
  <key>on</key><true/>
  <key>ratio</key><real>0.25</real>
  <key>when</key><date>2024-05-06T07:08:09Z</date>
</dict></plist>)";
    nlohmann::json tree;
    ASSERT_TRUE(parsePropertyList(bytesOf(xml), tree));
    expectSampleTree(tree);
}

TEST(PropertyListTest, ParsesBinary) {
    nlohmann::json tree;
    ASSERT_TRUE(parsePropertyList(kBinaryList, tree));
    expectSampleTree(tree);
}

TEST(PropertyListTest, RejectsWhatIsNoPropertyList) {
    const std::string_view inputs[] = {"", "not a plist", "{\"json\": true}",
                                       "<?xml version=\"1.0\"?><plist><dict><key>a</key>",
                                       std::string_view("bplist00\x00\x01", 10)};
    for (const auto input : inputs) {
        nlohmann::json tree = "untouched";
        EXPECT_FALSE(parsePropertyList(bytesOf(input), tree)) << input;
        EXPECT_EQ(tree, "untouched");
    }
    nlohmann::json tree = "untouched";
    EXPECT_FALSE(parsePropertyList(std::span(kBinaryList).first(100), tree));
    EXPECT_EQ(tree, "untouched");
}

}  // namespace
}  // namespace velmorand
