// The kit's persistence on the virtual phone: what start finds and reports, what is
// saved and when, saves that fail or lose power at any call, hostile files, and a
// second service on the same files.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>

#include "platform/platform.h"
#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;
using vphone::Call;

constexpr const char *kKitCfg = KMXC_SERVICE_KIT_FILE;
constexpr const char *kBackup = "/misc/sensor/kmxc_orvane-backup.cfg";  // the library's fixed name
constexpr const char *kStored = "16,16,16,0,0,0,45,-31,24";             // a calibrated phone's record

// A phone file's text ("<none>" when missing); never opens what is not a regular file.
std::string text_of(const char *phone) {
    std::error_code ec;
    const auto status = std::filesystem::symlink_status(vphone::host_path(phone), ec);
    if (!ec && status.type() != std::filesystem::file_type::regular) return "<not a regular file>";
    return vphone::read_file(phone).value_or("<none>");
}

// The kit file's rough and magnetic offset: the record it belongs to.
std::string kit_belongs_to(const std::string &kit) {
    size_t at = kit.find(',') + 1, end = at;
    for (int i = 0; i < 6; ++i) end = kit.find(',', end) + 1;
    return kit.substr(at, end - at - 1);
}
// The calibration record's rough and magnetic offset.
std::string rough_and_magnetic(const std::string &cfg) {
    const size_t rough_end = after_rough(cfg);
    size_t at = rough_end;
    for (int i = 0; i < 3; ++i) at = cfg.find(',', at) + 1;
    return cfg.substr(0, rough_end) + cfg.substr(at);
}

// Holds /misc/sensor's lock from another process while it lives.
class OtherProcessHoldingTheLock {
public:
    OtherProcessHoldingTheLock() {
        if (::pipe(go_) != 0 || ::pipe(ready_) != 0) return;
        child_ = vphone::fork_process();
        if (child_ == 0) {
            const int dir = ::open(vphone::host_path("/misc/sensor").c_str(), O_RDONLY | O_DIRECTORY);
            char byte = dir >= 0 && ::flock(dir, LOCK_EX | LOCK_NB) == 0 ? 'y' : 'n';
            (void)!::write(ready_[1], &byte, 1);
            (void)!::read(go_[0], &byte, 1);
            ::_exit(0);
        }
        char byte = 0;
        held_ = child_ > 0 && ::read(ready_[0], &byte, 1) == 1 && byte == 'y';
    }
    ~OtherProcessHoldingTheLock() { release(); }
    bool held() const { return held_; }
    void release() {
        if (child_ <= 0) return;
        (void)!::write(go_[1], "x", 1);
        ::waitpid(child_, nullptr, 0);
        child_ = -1;
        for (int fd : {go_[0], go_[1], ready_[0], ready_[1]}) ::close(fd);
    }

private:
    int go_[2] = {-1, -1}, ready_[2] = {-1, -1};
    pid_t child_ = -1;
    bool held_ = false;
};

// ---- Start ----------------------------------------------------------------------------------

