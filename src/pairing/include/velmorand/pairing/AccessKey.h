#pragma once

#include <string>
#include <string_view>

namespace velmorand {

// The access key inside whatever a pair QR code holds: a full pair link, a link fragment such as
// "pair?key=K", or the bare key. Empty when there is none.
std::string extractAccessKey(std::string_view text);

}  // namespace velmorand
