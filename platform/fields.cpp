// Line buffer, field readers and integer conversion of the configuration files.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform_internal.h"

namespace {

constexpr char kProfileNumberPath[] = "/sys/module/zorsensor/parameters/profile";
constexpr int32_t kProfileWhenUnreadable = 1;

// The default texts of the field readers are the markers' own digits.
#define KMXC_TEXT_OF(literal) #literal
#define KMXC_TEXT(marker) KMXC_TEXT_OF(marker)
constexpr char kRoughUnknownText[] = KMXC_TEXT(KMXC_ROUGH_UNKNOWN);
constexpr char kOffsetUnknownText[] = KMXC_TEXT(KMXC_OFFSET_UNKNOWN);
#undef KMXC_TEXT
#undef KMXC_TEXT_OF

}  // namespace

extern "C" {

constinit char g_LineBuffer[MSMACHDEP_LINE_BUFFER_SIZE] = {};

const char *msmachdep_TokenOr255(char *text) {
    const char *field = std::strtok(text, ",");
    return field != nullptr ? field : kRoughUnknownText;
}

const char *msmachdep_TokenOrZero(char *text) {
    const char *field = std::strtok(text, ",");
    return field != nullptr ? field : "0";
}

const char *msmachdep_TokenOrMax(void) {
    const char *field = std::strtok(nullptr, ",");
    return field != nullptr ? field : kOffsetUnknownText;
}

int32_t msmachdep_ParseInt(const char *text) {
    // strtol parses exactly what atoi does and is defined on every input (it
    // saturates at the long range); atoi is (int)strtol on in-range text.
    const int saved = errno;
    const long value = std::strtol(text, nullptr, 10);
    errno = saved;
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

int8_t msmachdep_ReadNumberedLine(const char *path, int32_t number, int report) {
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr) {
        if (report) std::perror("fopen");
        return KMXC_PLAT_FAILED;
    }
    for (int32_t line = 0; line < number; ++line) {
        if (std::fgets(g_LineBuffer, sizeof g_LineBuffer, file) == nullptr) {
            if (report) std::perror("fgets");
            std::fclose(file);
            return KMXC_PLAT_FAILED;
        }
    }
    std::fclose(file);
    return KMXC_PLAT_OK;
}

int32_t msmachdep_ReadProfileNumber(void) {
    std::FILE *file = std::fopen(kProfileNumberPath, "r");
    if (file == nullptr) return kProfileWhenUnreadable;
    const bool read = std::fgets(g_LineBuffer, sizeof g_LineBuffer, file) != nullptr;
    std::fclose(file);
    return read ? msmachdep_ParseInt(g_LineBuffer) : kProfileWhenUnreadable;
}

}  // extern "C"
