#include "velmorand/relay/RelayOutbound.h"

#include <random>

namespace velmorand {

ReservationId ReservationId::make() {
    thread_local std::mt19937_64 generator{[] {
        std::random_device device;
        return (static_cast<std::uint64_t>(device()) << 32) ^ device();
    }()};
    return ReservationId{generator(), generator()};
}

}  // namespace velmorand
