// What a viewer's commands carry before anything is carried out: key names, pushed file names and
// their base64 data, and the frame header the viewers read.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "velmorand/platform/Text.h"
#include "velmorand/relay/FrameHeader.h"
#include "velmorand/remote/KeyCombination.h"
#include "velmorand/remote/PushedFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorand;
    const auto text = fuzzing::asText(data, size);
    (void)KeyCombination::parse(text);
    (void)deviceButton(text);

    // A saved file's name never leaves the Downloads folder, hides, or grows past a file name.
    const std::string name = PushedFile::safeName(text);
    if (name.empty() || name.size() > 255 || name.front() == '.' ||
        name.find_first_of("/\\") != std::string::npos || !isValidUtf8(name)) {
        __builtin_trap();
    }

    constexpr std::size_t kLimit = 64;
    const auto decoded = PushedFile::decodeBase64(text, kLimit);
    if (decoded && decoded->size() > kLimit) {
        __builtin_trap();
    }

    // A header reads back exactly as it is written.
    if (const auto header = FrameHeader::read({data, size})) {
        std::uint8_t bytes[FrameHeader::kSize];
        header->write(bytes);
        if (FrameHeader::read({bytes, FrameHeader::kSize}) != header) {
            __builtin_trap();
        }
    }
    return 0;
}