// Every outcome start reports, by name, with what it did to the files.
TEST_F(Kit, EveryStartOutcomeIsReportedByNameAndActedOn) {
    const std::string outside = dir_ + "-outside";
    const std::string kit_for_stored = "1,16,16,16,45,-31,24,16384,0,0,16384,0,16384,0,0,0,0,0,2746929751";
    const struct {
        const char *name;
        std::function<void()> setup;
        uint16_t file;
        uint8_t kit_file;
        uint8_t attempts, failures;
        int error;
        bool loaded;
        const char *said;       // on stderr ("" nothing)
        const char *cfg_after;  // the calibration file after the start; null: as before
    } cases[] = {
        {"absent", [] {}, KMXC_SERVICE_FILE_ABSENT, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 0, 0, false, "",
         "16,16,16,0,0,0,2147483647,2147483647,2147483647"},
        {"loaded with its kit file",
         [&] { vphone::write_file(kCfg, kStored), vphone::write_file(kKitCfg, kit_for_stored); },
         KMXC_SERVICE_FILE_LOADED, KMXC_SERVICE_KIT_FILE_LOADED, 0, 0, 0, true, "", nullptr},
        {"kit file of another offset",
         [&] {
             vphone::write_file(kCfg, "16,16,16,0,0,0,45,-31,25");
             vphone::write_file(kKitCfg, kit_for_stored);
         },
         KMXC_SERVICE_FILE_LOADED, KMXC_SERVICE_KIT_FILE_MISMATCH, 0, 0, 0, true, "", nullptr},
        {"kit file with a wrong checksum",
         [&] { vphone::write_file(kCfg, kStored), vphone::write_file(kKitCfg, kit_for_stored + "1"); },
         KMXC_SERVICE_FILE_LOADED, KMXC_SERVICE_KIT_FILE_GARBLED, 0, 0, 0, true, "", nullptr},
        {"kit file a link",
         [&] {
             vphone::write_file(kCfg, kStored);
             std::filesystem::create_symlink(outside, vphone::host_path(kKitCfg));
         },
         KMXC_SERVICE_FILE_LOADED, KMXC_SERVICE_KIT_FILE_REFUSED, 0, 0, 0, true, "is a symbolic link", nullptr},
        {"unreadable", [] { vphone::write_file(kCfg, kStored), vphone::fail_path(kCfg, Call::Open, EACCES); },
         KMXC_SERVICE_FILE_UNREADABLE, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, EACCES, false, "cannot be read", nullptr},
        // Opens, but cannot be read: still never replaced by a record made without it.
        {"unreadable content", [] { vphone::write_file(kCfg, kStored), vphone::fail_path(kCfg, Call::Read, EIO); },
         KMXC_SERVICE_FILE_UNREADABLE, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, EIO, false, "cannot be read", nullptr},
        {"a FIFO", [] { ::mkfifo(vphone::host_path(kCfg).c_str(), 0600); }, KMXC_SERVICE_FILE_NOT_REGULAR,
         KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, 0, false, "is a FIFO, not a regular file", nullptr},
        {"a link", [&] { std::filesystem::create_symlink(outside, vphone::host_path(kCfg)); },
         KMXC_SERVICE_FILE_NOT_REGULAR, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, 0, false, "is a symbolic link", nullptr},
        {"a directory", [] { std::filesystem::create_directory(vphone::host_path(kCfg)); },
         KMXC_SERVICE_FILE_NOT_REGULAR, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, 0, false, "is a directory", nullptr},
        {"read-only", [] { vphone::write_file(kCfg, kStored), vphone::fail_path(kCfg, Call::Access, EROFS); },
         KMXC_SERVICE_FILE_LOADED | KMXC_SERVICE_FILE_READ_ONLY, KMXC_SERVICE_KIT_FILE_ABSENT, 0, 0, EROFS, true,
         "cannot be written", nullptr},
        {"read-only directory",
         [] { vphone::write_file(kCfg, kStored), vphone::fail_path("/misc/sensor", Call::Access, EACCES); },
         KMXC_SERVICE_FILE_LOADED | KMXC_SERVICE_FILE_READ_ONLY, KMXC_SERVICE_KIT_FILE_ABSENT, 0, 0, EACCES, true,
         "cannot be written", nullptr},
        {"garbled", [] { vphone::write_file(kCfg, "16,16,16,0,0,0,1,2,3x"); }, KMXC_SERVICE_FILE_GARBLED,
         KMXC_SERVICE_KIT_FILE_ABSENT, 1, 0, 0, false, "is not a calibration record",
         "16,16,16,0,0,0,2147483647,2147483647,2147483647"},
        {"implausible gravity", [] { vphone::write_file(kCfg, "16,16,16,0,0,-2147483648,45,-31,24"); },
         KMXC_SERVICE_FILE_LOADED | KMXC_SERVICE_FILE_IMPLAUSIBLE, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 0, 0, true,
         "implausible values (gravity offset)", kStored},
        {"implausible rough offset", [] { vphone::write_file(kCfg, "32,16,16,0,0,0,45,-31,24"); },
         KMXC_SERVICE_FILE_LOADED | KMXC_SERVICE_FILE_IMPLAUSIBLE, KMXC_SERVICE_KIT_FILE_ABSENT, 1, 0, 0, false,
         "implausible values (rough offset, magnetic offset)", "16,16,16,0,0,0,2147483647,2147483647,2147483647"},
        // (The stop tries again, and succeeds.)
        {"start's save fails", [] { vphone::fail_call(Call::Rename, 1, ENOSPC); }, KMXC_SERVICE_FILE_ABSENT,
         KMXC_SERVICE_KIT_FILE_ABSENT, 1, 1, ENOSPC, false, "failed at rename",
         "16,16,16,0,0,0,2147483647,2147483647,2147483647"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        for (const char *p : {kCfg, kKitCfg}) std::filesystem::remove_all(vphone::host_path(p));
        std::filesystem::remove_all(outside);
        c.setup();
        const std::string before = text_of(kCfg);
        vphone::StderrCapture err;
        const Trace r = run(scenario("still"), 10, 0.5);
        const std::string said = err.text();
        ASSERT_EQ(r.start_rc, KMXC_SERVICE_OK);
        EXPECT_EQ(r.start.file, c.file);
        EXPECT_EQ(r.start.kit_file, c.kit_file);
        EXPECT_EQ(r.start.save_attempts, c.attempts);
        EXPECT_EQ(r.start.save_failures, c.failures);
        EXPECT_EQ(r.start.file_error, c.error);
        EXPECT_EQ(r.start.offset_loaded, c.loaded ? 1 : 0);
        EXPECT_EQ(r.start.file_repaired, (c.file & KMXC_SERVICE_FILE_GARBLED) ? 1 : 0);
        if (*c.said == '\0') {
            EXPECT_EQ(said, "");
        } else {
            EXPECT_NE(said.find(c.said), std::string::npos) << said;
        }
        EXPECT_EQ(text_of(kCfg), c.cfg_after != nullptr ? c.cfg_after : before);
        EXPECT_FALSE(std::filesystem::exists(outside)) << "written through a link";
        EXPECT_FALSE(vphone::exists(kBackup));
    }
    std::filesystem::remove_all(outside);
}

// Another service saving at the very moment start saves.
TEST_F(Kit, StartFindingTheLockTakenSaysSoAndSavesLater) {
    OtherProcessHoldingTheLock other;
    ASSERT_TRUE(other.held());
    KmxcServiceStart start{};
    ASSERT_EQ(kmxc_service_start(10, &start), KMXC_SERVICE_OK);
    EXPECT_EQ(start.file, KMXC_SERVICE_FILE_ABSENT | KMXC_SERVICE_FILE_LOCKED);
    EXPECT_EQ(start.save_attempts, 1);
    EXPECT_EQ(start.save_failures, 1);
    EXPECT_EQ(start.file_error, EWOULDBLOCK);
    EXPECT_FALSE(vphone::exists(kCfg));
    EXPECT_EQ(kmxc_service_stop(), KMXC_SERVICE_STOP_NOT_SAVED);  // still held
    other.release();
    ASSERT_EQ(kmxc_service_start(10, &start), KMXC_SERVICE_OK);
    EXPECT_EQ(start.file, KMXC_SERVICE_FILE_ABSENT);
    EXPECT_EQ(kmxc_service_stop(), KMXC_SERVICE_OK);
    EXPECT_TRUE(vphone::exists(kCfg));
}

// A damaged or hostile file is never trusted: loads only with their rough offset, never
// a gravity offset past the bound (it would tilt every attitude), and what start reset
// is what every later save writes.
TEST_F(Kit, ImplausibleValuesAreNeverAppliedNorWrittenBack) {
    vphone::write_file(kCfg, "16,16,16,0,0,-2147483648,45,-31,24");
    const Trace r = run(scenario("default"), 10);
    ASSERT_EQ(r.start_rc, 0);
    EXPECT_TRUE(r.start.file & KMXC_SERVICE_FILE_IMPLAUSIBLE);
    KmxAxesData gravity_offset;
    KmxAxesLibGetGsOffset(&gravity_offset);
    EXPECT_EQ(gravity_offset.z, 0);
    // Trusted azimuths are right: the gravity the attitude uses is the phone's.
    int wrong = 0, trusted = 0;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if (e.accuracy < KMXC_SERVICE_MEDIUM || !(e.flags & KMXC_SERVICE_ORIENTATION_VALID)) continue;
        ++trusted;
        const double truth = true_angles(r.truths[i].attitude).double_azimuth;
        if (std::fabs(heading_difference(e.orientation_deg[0], truth)) > 15.0) ++wrong;
    }
    EXPECT_GT(trusted, 100);
    EXPECT_LE(wrong * 20, trusted) << wrong << " of " << trusted << " trusted azimuths more than 15 degrees off";
    const std::string after = text_of(kCfg);
    EXPECT_EQ(after.substr(after_rough(after), 6), "0,0,0,") << after;
}

