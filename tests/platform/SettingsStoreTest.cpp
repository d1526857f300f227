#include "velmorand/platform/SettingsStore.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "InMemorySettings.h"

namespace velmorand {
namespace {

// Other programs write these values too, as a string as often as a number.
TEST(SettingsStoreTest, TypedReadsGiveEveryStoredTypeOneMeaning) {
    const auto text = [](const char* value) { return StoredValue{std::string(value)}; };
    const struct {
        std::optional<StoredValue> stored;
        bool boolean;
        std::optional<std::string> string;
    } cases[] = {
        {std::nullopt, false, std::nullopt},
        {StoredValue{true}, true, "1"},
        {StoredValue{false}, false, "0"},
        {StoredValue{std::int64_t{-3}}, true, "-3"},
        {StoredValue{0.25}, true, "0.25"},
        {StoredValue{Bytes{'1'}}, false, std::nullopt},
        {text("true"), true, "true"},
        {text("12"), true, "12"},
        {text("tRUE"), false, "tRUE"},
        {text(" 1"), false, " 1"},
        {text("0.5"), false, "0.5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        testing::InMemorySettingsStore store;
        store.setObject("key", c.stored);
        EXPECT_EQ(store.boolean("key"), c.boolean);
        EXPECT_EQ(store.string("key"), c.string);
    }
}

}  // namespace
}  // namespace velmorand
