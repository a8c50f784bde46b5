// The transformation profile: one line per hardware profile of comma-separated
// integers, fields 1..9 the accelerometer's mounting matrix, 10..18 the
// magnetometer's. Read here for both drivers.
#include "platform/transformation_file.h"

#include <unistd.h>

#include "platform/platform_internal.h"

namespace {

constexpr const char *kProfilePath = "/etc/kmxc_transformation.cfg";

// Fields are the runs between commas, each converted like atoi and kept as its low
// 8 bits; runs of commas are one separator, so empty fields are skipped. Missing
// fields read as 0. The line is split in place.
void parse_fields(char *line, uint8_t firstField, int8_t *matrix) {
    for (int i = 0; i < 9; ++i) matrix[i] = 0;
    char *p = line;
    for (unsigned field = 1; field < firstField + 9u; ++field) {
        while (*p == ',') ++p;
        if (*p == '\0') return;
        char *start = p;
        while (*p != ',' && *p != '\0') ++p;
        const bool last = (*p == '\0');
        *p = '\0';
        if (field >= firstField) {
            const auto low = static_cast<uint32_t>(msmachdep_ParseInt(start)) & 0xFFu;
            matrix[field - firstField] = static_cast<int8_t>(static_cast<uint8_t>(low));
        }
        if (last) return;
        ++p;
    }
}

}  // namespace

extern "C" int8_t msmachdep_LoadTransformation(uint8_t firstField, int8_t *matrix) {
    static constexpr int8_t kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    for (int i = 0; i < 9; ++i) matrix[i] = kIdentity[i];
    // The test is for write permission: an absent or non-writable profile file
    // leaves the identity, without a message.
    if (access(kProfilePath, W_OK) != 0) return KMXC_PLAT_OK;

    // The profile number is read into the shared line buffer; with a number below 1
    // no line follows and the buffer keeps that text.
    const int32_t profile = msmachdep_ReadProfileNumber();
    if (msmachdep_ReadNumberedLine(kProfilePath, profile, 1) < 0) return KMXC_PLAT_FAILED;
    parse_fields(g_LineBuffer, firstField, matrix);
    return KMXC_PLAT_OK;
}
