// The kit's persistence: the calibration file and the kit file read and checked at
// start, one complete record saved durably when the rules say so, and the rough-offset
// change that carries the offsets over. Files go through durable_file.h; records and
// the save spacing are kit_store.h's.
#include <string.h>

#include <utility>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "service/durable_file.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

namespace {

constexpr const char *kDirectory = KMXC_CALIBRATION_DIRECTORY;
constexpr const char *kCalibrationFile = KMXC_SERVICE_CALIBRATION_FILE;
constexpr const char *kKitFile = KMXC_SERVICE_KIT_FILE;

Persistence &files() { return g_state.files; }

enum class Saved { kYes, kFailed, kLocked };

// The directory's lock, and, when start could not read the calibration file, the file
// readable again (it is not replaced before anyone knows what it held).
WriteResult lock_for_saving(DirLock *lock) {
    Persistence &p = files();
    WriteResult w = lock_directory(kDirectory, lock);
    if (w.outcome != Outcome::kDone) {
        report_write(kDirectory, w);
        return w;
    }
    if (!p.unread) return w;
    char ignored[kCalibTextMax + 2];
    const FileRead again = read_small_file(kCalibrationFile, ignored, sizeof ignored);
    p.unread = again.kind == PathKind::kUnreadable;
    if (!p.unread) return w;
    unlock_directory(lock);
    w = WriteResult{Outcome::kRefused, WriteStep::kTarget, again.error, PathKind::kUnreadable};
    report_write(kCalibrationFile, w);
    return w;
}

// The calibration file, then the kit file. A cut between the two leaves a kit file of
// the old record, which the next start sees does not belong and never uses.
WriteResult write_both(const DirLock &lock, const CalibRecord &record) {
    Persistence &p = files();
    remove_stale_temporaries(lock, kCalibrationFile);
    remove_stale_temporaries(lock, kKitFile);
    char text[kCalibTextMax + 1];
    WriteResult w = replace_file(lock, kCalibrationFile, text, format_calib(record, text, sizeof text), kFileUid,
                                 kFileGid, kFileMode);
    if (w.outcome == Outcome::kDone || w.step == WriteStep::kSyncDir) {
        // Renamed; not yet durable when the directory's fsync failed, so not known to stay.
        p.stored = record;
        p.stored_valid = w.outcome == Outcome::kDone;
    }
    if (w.outcome != Outcome::kDone) {
        report_write(kCalibrationFile, w);
        return w;
    }
    p.kit = kit_record_for(record);  // what the estimators hold now, for this record
    char kit[kKitTextMax + 1];
    w = replace_file(lock, kKitFile, kit, format_kit(p.kit, kit, sizeof kit), kFileUid, kFileGid, kFileMode);
    report_write(kKitFile, w);
    return w;
}

// One save of one record, counted in the session's saves; error: the failing call's errno.
Saved save(const CalibRecord &record, int32_t *error) {
    DirLock lock;
    WriteResult w = lock_for_saving(&lock);
    if (w.outcome == Outcome::kDone) {
        w = write_both(lock, record);
        unlock_directory(&lock);
    }
    if (w.outcome == Outcome::kDone) {
        ++g_state.saves;
        return Saved::kYes;
    }
    ++g_state.save_failures;
    if (error != nullptr) *error = w.error;
    return w.outcome == Outcome::kLocked ? Saved::kLocked : Saved::kFailed;
}

// A save in the cycle: the spacing clock restarts, the event says how it went.
void attempt(int64_t now, KmxcServiceEvent *e) {
    Persistence &p = files();
    p.clock.attempted = true;
    p.clock.last_attempt_ns = now;
    p.clock.settle_from_ns = now;
    const Saved s = save(p.wanted, nullptr);
    e->flags |= s == Saved::kYes ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
    if (s == Saved::kLocked) e->flags |= KMXC_SERVICE_SAVE_LOCKED;
}

bool file_holds_wanted() {
    const Persistence &p = files();
    return p.stored_valid && same_record(p.wanted, p.stored);
}

void say_refused(const char *path, const FileRead &r) {
    Line line;
    if (r.kind == PathKind::kUnreadable)
        line.text(path).text(" cannot be read (").text(strerror(r.error)).text("); not used");
    else
        line.text(path).text(" is ").text(path_kind_text(r.kind)).text(", not a regular file; not used");
    line.print();
}

// The kit file: its record when it holds one (kit_read), else defaults.
void read_kit_file(StartFiles *found) {
    Persistence &p = files();
    p.kit = default_kit(p.wanted);
    char text[kKitTextMax + 2];
    const FileRead r = read_small_file(kKitFile, text, sizeof text);
    found->kit_file = KMXC_SERVICE_KIT_FILE_ABSENT;
    if (r.kind == PathKind::kRegular) {
        found->kit_read = !r.too_long && parse_kit(text, r.length, &p.kit);
        found->kit_file = found->kit_read ? KMXC_SERVICE_KIT_FILE_LOADED : KMXC_SERVICE_KIT_FILE_GARBLED;
        if (!found->kit_read) p.kit = default_kit(p.wanted);
    } else if (r.kind != PathKind::kMissing) {
        found->kit_file = KMXC_SERVICE_KIT_FILE_REFUSED;
        say_refused(kKitFile, r);
    }
}

}  // namespace

