#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "velmorand/config/SharedConfig.h"
#include "velmorand/extension/RelayBase.h"

namespace velmorand {
class Log;
class MainQueue;
class RelayClient;
}  // namespace velmorand

namespace velmorand::extension {

// The relay client's owner for one broadcast: records every viewer event in the log and ends the
// broadcast when the relay refuses the device token. There is no capture or encoder on the
// desktop, so stream requests are logged, not served.
class Broadcast {
  public:
    // Quality reports come several times a second; the first and then every Nth are logged.
    static constexpr std::uint64_t kQosEvery = 50;

    // `stop` ends the program with the given status; it is called at most once, from the main
    // queue.
    Broadcast(RelayClient& client, Log& log, MainQueue& mainQueue,
              std::function<void(int exitStatus)> stop);

    // Logs where it connects and the encode settings it would apply, then connects.
    void begin(const RelayBase& base, const SharedConfig::EncodeValues& encode);

  private:
    void attach();

    RelayClient& client_;
    Log& log_;
    MainQueue& mainQueue_;
    std::function<void(int)> stop_;
    std::uint64_t qosReports_ = 0;
    bool stopping_ = false;
};

}  // namespace velmorand::extension
