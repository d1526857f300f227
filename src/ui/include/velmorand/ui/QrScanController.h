#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmorand {

// Hands on the first usable QR text a scanner reports, once: per report only the first code
// counts, its text is trimmed, blank text is passed over (scanning goes on), and after the one
// delivery the session is stopped and later reports are ignored.
class QrScanController {
  public:
    using CodeHandler = std::function<void(const std::string&)>;
    using StopHandler = std::function<void()>;

    QrScanController(CodeHandler onCode, StopHandler onStop)
        : onCode_(std::move(onCode)), onStop_(std::move(onStop)) {}

    // The codes found in one frame, in the decoder's order; absent for a code without text.
    // Returns whether this report delivered a code.
    bool codesFound(const std::vector<std::optional<std::string>>& codes);

    bool handled() const { return handled_; }

  private:
    CodeHandler onCode_;
    StopHandler onStop_;
    bool handled_ = false;
};

}  // namespace velmorand
