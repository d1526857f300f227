#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace velmorand {

// Asks applications' windows to close, as their close button would: the window manager's close
// request, never a signal to a process.
class WindowCloser {
  public:
    virtual ~WindowCloser() = default;

    // Every top-level window whose class (either part of WM_CLASS) equals one of `classes`,
    // ignoring case. Returns how many were asked; absent when the desktop offers no way to ask.
    virtual std::optional<std::size_t> closeWindows(const std::vector<std::string>& classes) = 0;
};

}  // namespace velmorand
