// The kit's files against what a phone may hold in their place (the library's backup
// name, a FIFO, a second service on the same files), the kit file's own contents across
// a restart, and its saves against power cuts at every file call: the old record or the
// new, never a mix, and a finished save survives.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "platform/platform.h"
#include "service/kit_file_test_support.h"

namespace {

using namespace kit_file_test;

// ---- Hostile files --------------------------------------------------------------------------

// The library's fixed backup name is not the kit's: a link planted there leads nowhere,
// a directory there blocks nothing.
TEST_F(Kit, TheLibrarysBackupNameIsNeverTouched) {
    const std::string outside = dir_ + "-outside";
    for (const bool link : {true, false}) {
        SCOPED_TRACE(link ? "a link at the backup name" : "a directory at the backup name");
        power_on();
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
        power_on();
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
    EXPECT_EQ(fields_of(cfg).size(), 9u) << cfg;
    EXPECT_EQ(kit_belongs_to(text_of(kKitCfg)), rough_and_magnetic(cfg));
    for (int fd : {paused[0], paused[1], resume[0], resume[1]}) ::close(fd);
}

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
    ASSERT_NE(last.soft_iron_q14[0], KMXC_SERVICE_SOFT_IRON_ONE) << "the correction this test saves";
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
    const auto with = [&](size_t i, long long value) {  // the record with one field changed
        std::string text;
        for (size_t j = 0; j < c.size(); ++j) text += (j ? "," : "") + std::to_string(j == i ? value : c[j]);
        return text;
    };
    vphone::write_file(kCfg, with(3, INT32_MIN));
    const Trace third = run(scenario("still"), 10, 0.5);
    ASSERT_EQ(third.start_rc, 0);
    EXPECT_TRUE(third.start.file & KMXC_SERVICE_FILE_IMPLAUSIBLE);
    EXPECT_EQ(third.start.save_attempts, 1);
    EXPECT_EQ(text_of(kKitCfg), kit);

    // The same kit file beside a record of another offset: nothing of it is used.
    vphone::write_file(kCfg, with(6, c[6] + 3));
    vphone::write_file(kKitCfg, kit);
    const Trace fourth = run(scenario("still"), 10, 0.5);
    ASSERT_EQ(fourth.start_rc, 0);
    EXPECT_EQ(fourth.start.kit_file, KMXC_SERVICE_KIT_FILE_MISMATCH);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(fourth.start.soft_iron_q14[i], i % 4 == 0 ? 16384 : 0) << i;
    EXPECT_EQ(fourth.events.front().coverage_cells, 0);
}

// ---- Power cuts ---------------------------------------------------------------------------

// Whatever call of a rough-offset change's save fails, and wherever the power fails in
// it, the file holds the old record or the new one: never the new rough offset with the
// old magnetic offset (which starts the next run tens of uT off), never empty or cut.
TEST_F(Kit, ARoughOffsetChangeCutAnywhereLeavesTheOldRecordOrTheNew) {
    // The fault-free run, up to just after the change.
    vphone::write_file(kCfg, kStored);
    double change_s = 0;
    for (const auto &e : run(scenario("magnet"), 10).events)
        if (change_s == 0 && (e.flags & KMXC_SERVICE_ROUGH_CHANGED))
            change_s = static_cast<double>(e.timestamp_ns) / 1e9;
    ASSERT_GT(change_s, 0);
    auto from_start = [&] {
        power_on();
        vphone::write_file(kCfg, kStored);
        vphone::remove_file(kKitCfg);
    };
    // Again, stopping at the change, for the files before and after it and the calls of
    // its save (indices into the run's file-call log, from 1).
    from_start();
    std::string before, kit_before;
    long first_call = 0;
    run(scenario("magnet"), 10, change_s, [&](double t, Truth &) {
        if (t >= change_s - 1e-6) return;
        first_call = vphone::file_calls() + 1;
        before = text_of(kCfg), kit_before = text_of(kKitCfg);
    });
    const std::vector<vphone::FileCall> log = vphone::file_call_log();
    const std::string after = text_of(kCfg), kit_after = text_of(kKitCfg);
    const long last_call = vphone::file_calls();
    ASSERT_NE(before, after);
    ASSERT_GT(last_call, first_call + 10);

    int failed_runs = 0;
    for (long at = first_call; at <= last_call; ++at) {
        const vphone::FileCall &call = log[static_cast<size_t>(at - 1)];
        const auto nth =
            std::count_if(log.begin(), log.begin() + at, [&](const auto &c) { return c.call == call.call; });
        // It fails (and the stop tries again), or the power fails there with or without the
        // entry changes committed.
        const char *const hows[] = {"failing", "power cut at", "power cut (entries kept) at"};
        for (int how = 0; how < 3; ++how) {
            SCOPED_TRACE(std::string(hows[how]) + " " + vphone::call_name(call.call) + " " + call.path +
                         " (file call " + std::to_string(at) + ")");
            from_start();
            if (how == 0) {
                vphone::fail_call(call.call, static_cast<int>(nth), EIO);
            } else {
                vphone::cut_power_at_file_call(at, false,
                                               how == 1 ? vphone::CutKeeps::kSynced : vphone::CutKeeps::kEntries);
            }
            vphone::StderrCapture err;
            const Trace r = run(scenario("magnet"), 10, change_s);
            err.text();
            if (how == 0)
                failed_runs += std::any_of(r.events.begin(), r.events.end(),
                                           [](const auto &e) { return (e.flags & KMXC_SERVICE_SAVE_FAILED) != 0; });
            power_on();
            const std::string cfg = text_of(kCfg), kit = text_of(kKitCfg);
            EXPECT_TRUE(cfg == before || cfg == after) << cfg;
            if (cfg == before) {
                EXPECT_TRUE(kit == kit_before || kit_belongs_to(kit) == rough_and_magnetic(after)) << kit;
            } else {
                EXPECT_TRUE(kit == kit_after || kit == kit_before) << kit;
            }
            // The next start loads it as it is, the kit file only when it belongs.
            const Trace next = run(scenario("still"), 10, 0.05);
            EXPECT_EQ(next.start.file, KMXC_SERVICE_FILE_LOADED);
            const uint8_t kit_code = kit == "<none>"                                  ? KMXC_SERVICE_KIT_FILE_ABSENT
                                     : kit_belongs_to(kit) == rough_and_magnetic(cfg) ? KMXC_SERVICE_KIT_FILE_LOADED
                                                                                      : KMXC_SERVICE_KIT_FILE_MISMATCH;
            EXPECT_EQ(next.start.kit_file, kit_code);
        }
    }
    EXPECT_GT(failed_runs, 5) << "the failures did not reach the save";
}

// Once a save returned, a power cut keeps it; the library's own saves, never synced, do not
// survive one.
TEST_F(Kit, ASavedRecordSurvivesAPowerCut) {
    for (const vphone::CutKeeps keeps : {vphone::CutKeeps::kSynced, vphone::CutKeeps::kEntries}) {
        power_on();
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

}  // namespace