// ---- Start --------------------------------------------------------------------------------

void read_stored_record(StartFiles *found) {
    Persistence &p = files();
    p = Persistence{};
    p.wanted = kDefaultRecord;
    char text[kCalibTextMax + 2];
    const FileRead r = read_small_file(kCalibrationFile, text, sizeof text);
    int32_t fields[kCalibFields];
    if (r.kind == PathKind::kMissing) {
        found->file = KMXC_SERVICE_FILE_ABSENT;
    } else if (r.kind == PathKind::kUnreadable || r.kind != PathKind::kRegular) {
        found->file = r.kind == PathKind::kUnreadable ? KMXC_SERVICE_FILE_UNREADABLE : KMXC_SERVICE_FILE_NOT_REGULAR;
        p.unread = r.kind == PathKind::kUnreadable;
        found->error = p.unread ? r.error : 0;
        say_refused(kCalibrationFile, r);
    } else if (r.too_long || !parse_calib(text, r.length, fields)) {
        found->file = KMXC_SERVICE_FILE_GARBLED;
        Line().text(kCalibrationFile).text(" is not a calibration record; reset to defaults").print();
    } else {
        found->file = KMXC_SERVICE_FILE_LOADED;
        const uint8_t reset = checked_record(fields, &p.wanted);
        if (reset != 0) {
            found->file |= KMXC_SERVICE_FILE_IMPLAUSIBLE;
            Line line;
            line.text(kCalibrationFile).text(" held implausible values (");
            const char *sep = "";
            for (const auto &[bit, what] :
                 {std::pair{kResetRough, "rough offset"}, std::pair{kResetMagnetic, "magnetic offset"},
                  std::pair{kResetGravity, "gravity offset"}})
                if ((reset & bit) != 0) line.text(sep).text(what), sep = ", ";
            line.text("); reset").print();
        } else {
            p.stored = p.wanted;
            p.stored_valid = true;
        }
        int denied = write_denied(kCalibrationFile);
        if (denied == 0) denied = write_denied(kDirectory);
        if (denied != 0) {
            found->file |= KMXC_SERVICE_FILE_READ_ONLY;
            found->error = denied;
            Line()
                .text(kCalibrationFile)
                .text(" cannot be written (")
                .text(strerror(denied))
                .text("); used as it is")
                .print();
        }
    }
    read_kit_file(found);
}

void use_rough_offset(const uint8_t rough[3]) {
    CalibRecord &w = files().wanted;
    if (w.rough[0] == rough[0] && w.rough[1] == rough[1] && w.rough[2] == rough[2]) return;
    for (int k = 0; k < 3; ++k) w.rough[k] = rough[k];
    w.magnetic = kNoStoredOffset;  // it belonged to the other rough offset
}

void save_at_start(StartFiles *found) {
    Persistence &p = files();
    if (found->kit_read && !kit_belongs_to(p.kit, p.wanted)) {
        found->kit_file = KMXC_SERVICE_KIT_FILE_MISMATCH;
        p.kit = default_kit(p.wanted);
    }
    if (file_holds_wanted()) return;
    found->save_attempts = 1;
    int32_t error = 0;
    const Saved s = save(p.wanted, &error);
    if (s == Saved::kYes) return;
    found->save_failures = 1;
    found->error = error;
    if (s == Saved::kLocked) found->file |= KMXC_SERVICE_FILE_LOCKED;
}

// ---- Cycle ------------------------------------------------------------------------------------

void save_when_due(int64_t now, KmxcServiceEvent *e) {
    Persistence &p = files();
    if (!p.clock_started) {
        p.clock_started = true;
        p.clock.settle_from_ns = now;
    }
    if (g_state.save_pending) {
        g_state.save_pending = false;
        KmxAxesMsCalibGetOffset(&p.wanted.magnetic);
    }
    if (save_due(p.clock, p.wanted, p.stored, p.stored_valid, now)) attempt(now, e);
}

bool change_rough_offset(int64_t now, KmxcServiceEvent *e) {
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
    // The record changes meaning: saved at once, its offset carried too (or not known).
    CalibRecord &w = files().wanted;
    if (magnetic_known(w.magnetic)) {
        KmxAxesLibRecalcMsOffset(&w.magnetic, &carried, g_state.rough, fresh);
        w.magnetic = magnetic_known(carried) ? carried : kNoStoredOffset;
    }
    for (int k = 0; k < 3; ++k) w.rough[k] = g_state.rough[k] = fresh[k];
    attempt(now, e);
    // The fed samples were measured with the old rough offset.
    g_state.fed_count = g_state.fed_next = 0;
    return true;
}

// ---- Stop ---------------------------------------------------------------------------------------

bool save_at_stop() { return file_holds_wanted() || save(files().wanted, nullptr) == Saved::kYes; }

}  // namespace kmxc_kit
