#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// One inbound relay frame. The JSON key of every field is its name, case included.
struct IncomingMessage {
    struct Point {
        double x = 0;
        double y = 0;

        bool operator==(const Point&) const = default;
    };

    std::string type;
    std::optional<double> x;
    std::optional<double> y;
    std::optional<std::int64_t> ms;
    std::optional<Point> from;
    std::optional<Point> to;
    std::optional<std::string> value;
    std::optional<std::string> text;
    std::optional<std::string> key;
    std::optional<std::string> name;
    std::optional<std::string> url;
    std::optional<std::string> bundleId;
    std::optional<std::string> bundleID;
    std::optional<std::string> fileName;
    std::optional<std::string> mime;
    std::optional<std::string> dataB64;
    std::optional<std::int64_t> t;
    std::optional<std::string> viewerId;
    std::optional<std::string> tier;
    std::optional<std::int64_t> rttMs;
    std::optional<double> lossPct;
    std::optional<std::int64_t> decodeQueue;
    std::optional<std::int64_t> jitterMs;
    std::optional<double> congestion;
    std::optional<std::string> prefer;
    std::optional<double> fps;
    std::optional<double> quality;
    std::optional<double> scale;
    std::optional<std::string> codec;
    std::optional<bool> streaming;

    // The frame must be one JSON object with a string "type"; null reads as absent, and any value
    // of the wrong kind fails the whole frame. Absent on failure, never a partial record.
    static std::optional<IncomingMessage> decode(std::string_view utf8);

    bool operator==(const IncomingMessage&) const = default;
};

// Replies are written compactly, keys in declaration order, "/" escaped as "\/". Encoding yields
// absent only for a string that is not UTF-8.
struct PongMessage {
    static constexpr std::string_view type = "pong";

    std::optional<std::string> encode() const;
    // Any JSON object is a pong.
    static std::optional<PongMessage> decode(std::string_view utf8);
};

struct LatencyPongMessage {
    static constexpr std::string_view type = "latency_pong";

    std::int64_t t = 0;
    // Omitted from the JSON when absent.
    std::optional<std::string> viewerId;

    std::optional<std::string> encode() const;
    static std::optional<LatencyPongMessage> decode(std::string_view utf8);

    bool operator==(const LatencyPongMessage&) const = default;
};

}  // namespace velmorand
