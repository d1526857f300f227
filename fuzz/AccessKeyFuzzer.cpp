// Access-key extraction from whatever a scanned code or pasted text holds.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "velmorand/pairing/AccessKey.h"
#include "velmorand/platform/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto key = velmorand::extractAccessKey(velmorand::fuzzing::asText(data, size));
    // Every path hands back a trimmed key.
    if (velmorand::trimmed(key) != key) {
        __builtin_trap();
    }
    return 0;
}
