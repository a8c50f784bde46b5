// The calibration data file: one line of nine integers, "rough x3, gravity x3,
// magnetic x3", saved through a backup that is renamed into place (rough, magnetic,
// creation, reset) or rewritten in place (gravity).
#include <android/log.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

#include "platform/platform_internal.h"

namespace {

constexpr char kMainPath[] = KMXC_CALIBRATION_FILE;
constexpr char kBackupPath[] = KMXC_CALIBRATION_BACKUP_FILE;
constexpr char kFormat[] = "%d,%d,%d,%d,%d,%d,%d,%d,%d";
constexpr char kLogTag[] = "Msmachdep";
constexpr uid_t kCompassUid = KMXC_CALIBRATION_FILE_UID;
constexpr gid_t kSystemGid = KMXC_CALIBRATION_FILE_GID;
constexpr mode_t kFileMode = KMXC_CALIBRATION_FILE_MODE;

constexpr int kFields = 9;
constexpr int kRough = 0;
constexpr int kGravity = 3;
constexpr int kMagnetic = 6;
constexpr int32_t kDefaults[kFields] = {KMXC_ROUGH_UNKNOWN,  KMXC_ROUGH_UNKNOWN,  KMXC_ROUGH_UNKNOWN, 0, 0, 0,
                                        KMXC_OFFSET_UNKNOWN, KMXC_OFFSET_UNKNOWN, KMXC_OFFSET_UNKNOWN};

void log_error(const char *line) { __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s", line); }

int write_fields(std::FILE *file, const int32_t (&v)[kFields]) {
    return std::fprintf(file, kFormat, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
}

// Writes the nine values and closes the file, which is closed either way. The text
// reaches the file only when the stream is flushed at fclose, so a failing fclose is
// a failed write too and is reported like one ("fprintf"): a backup that may be
// incomplete must never be renamed over the main file.
bool write_and_close(std::FILE *file, const int32_t (&v)[kFields], bool report) {
    if (write_fields(file, v) < 0) {
        if (report) std::perror("fprintf");
        std::fclose(file);
        return false;
    }
    if (std::fclose(file) != 0) {
        if (report) std::perror("fprintf");
        return false;
    }
    return true;
}

// Owner, mode and rename of a completely written backup; perror names the failing call.
int8_t install_backup() {
    if (chown(kBackupPath, kCompassUid, kSystemGid) < 0) {
        std::perror("chown");
        return KMXC_PLAT_FAILED;
    }
    if (chmod(kBackupPath, kFileMode) < 0) {
        std::perror("chmod");
        return KMXC_PLAT_FAILED;
    }
    if (std::rename(kBackupPath, kMainPath) < 0) {
        std::perror("rename");
        return KMXC_PLAT_FAILED;
    }
    return KMXC_PLAT_OK;
}

enum class MainFile { kWritable, kMissing, kFailed };

// kFailed after perror("access"): the file exists but is not writable, or the folder
// cannot be searched.
MainFile main_file_state() {
    if (access(kMainPath, W_OK) == 0) return MainFile::kWritable;
    if (errno != ENOENT) {
        std::perror("access");
        return MainFile::kFailed;
    }
    return MainFile::kMissing;
}

// Which of msmachdep_LoadGsOffset's extra log lines to write; null for none.
struct ReadLog {
    const char *cannot_open;
    const char *cannot_read;
};

// Reads the main file's line into g_LineBuffer and splits it into the nine values.
int8_t read_current(int32_t (&v)[kFields], const ReadLog &log = {nullptr, nullptr}) {
    std::FILE *file = std::fopen(kMainPath, "r");
    if (file == nullptr) {
        if (log.cannot_open != nullptr) log_error(log.cannot_open);
        std::perror("fopen");
        return KMXC_PLAT_FAILED;
    }
    if (std::fgets(g_LineBuffer, sizeof g_LineBuffer, file) == nullptr) {
        if (log.cannot_read != nullptr) log_error(log.cannot_read);
        std::perror("fgets");
        std::fclose(file);
        return KMXC_PLAT_FAILED;
    }
    std::fclose(file);
    v[0] = msmachdep_ParseInt(msmachdep_TokenOr255(g_LineBuffer));
    for (int i = 1; i < 3; ++i) v[i] = msmachdep_ParseInt(msmachdep_TokenOr255(nullptr));
    for (int i = 3; i < 6; ++i) v[i] = msmachdep_ParseInt(msmachdep_TokenOrZero(nullptr));
    for (int i = 6; i < 9; ++i) v[i] = msmachdep_ParseInt(msmachdep_TokenOrMax());
    return KMXC_PLAT_OK;
}

// Writes the nine values to the backup and renames it into place. A failing open
// prints "fopen" only when asked (the magnetic save prints nothing there).
int8_t save_through_backup(const int32_t (&v)[kFields], bool report_open) {
    std::FILE *file = std::fopen(kBackupPath, "w");
    if (file == nullptr) {
        if (report_open) std::perror("fopen");
        return KMXC_PLAT_FAILED;
    }
    if (!write_and_close(file, v, true)) return KMXC_PLAT_FAILED;
    return install_backup();
}

// Rewrites the main file itself with the nine values (no backup, no owner or mode).
int8_t save_in_place(const int32_t (&v)[kFields]) {
    std::FILE *file = std::fopen(kMainPath, "w");
    if (file == nullptr) {
        std::perror("fopen");
        return KMXC_PLAT_FAILED;
    }
    return write_and_close(file, v, true) ? KMXC_PLAT_OK : KMXC_PLAT_FAILED;
}

// The file's nine values, the file made first when it is missing.
int8_t current_fields(int32_t (&v)[kFields]) {
    if (msmachdep_EnsureOffsetFile() < 0) return KMXC_PLAT_FAILED;
    return read_current(v) < 0 ? KMXC_PLAT_FAILED : KMXC_PLAT_OK;
}

int8_t load_triple(int32_t *out, int first) {
    int32_t v[kFields];
    if (out == nullptr || current_fields(v) < 0) return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) out[i] = v[first + i];
    return KMXC_PLAT_OK;
}

// Creates the missing file with the default content, by `save`.
int8_t ensure_file(int8_t (*save)(const int32_t (&)[kFields])) {
    switch (main_file_state()) {
    case MainFile::kWritable: return KMXC_PLAT_OK;
    case MainFile::kFailed: return KMXC_PLAT_FAILED;
    case MainFile::kMissing: break;
    }
    return save(kDefaults);
}

int8_t save_defaults_through_backup(const int32_t (&v)[kFields]) { return save_through_backup(v, true); }

}  // namespace

extern "C" {

int8_t msmachdep_EnsureOffsetFile(void) { return ensure_file(save_defaults_through_backup); }

int8_t msmachdep_EnsureOffsetFileInPlace(void) { return ensure_file(save_in_place); }

int8_t msmachdep_LoadRoughOffset(uint8_t *out) {
    int32_t v[kFields];
    if (out == nullptr || current_fields(v) < 0) return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) out[i] = static_cast<uint8_t>(static_cast<uint32_t>(v[kRough + i]) & 0xFFu);
    return KMXC_PLAT_OK;
}

int8_t msmachdep_SaveRoughOffset(const uint8_t *in) {
    int32_t v[kFields];
    if (in == nullptr || current_fields(v) < 0) return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) v[kRough + i] = in[i];
    return save_through_backup(v, true);
}

