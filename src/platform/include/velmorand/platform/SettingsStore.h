#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmorand/platform/StoredValue.h"

namespace velmorand {

// A key-value settings store. Implementations are safe to use from any thread.
// Only the three primitives are virtual; the typed reads and writes share one meaning everywhere.
class SettingsStore {
  public:
    virtual ~SettingsStore() = default;

    virtual std::optional<StoredValue> object(std::string_view key) const = 0;
    // Setting absent removes the key.
    virtual void setObject(std::string_view key, std::optional<StoredValue> value) = 0;
    // Makes this process's changes durable and visible to other processes, and picks up theirs.
    virtual void synchronize() = 0;

    // A stored string reads as itself, a stored number (or boolean) as its decimal text,
    // anything else as absent.
    std::optional<std::string> string(std::string_view key) const;
    // True for a true boolean, a non-zero number, or a string reading "true", "yes" or a non-zero
    // integer; false otherwise, an absent key included.
    bool boolean(std::string_view key) const;

    void setInteger(std::string_view key, std::int64_t value) {
        setObject(key, StoredValue{value});
    }
    void setDouble(std::string_view key, double value) { setObject(key, StoredValue{value}); }
    void setBool(std::string_view key, bool value) { setObject(key, StoredValue{value}); }
    void remove(std::string_view key) { setObject(key, std::nullopt); }
};

// Opens the settings stores of this installation.
class SettingsStores {
  public:
    virtual ~SettingsStores() = default;

    // The store shared by an application group; null when the suite cannot be opened.
    virtual std::shared_ptr<SettingsStore> suite(std::string_view groupName) = 0;
    // The application's own store; it always exists.
    virtual SettingsStore& standard() = 0;
};

}  // namespace velmorand
