#pragma once

#include <functional>
#include <string>

namespace velmorand {

class RelayClient;
struct Control;

namespace cli {

// Turns every callback of a relay client into one compact JSON line, "event" first:
// {"event":"open"}, {"event":"control","control":"tap","x":1.0,"y":2.0}, …
class RelayEventPrinter {
  public:
    using Sink = std::function<void(const std::string& line)>;

    // Sets all eleven callbacks of `client`; each hands its line to `sink`.
    static void attach(RelayClient& client, Sink sink);

    static std::string controlLine(const Control& control);
};

}  // namespace cli
}  // namespace velmorand
