#include "velmorand/extension/RelayFrameSink.h"

#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {

FrameSink::Result RelayFrameSink::send(const FrameHeader& header,
                                       std::span<const std::uint8_t> payload, std::int64_t budget) {
    switch (client_.sendFrame(header, payload, budget)) {
        case RelayClient::FrameOutcome::sent:
            return Result::sent;
        case RelayClient::FrameOutcome::overBudget:
            return Result::overBudget;
        case RelayClient::FrameOutcome::noSocket:
            break;
    }
    return Result::noLink;
}

std::int64_t RelayFrameSink::bytesInFlight() const {
    return client_.frameBytesInFlight();
}

}  // namespace velmorand::extension
