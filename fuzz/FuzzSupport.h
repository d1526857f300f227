#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "velmorand/platform/HttpClient.h"
#include "velmorand/platform/WebSocket.h"

namespace velmorand::fuzzing {

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A private scratch directory for the life of the process, in memory when the machine offers it:
// the file readers are fuzzed through real files, and some of them fsync.
inline const std::filesystem::path& scratchDirectory() {
    static const std::filesystem::path directory = [] {
        std::filesystem::path base = "/dev/shm";
        if (::access(base.c_str(), W_OK) != 0) {
            base = std::filesystem::temp_directory_path();
        }
        auto path = base / ("velmorand-fuzz-" + std::to_string(::getpid()) + "-" +
                            std::to_string(std::random_device{}()));
        std::filesystem::create_directories(path);
        std::atexit([] { std::filesystem::remove_all(scratchDirectory()); });
        return path;
    }();
    return directory;
}

inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// One scripted HTTP answer, written "<status>\n<body>": digits up to the first line break are
// the status (the body is absent without a line break), the rest is the body. An empty script is
// a transport failure. Readable, so that seeds can be written by hand.
inline HttpOutcome scriptedAnswer(std::string_view script) {
    if (script.empty()) {
        return HttpTransportError{"fuzz: no answer"};
    }
    const auto lineBreak = script.find('\n');
    const auto statusText = script.substr(0, lineBreak);
    int status = 0;
    for (const char c : statusText.substr(0, 4)) {
        if (c >= '0' && c <= '9') {
            status = status * 10 + (c - '0');
        }
    }
    HttpResponse response;
    response.statusCode = status;
    if (lineBreak != std::string_view::npos) {
        response.body = std::string(script.substr(lineBreak + 1));
    }
    return response;
}

// `text` cut at every NUL byte.
inline std::vector<std::string_view> splitAtNul(std::string_view text) {
    std::vector<std::string_view> parts;
    while (true) {
        const auto end = text.find('\0');
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

// A WebSocket session whose tasks accept every send at once and never receive: replies have
// somewhere to go and nothing comes back on its own.
class SinkWebSocketSession : public WebSocketSession {
  public:
    std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest&) override {
        return std::make_shared<Task>();
    }

    static WebSocketSessionFactory factory() {
        return [](std::shared_ptr<WebSocketSessionDelegate>) {
            return std::make_unique<SinkWebSocketSession>();
        };
    }

  private:
    class Task : public WebSocketTask {
      public:
        void resume() override {}
        void cancel() override {}
        void send(WebSocketMessage message, SendCompletion completion) override {
            sentBytes_ += message.payload.size();
            if (completion) {
                completion(std::nullopt);
            }
        }
        void receive(ReceiveCompletion) override {}

      private:
        std::size_t sentBytes_ = 0;
    };
};

}  // namespace velmorand::fuzzing
