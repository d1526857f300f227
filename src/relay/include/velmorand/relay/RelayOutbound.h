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

// Holds the socket that everything is sent on. Replies are released as soon as their send has
// started; frames keep their bytes reserved until the socket has written them, against a budget.
// `send`, `sendWithin` and `replace` may be called from any thread; the lock is recursive because
// a transmit may release its reservation while the lock is still held.
template <typename Socket>
class RelayOutbound : public std::enable_shared_from_this<RelayOutbound<Socket>> {
  public:
    using Release = std::function<void()>;

    enum class Outcome { sent, noSocket, overBudget };

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
        budgetedSends_ = 0;
    }

    // Calls transmit(socket, text, binary, release) under the lock, or drops the payload when no
    // socket is set. Nothing stays reserved.
    template <typename Transmit>
    void send(const std::optional<std::string>& text, const std::optional<Bytes>& binary,
              Transmit&& transmit) {
        std::lock_guard guard(lock_);
        if (socket_) {
            std::forward<Transmit>(transmit)(*socket_, text, binary, reserve(0));
        }
    }

    // Reserves `size` bytes and calls transmit(socket, sequence, release) under the lock, where
    // `sequence` counts the budgeted sends made on this socket before; the bytes stay counted
    // until release runs. Nothing is sent when no socket is set, or when the bytes would take the
    // reserved total past `budget`; but an idle socket takes any size, or a frame larger than the
    // budget could never go (the budget grows only from frames that went).
    template <typename Transmit>
    Outcome sendWithin(std::int64_t budget, std::int64_t size, Transmit&& transmit) {
        std::lock_guard guard(lock_);
        if (!socket_) {
            return Outcome::noSocket;
        }
        if (bytes_ != 0 && checkedSum(bytes_, size) > budget) {
            return Outcome::overBudget;
        }
        std::forward<Transmit>(transmit)(*socket_, budgetedSends_++, reserve(size));
        return Outcome::sent;
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

    Release reserve(std::int64_t size) {
        const ReservationId id = ReservationId::make();
        if (size != 0) {
            reservations_.emplace(id, size);
            bytes_ = checkedSum(bytes_, size);
        }
        return [weak = this->weak_from_this(), id] {
            if (auto self = weak.lock()) {
                self->release(id);
            }
        };
    }

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
    std::uint32_t budgetedSends_ = 0;
};

}  // namespace velmorand