// ---- Saves ----------------------------------------------------------------------------------

// The file's content before every cycle of a run (and after its end).
struct FileHistory {
    std::vector<std::string> cfg;  // [i]: before cycle i; back(): after stop
};

// What is saved: the record of agreeing 3-D fits, and never more often than the spacing
// allows; at stop the last trusted offset.
TEST_F(Kit, SavesKeepAgreeingFitsSpacedForTheFlash) {
    for (const char *name : {"default", "magnet", "two-planes"})
        for (int rate : {10, 20}) {
            SCOPED_TRACE(std::string(name) + " at " + std::to_string(rate) + " Hz");
            vphone::remove_file(kCfg);
            std::vector<std::string> seen;
            const Trace r = run(scenario(name), rate, 1e9, [&](double, Truth &) { seen.push_back(text_of(kCfg)); });
            ASSERT_EQ(r.start_rc, 0);
            std::set<std::string> fitted;  // rough and offset of every 3-D fit
            double last_offset_save = -1e9;
            for (size_t i = 0; i < r.events.size(); ++i) {
                const KmxcServiceEvent &e = r.events[i];
                const double t = static_cast<double>(e.timestamp_ns) / 1e9;
                const std::string pair = std::to_string(e.rough[0]) + "," + std::to_string(e.rough[1]) + "," +
                                         std::to_string(e.rough[2]) + "," + std::to_string(e.offset[0]) + "," +
                                         std::to_string(e.offset[1]) + "," + std::to_string(e.offset[2]);
                if (e.flags & KMXC_SERVICE_FIT_3D) fitted.insert(pair);
                if (!(e.flags & KMXC_SERVICE_SAVED) || (e.flags & KMXC_SERVICE_ROUGH_CHANGED)) continue;
                EXPECT_GE(t - last_offset_save, KMXC_SERVICE_SAVE_MIN_INTERVAL_S - 1e-6) << "saved again at " << t;
                last_offset_save = t;
                EXPECT_FALSE(fitted.empty()) << "saved before any 3-D fit";
            }
            const std::string final_cfg = text_of(kCfg);
            EXPECT_TRUE(fitted.count(rough_and_magnetic(final_cfg))) << final_cfg << " is no fit's offset";
            EXPECT_EQ(kit_belongs_to(text_of(kKitCfg)), rough_and_magnetic(final_cfg));
            uint32_t done = 0, failed = 1;
            EXPECT_EQ(kmxc_service_saves(&done, &failed), KMXC_SERVICE_OK);
            EXPECT_EQ(failed, 0u);
            int changes = 0;
            for (size_t i = 1; i < seen.size(); ++i) changes += seen[i] != seen[i - 1];
            EXPECT_GE(done, static_cast<uint32_t>(changes));
        }
}

