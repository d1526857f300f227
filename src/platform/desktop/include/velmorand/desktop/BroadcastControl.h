#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// The broadcast of one group container as every program sees it: whether one runs (its
// supervising process holds the lock), the text it last published about itself, and the way to
// ask it to stop. The broadcast publishes through the same object.
class BroadcastControl {
  public:
    // In the group container, beside extension.log.
    static constexpr std::string_view kStateFileName = "broadcast.json";
    static constexpr std::string_view kLockFileName = "broadcast.lock";
    // Larger state files are not the broadcast's and read as absent.
    static constexpr std::size_t kMaxStateBytes = 4096;

    explicit BroadcastControl(const std::filesystem::path& container);

    // The id of the process running the broadcast now: 0 while it is not known (the broadcast
    // has just started and not yet recorded it, or it is not a process of this user on this
    // machine); absent when no broadcast runs.
    std::optional<long> runningPid() const;
    // What the last broadcast published last, whether it still runs or not.
    std::optional<std::string> stateText() const;

    // Asks the running broadcast to stop, as Ctrl-C would; it stops within a few seconds. The id
    // of the process asked; absent when none runs, or when it cannot be asked (its holder is not
    // known yet, or not this user's).
    std::optional<long> requestStop() const;

    // Replaces what the broadcast says about itself; readers see the old or the new text.
    bool publish(std::string_view stateText) const;

  private:
    std::filesystem::path stateFile_;
    std::filesystem::path lockFile_;
};

}  // namespace velmorand
