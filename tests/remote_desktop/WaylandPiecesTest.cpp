// What the Wayland backends decide without a compositor: how a screen-cast buffer becomes the
// stream's pixels, and which characters a layout types.
#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon.h>

#include <memory>

#include "velmorand/pipewire/FrameCopy.h"
#include "velmorand/wayland/WaylandKeymap.h"

namespace velmorand {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(FrameCopyTest, PixelsComeOutAsBgrxRowsWhateverTheBufferLooksLike) {
    // Two pixels a row, two rows; each row padded to 12 bytes; the picture 4 bytes in.
    const Bytes buffer = {0xEE, 0xEE, 0xEE, 0xEE,                             // before
                          1,    2,    3,    4,    5,  6,  7,  8, 0, 0, 0, 0,  // row 0
                          9,    10,   11,   12,   13, 14, 15, 16};            // row 1
    const FrameLayout padded{.width = 2, .height = 2, .stride = 12, .offset = 4};
    struct Row {
        PixelOrder order;
        Bytes out;
    };
    const Row rows[] = {
        {PixelOrder::bgrx, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
        {PixelOrder::bgra, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
        {PixelOrder::rgbx, {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16}},
        {PixelOrder::rgba, {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16}},
    };
    for (const auto& row : rows) {
        Bytes out;
        ASSERT_TRUE(copyToBgrx(buffer, row.order, padded, out)) << static_cast<int>(row.order);
        EXPECT_EQ(out, row.out) << static_cast<int>(row.order);
    }
}

TEST(FrameCopyTest, ALayoutTheBufferCannotHoldIsRefused) {
    const Bytes buffer(64, 0x7F);
    const std::pair<FrameLayout, bool> rows[] = {
        {{.width = 4, .height = 4, .stride = 16, .offset = 0}, true},
        // The last row needs only its pixels, not the whole stride.
        {{.width = 3, .height = 4, .stride = 16, .offset = 4}, true},
        {{.width = 4, .height = 4, .stride = 16, .offset = 4}, false},
        {{.width = 4, .height = 5, .stride = 16, .offset = 0}, false},
        {{.width = 4, .height = 4, .stride = 12, .offset = 0}, false},
        {{.width = 4, .height = 1, .stride = 1 << 30, .offset = 0}, false},
        {{.width = 0, .height = 4, .stride = 16, .offset = 0}, false},
        {{.width = 4, .height = -1, .stride = 16, .offset = 0}, false},
        {{.width = 1, .height = 1, .stride = 4, .offset = 65}, false},
    };
    for (const auto& [layout, fits] : rows) {
        Bytes out = {42};
        EXPECT_EQ(copyToBgrx(buffer, PixelOrder::bgrx, layout, out), fits)
            << layout.width << "x" << layout.height << " stride " << layout.stride << " at "
            << layout.offset;
        if (!fits) {
            EXPECT_EQ(out, Bytes{42});
        }
    }
}

// A layout's keymap as a compositor would send it.
std::string keymapText(const char* layout) {
    std::unique_ptr<xkb_context, decltype(&xkb_context_unref)> context(
        xkb_context_new(XKB_CONTEXT_NO_FLAGS), &xkb_context_unref);
    const xkb_rule_names names{nullptr, nullptr, layout, nullptr, nullptr};
    std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)> keymap(
        xkb_keymap_new_from_names(context.get(), &names, XKB_KEYMAP_COMPILE_NO_FLAGS),
        &xkb_keymap_unref);
    if (!keymap) {
        return {};
    }
    char* text = xkb_keymap_get_as_string(keymap.get(), XKB_KEYMAP_FORMAT_TEXT_V1);
    std::string result(text);
    std::free(text);
    return result;
}

TEST(WaylandKeymapTest, ALayoutTypesWhatItsFirstGroupHasUpToAltGr) {
    struct Row {
        const char* layout;
        std::uint32_t keysym;
        bool types;
    };
    const Row rows[] = {
        {"us", XKB_KEY_a, true},
        {"us", XKB_KEY_A, true},
        {"us", XKB_KEY_exclam, true},
        {"us", XKB_KEY_eacute, false},
        {"us", XKB_KEY_kana_A, false},
        // AltGr+5 on this keyboard, AltGr+e on a French one.
        {"us", XKB_KEY_EuroSign, true},
        {"fr", XKB_KEY_EuroSign, true},
        {"fr", XKB_KEY_eacute, true},
        {"ru", XKB_KEY_Cyrillic_a, true},
        // The second group is not the one typed with.
        {"ru,us", XKB_KEY_a, false},
        {"us", XKB_KEY_Return, true},
    };
    for (const auto& row : rows) {
        const auto text = keymapText(row.layout);
        ASSERT_FALSE(text.empty()) << "no xkb data for " << row.layout;
        const auto keymap = WaylandKeymap::fromText(text);
        ASSERT_TRUE(keymap) << row.layout;
        EXPECT_EQ(keymap->types(row.keysym), row.types) << row.layout << " " << row.keysym;
    }
    EXPECT_FALSE(WaylandKeymap::fromText("xkb_keymap { not a keymap"));
}

}  // namespace
}  // namespace velmorand