// A phone handled for ten minutes, calibrating again and again: the saves stay within
// the rate whatever the calibration does (every agreeing fit that moved a count was
// saved before, about every 10 s).
TEST_F(Kit, LongHandlingSavesAtMostOnceAMinute) {
    Scenario s(scenario("default"));
    rig_.sense(s.sample(0.0));
    ASSERT_EQ(kmxc_service_start(10, nullptr), KMXC_SERVICE_OK);
    const int minutes = 10;
    int saves = 0, fits = 0;
    for (uint64_t us = 0; us < uint64_t{minutes} * 60000000; us += 100000) {
        if (vphone::now_us() < us) usleep(static_cast<useconds_t>(us - vphone::now_us()));
        rig_.sense(s.sample(std::fmod(static_cast<double>(us) / 1e6, s.duration_s())));
        vphone::clear_transcript();
        KmxcServiceEvent e;
        ASSERT_EQ(kmxc_service_cycle(us, &e), KMXC_SERVICE_OK);
        saves += (e.flags & KMXC_SERVICE_SAVED) != 0;
        fits += (e.flags & KMXC_SERVICE_FIT_3D) != 0;
    }
    kmxc_service_stop();
    EXPECT_GE(fits, 20) << "the handling calibrates again and again";
    EXPECT_GE(saves, 1);
    EXPECT_LE(saves, 1 + minutes * 60 / KMXC_SERVICE_SAVE_MIN_INTERVAL_S);
}

// The rough offset changes what the record means: saved in the same cycle, with the
// offset in use (the last agreeing fit's, which the spacing may not have saved yet)
// carried over to it as the library carries offsets.
TEST_F(Kit, ARoughOffsetChangeIsSavedAtOnceWithItsOffsetCarriedOver) {
    vphone::write_file(kCfg, kStored);
    std::vector<std::string> seen;
    const Trace r = run(scenario("magnet"), 10, 1e9, [&](double, Truth &) { seen.push_back(text_of(kCfg)); });
    KmxAxesData in_use{45, -31, 24};
    uint8_t old_rough[3] = {16, 16, 16};
    int changes = 0;
    for (size_t i = 0; i < r.events.size(); ++i) {
        const KmxcServiceEvent &e = r.events[i];
        if ((e.flags & KMXC_SERVICE_FIT_3D) && e.accuracy >= KMXC_SERVICE_MEDIUM)
            in_use = KmxAxesData{e.offset[0], e.offset[1], e.offset[2]};
        if (!(e.flags & KMXC_SERVICE_ROUGH_CHANGED)) continue;
        ++changes;
        EXPECT_TRUE(e.flags & KMXC_SERVICE_SAVED);
        const std::string &after = seen.at(i + 2);  // seen[0] is before the start, seen[i + 1] before cycle i
        uint8_t new_rough[3];
        KmxAxesData carried, expected;
        ASSERT_EQ(std::sscanf(after.c_str(), "%hhu,%hhu,%hhu,%*d,%*d,%*d,%d,%d,%d", &new_rough[0], &new_rough[1],
                              &new_rough[2], &carried.x, &carried.y, &carried.z),
                  6)
            << after;
        EXPECT_TRUE(old_rough[0] != new_rough[0] || old_rough[1] != new_rough[1] || old_rough[2] != new_rough[2]);
        KmxAxesLibRecalcMsOffset(&in_use, &expected, old_rough, new_rough);
        EXPECT_EQ(carried.x, expected.x);
        EXPECT_EQ(carried.y, expected.y);
        EXPECT_EQ(carried.z, expected.z);
    }
    EXPECT_EQ(changes, 1);
}

// The runs of a rough-offset change: the file before the change's cycle, after it, and
// the file calls its save made (indices into the run's file-call log, from 1).
struct RoughChange {
    std::string before, after, kit_before, kit_after;
    long first_call, last_call;
    double time_s;
    std::vector<vphone::FileCall> log;
};

