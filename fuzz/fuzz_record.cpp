// The raw-record parser on arbitrary text: it must accept or refuse, never crash.
#include <sstream>
#include <string>

#include "vphone/scene/record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
    const vphone::scene::ParsedRecord parsed = vphone::scene::parse_record(in);
    if (!parsed.ok && parsed.error.empty()) __builtin_trap();  // a refusal always says why
    return 0;
}
