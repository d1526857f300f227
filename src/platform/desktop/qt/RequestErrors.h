#pragma once

// The texts a request ends with when its owner cancelled it or it ran out of time, the same for
// HTTP and WebSocket tasks, as the platform's own URL session words them.
namespace velmorand::requestError {

inline constexpr const char* kCancelled = "Cancelled";
inline constexpr const char* kTimedOut = "The request timed out";

}  // namespace velmorand::requestError