// Whatever call of a rough-offset change's save fails, and wherever the power fails in
// it, the file holds the old record or the new one: never the new rough offset with the
// old magnetic offset (which starts the next run tens of uT off), never empty or cut.
TEST_F(Kit, ARoughOffsetChangeCutAnywhereLeavesTheOldRecordOrTheNew) {
    // The fault-free run, up to just after the change.
    vphone::write_file(kCfg, kStored);
    RoughChange rc{};
    long calls_before = 0;
    std::string cfg_before, kit_before;
    Trace clean = run(scenario("magnet"), 10, 1e9, [&](double, Truth &) {
        calls_before = vphone::file_calls();
        cfg_before = text_of(kCfg), kit_before = text_of(kKitCfg);
    });
    for (const auto &e : clean.events) {
        if (!(e.flags & KMXC_SERVICE_ROUGH_CHANGED)) continue;
        rc.time_s = static_cast<double>(e.timestamp_ns) / 1e9;
        break;
    }
    ASSERT_GT(rc.time_s, 0);
    // Again, stopping at the change, for its calls and files.
    vphone::reset();
    rig_.attach_chips(1, kRigCalibration);
    vphone::write_file(kCfg, kStored);
    vphone::remove_file(kKitCfg);
    run(scenario("magnet"), 10, rc.time_s, [&](double t, Truth &) {
        if (t < rc.time_s - 1e-6) {
            rc.first_call = vphone::file_calls() + 1;
            rc.before = text_of(kCfg), rc.kit_before = text_of(kKitCfg);
        }
    });
    rc.log = vphone::file_call_log();
    rc.after = text_of(kCfg), rc.kit_after = text_of(kKitCfg);
    rc.last_call = vphone::file_calls();
    ASSERT_NE(rc.before, rc.after);
    ASSERT_GT(rc.last_call, rc.first_call + 10);
    (void)clean, (void)calls_before;

    auto check = [&](const std::string &what) {
        SCOPED_TRACE(what);
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        const std::string cfg = text_of(kCfg), kit = text_of(kKitCfg);
        EXPECT_TRUE(cfg == rc.before || cfg == rc.after) << cfg;
        if (cfg == rc.before) {
            EXPECT_TRUE(kit == rc.kit_before || kit_belongs_to(kit) == rough_and_magnetic(rc.after)) << kit;
        } else {
            EXPECT_TRUE(kit == rc.kit_after || kit == rc.kit_before) << kit;
        }
        // The next start loads it as it is, the kit file only when it belongs.
        const Trace next = run(scenario("still"), 10, 0.05);
        EXPECT_EQ(next.start.file, KMXC_SERVICE_FILE_LOADED);
        const uint8_t kit_code = kit == "<none>"                                  ? KMXC_SERVICE_KIT_FILE_ABSENT
                                 : kit_belongs_to(kit) == rough_and_magnetic(cfg) ? KMXC_SERVICE_KIT_FILE_LOADED
                                                                                  : KMXC_SERVICE_KIT_FILE_MISMATCH;
        EXPECT_EQ(next.start.kit_file, kit_code);
    };
    auto from_start = [&] {
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        vphone::write_file(kCfg, kStored);
        vphone::remove_file(kKitCfg);
    };
    int failed_runs = 0;
    for (long at = rc.first_call; at <= rc.last_call; ++at) {
        const vphone::FileCall &call = rc.log[static_cast<size_t>(at - 1)];
        int nth = 0;
        for (long i = 0; i < at; ++i) nth += rc.log[static_cast<size_t>(i)].call == call.call;
        const std::string where =
            std::string(vphone::call_name(call.call)) + " " + call.path + " (file call " + std::to_string(at) + ")";
        // It fails (and the stop tries again).
        from_start();
        vphone::fail_call(call.call, nth, EIO);
        bool flagged = false;
        vphone::StderrCapture err;
        const Trace r = run(scenario("magnet"), 10, rc.time_s);
        for (const auto &e : r.events) flagged |= (e.flags & KMXC_SERVICE_SAVE_FAILED) != 0;
        failed_runs += flagged;
        err.text();
        check("failing " + where);
        // The power fails there, with or without the entry changes committed.
        for (const vphone::CutKeeps keeps : {vphone::CutKeeps::kSynced, vphone::CutKeeps::kEntries}) {
            from_start();
            vphone::cut_power_at_file_call(at, false, keeps);
            vphone::StderrCapture quiet;
            run(scenario("magnet"), 10, rc.time_s);
            quiet.text();
            check(std::string("power cut at ") + where + (keeps == vphone::CutKeeps::kEntries ? ", entries kept" : ""));
        }
    }
    EXPECT_GT(failed_runs, 5) << "the failures did not reach the save";
}

