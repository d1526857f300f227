#pragma once

#include "velmorand/stream/ScreenStream.h"

namespace velmorand {
class RelayClient;
}

namespace velmorand::extension {

// The stream's frames go out on the relay link, each one binary message.
class RelayFrameSink : public FrameSink {
  public:
    explicit RelayFrameSink(RelayClient& client) : client_(client) {}

    Result send(const FrameHeader& header, std::span<const std::uint8_t> payload,
                std::int64_t budget) override;
    std::int64_t bytesInFlight() const override;

  private:
    RelayClient& client_;
};

}  // namespace velmorand::extension
