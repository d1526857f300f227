#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "velmorand/platform/StoredValue.h"

namespace velmorand {

// Names one send for as long as its bytes are reserved; random, so never reused.
struct ReservationId {
    std::uint64_t high = 0;
    std::uint64_t low = 0;

    static ReservationId make();

    auto operator<=>(const ReservationId&) const = default;
};

// Holds the socket that replies go to. `send` and `replace` may be called from any thread; the
// lock is recursive because a transmit releases its reservation while the lock is still held.
template <typename Socket>
class RelayOutbound : public std::enable_shared_from_this<RelayOutbound<Socket>> {
  public:
    using Release = std::function<void()>;

    // The release callback holds the outbound weakly, hence shared ownership only.
    static std::shared_ptr<RelayOutbound> make() {
        return std::shared_ptr<RelayOutbound>(new RelayOutbound());
    }

    RelayOutbound(const RelayOutbound&) = delete;
    RelayOutbound& operator=(const RelayOutbound&) = delete;

    // Swaps the socket and forgets every reservation: earlier sends' releases become no-ops.
    void replace(std::optional<Socket> socket) {
        std::lock_guard guard(lock_);
        socket_ = std::move(socket);
        reservations_.clear();
        bytes_ = 0;
    }

    // Calls transmit(socket, text, binary, release) under the lock, or drops the payload when no
    // socket is set. `reserve` bytes stay counted until release runs; no caller reserves yet.
    template <typename Transmit>
    void send(const std::optional<std::string>& text, const std::optional<Bytes>& binary,
              Transmit&& transmit, std::int64_t reserve = 0) {
        std::lock_guard guard(lock_);
        if (!socket_) {
            return;
        }
        const ReservationId id = ReservationId::make();
        if (reserve != 0) {
            reservations_.emplace(id, reserve);
            bytes_ = checkedSum(bytes_, reserve);
        }
        Release release = [weak = this->weak_from_this(), id] {
            if (auto self = weak.lock()) {
                self->release(id);
            }
        };
        std::forward<Transmit>(transmit)(*socket_, text, binary, std::move(release));
    }

    std::int64_t bytes() const {
        std::lock_guard guard(lock_);
        return bytes_;
    }

    std::size_t reservationCount() const {
        std::lock_guard guard(lock_);
        return reservations_.size();
    }

  private:
    RelayOutbound() = default;

    static std::int64_t checkedSum(std::int64_t a, std::int64_t b) {
        std::int64_t sum = 0;
        if (__builtin_add_overflow(a, b, &sum)) {
            std::abort();
        }
        return sum;
    }

    void release(const ReservationId& id) {
        std::lock_guard guard(lock_);
        const auto found = reservations_.find(id);
        if (found == reservations_.end()) {
            return;
        }
        std::int64_t remaining = 0;
        if (__builtin_sub_overflow(bytes_, found->second, &remaining)) {
            std::abort();
        }
        bytes_ = remaining;
        reservations_.erase(found);
    }

    mutable std::recursive_mutex lock_;
    std::optional<Socket> socket_;
    std::map<ReservationId, std::int64_t> reservations_;
    std::int64_t bytes_ = 0;
};

}  // namespace velmorand