// Once a save returned, a power cut keeps it; the library's own saves, never synced, do not
// survive one.
TEST_F(Kit, ASavedRecordSurvivesAPowerCut) {
    for (const vphone::CutKeeps keeps : {vphone::CutKeeps::kSynced, vphone::CutKeeps::kEntries}) {
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        vphone::remove_file(kCfg);
        const Trace r = run(scenario("default"), 10, 20);  // the first fit's save
        ASSERT_GT(r.first_fit_s, 0);
        const std::string saved = text_of(kCfg), kit = text_of(kKitCfg);
        ASSERT_NE(saved.find(",2147483647"), 0u);
        vphone::power_cut(keeps);
        EXPECT_EQ(text_of(kCfg), saved);
        EXPECT_EQ(text_of(kKitCfg), kit);
    }
    // The library's save, for contrast: gone or empty after the cut.
    vphone::write_file(kCfg, kStored);
    const int32_t offset[3] = {1, 2, 3};
    ASSERT_EQ(msmachdep_SaveMsOffset(offset), 0);
    ASSERT_EQ(text_of(kCfg), "16,16,16,0,0,0,1,2,3");
    vphone::power_cut(vphone::CutKeeps::kEntries);
    EXPECT_EQ(text_of(kCfg), "") << "the library's rename reached the flash before its data";
}

// The stop saves what the last fit found when the spacing held it back; a stop that
// cannot says so, and the file keeps the record before it.
TEST_F(Kit, TheStopSavesTheLastTrustedOffsetOrSaysItCouldNot) {
    for (const bool refused : {false, true}) {
        SCOPED_TRACE(refused ? "the file system refuses" : "the stop saves");
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        vphone::write_file(kCfg, "16,16,16,0,0,0,1,2,3");
        ASSERT_EQ(kmxc_service_start(10, nullptr), KMXC_SERVICE_OK);
        Scenario s(scenario("default"));
        KmxcServiceEvent e{}, last_fit{};
        for (uint64_t us = 0; us < 25000000; us += 100000) {  // the fits of the figure-eight
            if (vphone::now_us() < us) usleep(static_cast<useconds_t>(us - vphone::now_us()));
            rig_.sense(s.sample(static_cast<double>(us) / 1e6));
            kmxc_service_cycle(us, &e);
            if ((e.flags & KMXC_SERVICE_FIT_3D) && e.accuracy >= KMXC_SERVICE_MEDIUM) last_fit = e;
        }
        const std::string saved = text_of(kCfg);
        const std::string newest = "16,16,16,0,0,0," + std::to_string(last_fit.offset[0]) + "," +
                                   std::to_string(last_fit.offset[1]) + "," + std::to_string(last_fit.offset[2]);
        ASSERT_NE(saved, newest) << "the spacing held nothing back";
        if (refused) vphone::fail_call(Call::Rename, 1, EROFS, vphone::kForever);
        vphone::StderrCapture err;
        EXPECT_EQ(kmxc_service_stop(), refused ? KMXC_SERVICE_STOP_NOT_SAVED : KMXC_SERVICE_OK);
        EXPECT_EQ(err.text().find("failed at rename") != std::string::npos, refused);
        uint32_t done = 0, failed = 0;
        kmxc_service_saves(&done, &failed);
        EXPECT_EQ(done, e.saves + (refused ? 0 : 1));
        EXPECT_EQ(failed, refused ? 1u : 0u);
        EXPECT_EQ(text_of(kCfg), refused ? saved : newest);
    }
}

TEST_F(Kit, AFailedSaveIsReportedAndLeavesThePreviousFile) {
    const struct {
        const char *name;
        Call call;
    } cases[] = {{"rename refused", Call::Rename}, {"fsync fails", Call::Fsync}, {"fchmod fails", Call::Fchmod}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kCfg, "16,16,16,0,0,0,1,2,3");
        vphone::fail_call(c.call, 1, EIO, vphone::kForever);
        vphone::StderrCapture err;
        const Trace fit = run(scenario("default"), 20, 16);
        EXPECT_NE(err.text().find("kmxc_service: saving " + std::string(kCfg) + " failed at"), std::string::npos);
        vphone::reset();  // faults off; the chips go too
        rig_.attach_chips(1, kRigCalibration);
        ASSERT_GT(fit.first_fit_s, 0);
        bool failed = false;
        for (const auto &e : fit.events) failed |= (e.flags & KMXC_SERVICE_SAVE_FAILED) != 0;
        EXPECT_TRUE(failed);
        EXPECT_GE(fit.events.back().save_failures, 1u);
        EXPECT_EQ(fit.events.back().saves, 0u);
        EXPECT_EQ(text_of(kCfg), "16,16,16,0,0,0,1,2,3");
    }
}

// ---- Hostile files --------------------------------------------------------------------------

