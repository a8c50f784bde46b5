// The command line: arguments separated by NUL bytes. Accepted or refused with one
// line, never a crash.
#include <string>
#include <vector>

#include "tools/options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            args.emplace_back();
        else
            args.back() += static_cast<char>(data[i]);
    }
    const compass::ParsedOptions parsed = compass::parse_options(args);
    if (!parsed.ok && (parsed.error.empty() || parsed.error.find('\n') != std::string::npos)) __builtin_trap();
    return 0;
}
