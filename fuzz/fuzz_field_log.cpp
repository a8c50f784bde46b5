// The field-log parser on arbitrary text: it must accept or refuse, never crash; what it
// accepts, written again, reads back to the same log.
#include <sstream>
#include <string>

#include "vphone/scene/field_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace vphone::scene;
    std::istringstream in(std::string(reinterpret_cast<const char *>(data), size));
    const ParsedFieldLog parsed = parse_field_log(in);
    if (!parsed.ok) {
        if (parsed.error.empty()) __builtin_trap();  // a refusal always says why
        return 0;
    }
    std::ostringstream out;
    write_field_log_header(out, parsed.log.columns);
    for (const FieldLogRow &r : parsed.log.rows) write_field_log_row(out, r, parsed.log.columns);
    std::istringstream again(out.str());
    const ParsedFieldLog reread = parse_field_log(again);
    if (!reread.ok || !(reread.log == parsed.log)) __builtin_trap();
    return 0;
}
