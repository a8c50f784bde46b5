// Per-profile charger offsets, read for the calling service. The only platform unit
// with floating point: the first two triples are doubles.

#include "platform/platform_internal.h"

namespace {

constexpr char kChargerPath[] = "/etc/kmxc_charger_offset.cfg";
constexpr double kScale = 100000.0;

void fill_scaled(double *out) {
    for (int i = 0; i < 3; ++i)
        out[i] = static_cast<double>(msmachdep_ParseInt(msmachdep_TokenOrZero(nullptr))) / kScale;
}

// 0 in a field (missing or written as 0) cannot be configured: it takes the default.
void fill_counts(int32_t *out, const int32_t (&defaults)[3]) {
    for (int i = 0; i < 3; ++i) {
        const int32_t value = msmachdep_ParseInt(msmachdep_TokenOrZero(nullptr));
        out[i] = value != 0 ? value : defaults[i];
    }
}

}  // namespace

extern "C" int msmachdep_LoadChargerOffset(double *first, double *second, int32_t *third, int32_t *fourth) {
    const int32_t profile = msmachdep_ReadProfileNumber();
    // A profile number below 1 selects no line: nothing is read or filled.
    if (profile < 1) return KMXC_PLAT_CHARGER_NO_LINE;
    if (msmachdep_ReadNumberedLine(kChargerPath, profile, 0) < 0) return KMXC_PLAT_CHARGER_NO_LINE;

    if (first == nullptr) return KMXC_PLAT_CHARGER_NULL_FIRST;
    // The first field starts the split of the selected line.
    first[0] = static_cast<double>(msmachdep_ParseInt(msmachdep_TokenOrZero(g_LineBuffer))) / kScale;
    for (int i = 1; i < 3; ++i)
        first[i] = static_cast<double>(msmachdep_ParseInt(msmachdep_TokenOrZero(nullptr))) / kScale;
    if (second == nullptr) return KMXC_PLAT_CHARGER_NULL_SECOND;
    fill_scaled(second);
    if (third == nullptr) return KMXC_PLAT_CHARGER_NULL_THIRD;
    fill_counts(third, {1000, 700, 500});
    if (fourth == nullptr) return KMXC_PLAT_CHARGER_NULL_FOURTH;
    fill_counts(fourth, {2500, 1800, 1000});
    return KMXC_PLAT_OK;
}