// The library's fixed backup name is not the kit's: a link planted there leads nowhere,
// a directory there blocks nothing.
TEST_F(Kit, TheLibrarysBackupNameIsNeverTouched) {
    const std::string outside = dir_ + "-outside";
    for (const bool link : {true, false}) {
        SCOPED_TRACE(link ? "a link at the backup name" : "a directory at the backup name");
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        vphone::remove_file(kCfg);
        std::filesystem::remove_all(vphone::host_path(kBackup));
        { std::ofstream(outside) << "someone's file"; }
        ::chmod(outside.c_str(), 0600);
        if (link)
            std::filesystem::create_symlink(outside, vphone::host_path(kBackup));
        else
            std::filesystem::create_directory(vphone::host_path(kBackup));
        const Trace r = run(scenario("magnet"), 10);
        EXPECT_GE(r.events.back().saves, 2u);
        EXPECT_EQ(r.events.back().save_failures, 0u);
        std::ifstream in(outside);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "someone's file");
        struct stat st {};
        ASSERT_EQ(::stat(outside.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_EQ(std::filesystem::is_symlink(vphone::host_path(kBackup)), link);
    }
    std::filesystem::remove_all(outside);
}

// A FIFO where the file should be: start does not wait for a writer that never comes,
// and no save ever writes into it.
TEST_F(Kit, AFifoAtTheFilesPlaceNeitherBlocksNorIsWritten) {
    for (const char *path : {kCfg, kKitCfg}) {
        SCOPED_TRACE(path);
        vphone::reset();
        rig_.attach_chips(1, kRigCalibration);
        vphone::remove_file(kCfg);
        ASSERT_EQ(::mkfifo(vphone::host_path(path).c_str(), 0600), 0);
        vphone::StderrCapture err;
        const Trace r = run(scenario("default"), 10, 20);
        EXPECT_NE(err.text().find(std::string(path) + " is a FIFO"), std::string::npos);
        ASSERT_EQ(r.start_rc, 0);
        EXPECT_GE(r.events.back().save_failures, 1u);
        struct stat st {};
        ASSERT_EQ(::lstat(vphone::host_path(path).c_str(), &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
        std::filesystem::remove(vphone::host_path(path));
    }
}

// Two services on one phone's files, in two processes: the second one's save, made while
// the first is half-way through its own, is refused by name, and the files end as one
// complete record with its kit file.
TEST_F(Kit, TwoServicesOnOneSandboxNeverMixTheirRecords) {
    int paused[2], resume[2];
    ASSERT_EQ(::pipe(paused), 0);
    ASSERT_EQ(::pipe(resume), 0);
    const pid_t child = vphone::fork_process();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The first service: its first save stops just before its rename until told.
        bool stopped = false;
        vphone::on_file_call([&](const vphone::FileCall &c) {
            if (stopped || c.call != Call::Rename) return;
            stopped = true;
            char byte = 'p';
            (void)!::write(paused[1], &byte, 1);
            (void)!::read(resume[0], &byte, 1);
        });
        ScenarioSettings other = scenario("default");
        other.hard_iron_uT = {30, 20, -10};
        const Trace r = run(other, 10, 30);
        ::_exit(r.start_rc == 0 && r.events.back().saves >= 1 ? 0 : 1);
    }
    char byte = 0;
    ASSERT_EQ(::read(paused[0], &byte, 1), 1);  // the first service holds the lock now
    KmxcServiceStart start{};
    ASSERT_EQ(kmxc_service_start(10, &start), KMXC_SERVICE_OK);
    EXPECT_TRUE(start.file & KMXC_SERVICE_FILE_LOCKED);
    Scenario s(scenario("default"));
    bool locked_in_cycle = false;
    for (uint64_t us = 0; us < 20000000 && !locked_in_cycle; us += 100000) {
        if (vphone::now_us() < us) usleep(static_cast<useconds_t>(us - vphone::now_us()));
        rig_.sense(s.sample(static_cast<double>(us) / 1e6));
        KmxcServiceEvent e;
        kmxc_service_cycle(us, &e);
        if (e.flags & KMXC_SERVICE_SAVE_LOCKED) {
            EXPECT_TRUE(e.flags & KMXC_SERVICE_SAVE_FAILED);
            locked_in_cycle = true;
        }
    }
    EXPECT_TRUE(locked_in_cycle) << "the fit's save did not meet the lock";
    (void)!::write(resume[1], "r", 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(kmxc_service_stop(), KMXC_SERVICE_OK);  // the lock is free: the stop saves
    const std::string cfg = text_of(kCfg);
    int32_t fields[9];
    EXPECT_EQ(std::sscanf(cfg.c_str(), "%d,%d,%d,%d,%d,%d,%d,%d,%d", &fields[0], &fields[1], &fields[2], &fields[3],
                          &fields[4], &fields[5], &fields[6], &fields[7], &fields[8]),
              9)
        << cfg;
    EXPECT_EQ(kit_belongs_to(text_of(kKitCfg)), rough_and_magnetic(cfg));
    for (int fd : {paused[0], paused[1], resume[0], resume[1]}) ::close(fd);
}

}  // namespace

namespace {

std::vector<long long> fields_of(const std::string &line) {
    std::vector<long long> v;
    size_t at = 0;
    while (at <= line.size()) {
        const size_t end = line.find(',', at);
        v.push_back(std::stoll(line.substr(at, end == std::string::npos ? std::string::npos : end - at)));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return v;
}

// The kit file's fields: 0 version, 1-3 rough, 4-6 magnetic, 7-12 soft iron (xx, xy, xz,
// yy, yz, zz), 13 strength, 14 dip, 15 reference, 16 coverage, 17 planar, 18 checksum.
constexpr int kKitW = 7, kKitStrength = 13, kKitDip = 14, kKitReference = 15, kKitCoverage = 16;
constexpr int kRowMajorOfKit[6] = {0, 1, 2, 4, 5, 8};

}  // namespace

// The kit file holds what the estimators know: the soft-iron correction in use, the
// strength and dip of the last trusted 3-D calibration, the store's coverage; a restart
// brings them back (the event reports the correction and coverage at once, and a record
// start saves again writes them unchanged), and a kit file of another record brings
// nothing back.
TEST_F(Kit, TheKitFileBringsBackTheCorrectionAndReferencesAfterARestart) {
    ScenarioSettings s = scenario("default");
    s.soft_iron = {1.10, 0.92, 1.0, 0.05, 0, 0};
    const Trace first = run(s, 20);
    ASSERT_EQ(first.start_rc, 0);
    const KmxcServiceEvent &last = first.events.back();
    ASSERT_EQ(last.estimator, KMXC_SERVICE_ESTIMATOR_ELLIPSOID) << "the correction this test saves";
    const std::string cfg = text_of(kCfg), kit = text_of(kKitCfg);
    const std::vector<long long> c = fields_of(cfg), k = fields_of(kit);
    ASSERT_EQ(c.size(), 9u) << cfg;
    ASSERT_EQ(k.size(), 19u) << kit;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(k[1 + i], c[i]) << "belongs to the record's rough offset";
        EXPECT_EQ(k[4 + i], c[6 + i]) << "and its magnetic offset";
    }
    for (int i = 0; i < 6; ++i) EXPECT_EQ(k[kKitW + i], last.soft_iron_q14[kRowMajorOfKit[i]]) << i;
    // The references: the field as the kit sees it at the end, and the scene's 60-degree
    // inclination (the batch's mean dip in steady gravity, to a degree).
    EXPECT_EQ(k[kKitReference], 1);
    EXPECT_NEAR(k[kKitDip], 100 * s.inclination_deg, 100);
    EXPECT_NEAR(k[kKitStrength] * 0.4, last.strength_centi_uT / 100.0, 0.03 * last.strength_centi_uT / 100.0);
    EXPECT_EQ(k[kKitCoverage], last.coverage_cells);
    EXPECT_GT(k[kKitCoverage], 0);

    // A restart: the correction is applied from the first cycle on, the coverage reported.
    const Trace second = run(scenario("still"), 10, 0.5);
    ASSERT_EQ(second.start_rc, 0);
    EXPECT_EQ(second.start.kit_file, KMXC_SERVICE_KIT_FILE_LOADED);
    ASSERT_FALSE(second.events.empty());
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(second.start.soft_iron_q14[i], last.soft_iron_q14[i]) << i;
        EXPECT_EQ(second.events.front().soft_iron_q14[i], last.soft_iron_q14[i]) << i;
    }
    EXPECT_EQ(second.events.front().coverage_cells, last.coverage_cells);

    // Start saves the record again (its gravity offset was implausible): the kit file it
    // writes holds the loaded correction, references and coverage unchanged.
    std::string damaged = cfg;
    const size_t g0 = damaged.find(',', damaged.find(',', damaged.find(',') + 1) + 1) + 1;
    damaged.replace(g0, damaged.find(',', g0) - g0, "-2147483648");
    vphone::write_file(kCfg, damaged);
    const Trace third = run(scenario("still"), 10, 0.5);
    ASSERT_EQ(third.start_rc, 0);
    EXPECT_TRUE(third.start.file & KMXC_SERVICE_FILE_IMPLAUSIBLE);
    EXPECT_EQ(third.start.save_attempts, 1);
    EXPECT_EQ(text_of(kKitCfg), kit);

    // The same kit file beside a record of another offset: nothing of it is used.
    std::vector<long long> moved = c;
    moved[6] += 3;
    std::string other;
    for (size_t i = 0; i < moved.size(); ++i) other += (i ? "," : "") + std::to_string(moved[i]);
    vphone::write_file(kCfg, other);
    vphone::write_file(kKitCfg, kit);
    const Trace fourth = run(scenario("still"), 10, 0.5);
    ASSERT_EQ(fourth.start_rc, 0);
    EXPECT_EQ(fourth.start.kit_file, KMXC_SERVICE_KIT_FILE_MISMATCH);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(fourth.start.soft_iron_q14[i], i % 4 == 0 ? 16384 : 0) << i;
    EXPECT_EQ(fourth.events.front().coverage_cells, 0);
}
