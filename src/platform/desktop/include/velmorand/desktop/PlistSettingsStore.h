#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "velmorand/platform/SettingsStore.h"

namespace velmorand {

namespace plist {
class PlistFile;
}  // namespace plist

// A settings store kept in one XML property-list file whose top level is a dictionary. Values of
// types a store cannot hold (arrays, dictionaries, dates) read as absent and survive rewrites.
// Reads see the file as it is now, whichever process wrote it last: a long-running program never
// works from, and so never writes back, values that another one has since replaced. Changes stay
// in memory until synchronize(), which merges them into the file's current content under an
// advisory lock, so processes writing different keys never lose each other's values.
class PlistSettingsStore : public SettingsStore {
  public:
    explicit PlistSettingsStore(std::filesystem::path file);
    ~PlistSettingsStore() override;

    std::optional<StoredValue> object(std::string_view key) const override;
    void setObject(std::string_view key, std::optional<StoredValue> value) override;
    void synchronize() override;

    const std::filesystem::path& file() const;

  private:
    struct Snapshot;

    // Brings the snapshot up to the file's current version.
    void loadLocked() const;

    mutable std::mutex mutex_;
    std::unique_ptr<plist::PlistFile> file_;
    // The file's dictionary as last read, and which version of the file that was.
    mutable std::unique_ptr<Snapshot> snapshot_;
    // Absent value: a pending removal.
    std::map<std::string, std::optional<StoredValue>, std::less<>> pending_;
};

}  // namespace velmorand