int8_t msmachdep_LoadGsOffset(int32_t *out) {
    if (out == nullptr) return KMXC_PLAT_FAILED;
    if (msmachdep_EnsureOffsetFile() < 0) {
        log_error("msmachdep_LoadGsOffset() fail #1");
        return KMXC_PLAT_FAILED;
    }
    int32_t v[kFields];
    if (read_current(v, {"msmachdep_LoadGsOffset() fail #2", "msmachdep_LoadGsOffset() fail #3"}) < 0)
        return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) out[i] = v[kGravity + i];
    return KMXC_PLAT_OK;
}

int8_t msmachdep_SaveGsOffset(const int32_t *in) {
    int32_t v[kFields];
    if (in == nullptr || msmachdep_EnsureOffsetFileInPlace() < 0 || read_current(v) < 0) return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) v[kGravity + i] = in[i];
    return save_in_place(v);
}

int8_t msmachdep_LoadMsOffset(int32_t *out) { return load_triple(out, kMagnetic); }

int8_t msmachdep_SaveMsOffset(const int32_t *in) {
    int32_t v[kFields];
    if (in == nullptr || current_fields(v) < 0) return KMXC_PLAT_FAILED;
    for (int i = 0; i < 3; ++i) v[kMagnetic + i] = in[i];
    return save_through_backup(v, false);
}

void msmachdep_ResetOffsetData(void) {
    std::FILE *file = std::fopen(kBackupPath, "w");
    if (file == nullptr) {
        log_error("msmachdep_ResetOffsetData() fail #1");
        return;
    }
    if (!write_and_close(file, kDefaults, false)) {
        log_error("msmachdep_ResetOffsetData() fail #2");
        return;
    }
    if (chown(kBackupPath, kCompassUid, kSystemGid) < 0) {
        log_error("msmachdep_ResetOffsetData() fail #3");
        return;
    }
    if (chmod(kBackupPath, kFileMode) < 0) {
        log_error("msmachdep_ResetOffsetData() fail #4");
        return;
    }
    if (std::rename(kBackupPath, kMainPath) < 0) log_error("msmachdep_ResetOffsetData() fail #5");
}

}  // extern "C"
