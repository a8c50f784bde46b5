// The kit's persistence on the virtual phone: what start finds and reports (whatever
// the phone holds in the files' places), what is saved and when (and where never: the
// library's backup name), and saves that fail.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "service/kit_file_test_support.h"

namespace {

using namespace kit_file_test;

// ---- Start ----------------------------------------------------------------------------------

// Every outcome start reports, by name, with what it did to the files: what is not a
// regular file is neither waited on (a FIFO's writer never comes) nor written through.
// Whatever it found, a gravity offset past the bound (it would tilt every attitude) is
// never applied.
TEST_F(Kit, EveryStartOutcomeIsReportedByNameAndActedOn) {
    const std::string outside = dir_ + "-outside";
    // A kit file of the stored record: a soft-iron correction (row-major below), references
    // and the store's coverage.
    const std::string kit_for_stored = "1,16,16,16,45,-31,24,17000,300,0,16000,-200,16384,120,6000,1,5,0,3852487996";
    const int16_t kit_w[9] = {17000, 300, 0, 300, 16000, -200, 0, -200, 16384};
    const auto link = [&](const char *phone) { std::filesystem::create_symlink(outside, vphone::host_path(phone)); };
    const auto kit_file = [&](const std::string &text) { vphone::write_file(kKitCfg, text); };
    const char *kReset = "16,16,16,0,0,0,2147483647,2147483647,2147483647";
    constexpr uint16_t kLoaded = KMXC_SERVICE_FILE_LOADED, kImplausible = KMXC_SERVICE_FILE_IMPLAUSIBLE,
                       kReadOnly = KMXC_SERVICE_FILE_READ_ONLY, kUnreadable = KMXC_SERVICE_FILE_UNREADABLE,
                       kNotRegular = KMXC_SERVICE_FILE_NOT_REGULAR;
    constexpr uint8_t kKitAbsent = KMXC_SERVICE_KIT_FILE_ABSENT, kKitLoaded = KMXC_SERVICE_KIT_FILE_LOADED;
    const struct {
        const char *name;
        const char *cfg;  // the calibration file's text before (null: none, or the setup's)
        std::function<void()> setup;
        uint16_t file;
        uint8_t kit_file, attempts, failures;
        int error;
        bool loaded;
        const char *said;       // on stderr ("" nothing)
        const char *cfg_after;  // the calibration file after the start; null: as before
    } cases[] = {
        {"absent", nullptr, nullptr, KMXC_SERVICE_FILE_ABSENT, kKitAbsent, 1, 0, 0, false, "", kReset},
        {"loaded with its kit file", kStored, [&] { kit_file(kit_for_stored); }, kLoaded, kKitLoaded, 0, 0, 0, true, "",
         nullptr},
        {"kit file of another offset", "16,16,16,0,0,0,45,-31,25", [&] { kit_file(kit_for_stored); }, kLoaded,
         KMXC_SERVICE_KIT_FILE_MISMATCH, 0, 0, 0, true, "", nullptr},
        {"kit file with a wrong checksum", kStored, [&] { kit_file(kit_for_stored + "1"); }, kLoaded,
         KMXC_SERVICE_KIT_FILE_GARBLED, 0, 0, 0, true, "", nullptr},
        // (Start saves the record again: the kit file is never written while so.)
        {"kit file a link", "16,16,16,0,0,-2147483648,45,-31,24", [&] { link(kKitCfg); }, kLoaded | kImplausible,
         KMXC_SERVICE_KIT_FILE_REFUSED, 1, 1, 0, true, "is a symbolic link", kStored},
        {"unreadable", kStored, [] { vphone::fail_path(kCfg, Call::Open, EACCES); }, kUnreadable, kKitAbsent, 1, 1,
         EACCES, false, "cannot be read", nullptr},
        // Opens, but cannot be read: still never replaced by a record made without it.
        {"unreadable content", kStored, [] { vphone::fail_path(kCfg, Call::Read, EIO); }, kUnreadable, kKitAbsent, 1, 1,
         EIO, false, "cannot be read", nullptr},
        {"a FIFO", nullptr, [] { ::mkfifo(vphone::host_path(kCfg).c_str(), 0600); }, kNotRegular, kKitAbsent, 1, 1, 0,
         false, "is a FIFO, not a regular file", nullptr},
        {"a link", nullptr, [&] { link(kCfg); }, kNotRegular, kKitAbsent, 1, 1, 0, false, "is a symbolic link",
         nullptr},
        {"read-only", kStored, [] { vphone::fail_path(kCfg, Call::Access, EROFS); }, kLoaded | kReadOnly, kKitAbsent, 0,
         0, EROFS, true, "cannot be written", nullptr},
        {"read-only directory", kStored, [] { vphone::fail_path("/misc/sensor", Call::Access, EACCES); },
         kLoaded | kReadOnly, kKitAbsent, 0, 0, EACCES, true, "cannot be written", nullptr},
        {"garbled", "16,16,16,0,0,0,1,2,3x", nullptr, KMXC_SERVICE_FILE_GARBLED, kKitAbsent, 1, 0, 0, false,
         "is not a calibration record", kReset},
        // (Start saves the record again: the kit file it writes holds what it loaded.)
        {"implausible gravity", "16,16,16,0,0,-2147483648,45,-31,24", [&] { kit_file(kit_for_stored); },
         kLoaded | kImplausible, kKitLoaded, 1, 0, 0, true, "implausible values (gravity offset)", kStored},
        {"implausible rough offset", "32,16,16,0,0,0,45,-31,24", nullptr, kLoaded | kImplausible, kKitAbsent, 1, 0, 0,
         false, "implausible values (rough offset, magnetic offset)", kReset},
        // (The stop tries again, and succeeds.)
        {"start's save fails", nullptr, [] { vphone::fail_call(Call::Rename, 1, ENOSPC); }, KMXC_SERVICE_FILE_ABSENT,
         kKitAbsent, 1, 1, ENOSPC, false, "failed at rename", kReset},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        power_on();
        for (const char *p : {kCfg, kKitCfg}) std::filesystem::remove_all(vphone::host_path(p));
        std::filesystem::remove_all(outside);
        if (c.cfg != nullptr) vphone::write_file(kCfg, c.cfg);
        if (c.setup) c.setup();
        const std::string before = text_of(kCfg), kit_before = text_of(kKitCfg);
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
        EXPECT_EQ(said.empty(), *c.said == '\0') << said;
        EXPECT_NE(said.find(c.said), std::string::npos) << said;
        EXPECT_EQ(text_of(kCfg), c.cfg_after != nullptr ? c.cfg_after : before);
        EXPECT_FALSE(std::filesystem::exists(outside)) << "written through a link";
        EXPECT_FALSE(vphone::exists(kBackup));
        // Only a kit file that is loaded brings its correction and coverage; else there are none.
        const bool kit = c.kit_file == KMXC_SERVICE_KIT_FILE_LOADED;
        for (int i = 0; i < 9; ++i) EXPECT_EQ(r.start.soft_iron_q14[i], kit ? kit_w[i] : i % 4 == 0 ? 16384 : 0) << i;
        EXPECT_EQ(r.events.front().coverage_cells, kit ? 5 : 0);
        if (kit) { EXPECT_EQ(text_of(kKitCfg), kit_before); }
        KmxAxesData gravity_offset;
        KmxAxesLibGetGsOffset(&gravity_offset);
        EXPECT_EQ(gravity_offset.z, 0);
    }
    std::filesystem::remove_all(outside);
}

// ---- Saves ----------------------------------------------------------------------------------

// What is saved: the record of agreeing 3-D fits, and never more often than the spacing
// allows; at stop the last trusted offset. The library's fixed backup name is not the
// kit's: a link planted there leads nowhere, a directory there blocks nothing.
TEST_F(Kit, SavesKeepAgreeingFitsSpacedForTheFlash) {
    const std::string outside = dir_ + "-outside";
    for (const char *name : {"default", "magnet", "two-planes"})
        for (int rate : {10, 20}) {
            const bool link = rate == 10;  // else a directory at the backup name
            SCOPED_TRACE(std::string(name) + " at " + std::to_string(rate) + " Hz");
            vphone::remove_file(kCfg);
            std::filesystem::remove_all(vphone::host_path(kBackup));
            { std::ofstream(outside) << "someone's file"; }
            ::chmod(outside.c_str(), 0600);
            if (link)
                std::filesystem::create_symlink(outside, vphone::host_path(kBackup));
            else
                std::filesystem::create_directory(vphone::host_path(kBackup));
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
            EXPECT_EQ(vphone::read_file(outside), "someone's file");
            EXPECT_EQ(std::filesystem::status(outside).permissions(), std::filesystem::perms{0600});
            EXPECT_EQ(std::filesystem::is_symlink(vphone::host_path(kBackup)), link);
        }
    std::filesystem::remove_all(outside);
}

// The stop saves what the last fit found when the spacing held it back; a stop that
// cannot says so, and the file keeps the record before it.
TEST_F(Kit, TheStopSavesTheLastTrustedOffsetOrSaysItCouldNot) {
    for (const bool refused : {false, true}) {
        SCOPED_TRACE(refused ? "the file system refuses" : "the stop saves");
        power_on();
        vphone::write_file(kCfg, "16,16,16,0,0,0,1,2,3");
        ASSERT_EQ(kmxc_service_start(10, nullptr), KMXC_SERVICE_OK);
        Scenario s(scenario("slow"));
        KmxcServiceEvent e{}, last_fit{};
        for (uint64_t us = 0; us < 60000000; us += 100000) {  // the fits of a minute's slow turning
            if (vphone::now_us() < us) usleep(static_cast<useconds_t>(us - vphone::now_us()));
            rig_.sense(s.sample(static_cast<double>(us) / 1e6));
            kmxc_service_cycle(us, &e);
            if (e.flags & KMXC_SERVICE_FIT_3D) last_fit = e;
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

}  // namespace
