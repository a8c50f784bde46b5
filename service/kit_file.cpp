// The kit's persistence: the calibration file's state, checked saves that read back,
// repair of a damaged file, and the rough-offset change that carries offsets over.
#include <errno.h>
#include <stdio.h>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "platform/platform.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

// ---- Calibration file ---------------------------------------------------------------

FileState file_state() {
    FILE *f = fopen(kCalibrationFile, "r");
    if (f == nullptr) return errno == ENOENT ? FileState::kMissing : FileState::kUnreadable;
    char line[256];
    const bool got = fgets(line, sizeof line, f) != nullptr;
    const bool read_error = !got && ferror(f) != 0;
    fclose(f);
    if (read_error) return FileState::kUnreadable;
    if (!got) return FileState::kDamaged;
    int fields = 0;
    const char *p = line;
    for (;;) {
        if (*p == '-') ++p;
        if (*p < '0' || *p > '9') return FileState::kDamaged;
        int digits = 0;
        while (*p >= '0' && *p <= '9') {
            ++p;
            if (++digits > 10) return FileState::kDamaged;
        }
        ++fields;
        if (*p == ',') {
            ++p;
            continue;
        }
        break;
    }
    return fields == 9 && (*p == '\0' || (*p == '\n' && p[1] == '\0')) ? FileState::kWellFormed : FileState::kDamaged;
}

static bool file_well_formed() { return file_state() == FileState::kWellFormed; }

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

// Writes the rough offset and reads it back.
static bool rough_saved(const uint8_t rough[3]) {
    uint8_t back[3];
    return msmachdep_SaveRoughOffset(rough) == 0 && msmachdep_LoadRoughOffset(back) == 0 && back[0] == rough[0] &&
           back[1] == rough[1] && back[2] == rough[2];
}

bool reset_file() {
    msmachdep_ResetOffsetData();
    uint8_t rough[3];
    return file_well_formed() && msmachdep_LoadRoughOffset(rough) == 0;
}

// A file the start could not read is checked, and a damaged one the start could not
// reset is reset, before anything is saved into it (with the rough offset in use), so
// no value read from damage ever persists. A failure counts as a failed save.
static bool repair_damaged_file() {
    if (g_state.file_unchecked) {
        const FileState state = file_state();
        if (state == FileState::kUnreadable) {
            ++g_state.save_failures;
            return false;
        }
        g_state.file_unchecked = false;
        g_state.file_damaged = state == FileState::kDamaged;
    }
    if (!g_state.file_damaged) return true;
    if (reset_file() && rough_saved(g_state.rough)) {
        g_state.file_damaged = false;
        return true;
    }
    ++g_state.save_failures;
    return false;
}

bool save_offset(const KmxAxesData &offset) {
    if (!repair_damaged_file()) return false;
    const int32_t v[3] = {offset.x, offset.y, offset.z};
    int32_t back[3];
    if (msmachdep_SaveMsOffset(v) == 0 && msmachdep_LoadMsOffset(back) == 0 && back[0] == v[0] && back[1] == v[1] &&
        back[2] == v[2]) {
        g_state.stored = offset;
        ++g_state.saves;
        return true;
    }
    ++g_state.save_failures;
    // A file that no longer loads is reset, so later loads and saves work again (or,
    // when that fails too, before the next save).
    uint8_t rough[3];
    if (msmachdep_LoadRoughOffset(rough) != 0 || !file_well_formed()) {
        g_state.file_damaged = !reset_file() || msmachdep_SaveRoughOffset(g_state.rough) != 0;
        g_state.stored = kNoStoredOffset;
    }
    return false;
}

bool save_rough(const uint8_t rough[3]) {
    if (!repair_damaged_file()) return false;
    if (rough_saved(rough)) {
        ++g_state.saves;
        return true;
    }
    ++g_state.save_failures;
    return false;
}

// ---- Rough-offset change --------------------------------------------------------------

bool change_rough_offset(KmxcServiceEvent *e) {
    uint8_t fresh[3];
    if (KmxAxesDrvMsSetRoughOffset(nullptr) != 0) return false;
    KmxAxesDrvMsGetWrittenRoughOffset(fresh);
    KmxAxesData offset, carried;
    KmxAxesLibGetMsOffset(&offset);
    KmxAxesLibRecalcMsOffset(&offset, &carried, g_state.rough, fresh);
    if (KmxAxesLibIsValidMsOffset(&carried)) {
        KmxAxesLibSetMsOffset(&carried);
        KmxAxesMsCalibSetOffset(&carried);
    }
    bool saved = true;
    if (KmxAxesLibIsValidMsOffset(&g_state.stored)) {
        KmxAxesData stored;
        KmxAxesLibRecalcMsOffset(&g_state.stored, &stored, g_state.rough, fresh);
        saved = save_offset(KmxAxesLibIsValidMsOffset(&stored) ? stored : kNoStoredOffset);
    }
    saved = save_rough(fresh) && saved;
    e->flags |= saved ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
    for (int k = 0; k < 3; ++k) g_state.rough[k] = fresh[k];
    // The fed samples were measured with the old rough offset.
    g_state.fed_count = g_state.fed_next = 0;
    return true;
}

}  // namespace kmxc_kit
