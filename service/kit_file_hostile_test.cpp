// The kit's files against a second service on the same files, the kit file's own
// contents across a restart, and the kit's saves against power cuts: a finished save
// survives one, and a rough-offset change's save cut at any file call leaves the old
// record or the new, never a mix.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "service/kit_file_test_support.h"

namespace {

using namespace kit_file_test;

// ---- A second service, a restart ------------------------------------------------------------

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
        const Trace r = run({.hard_iron_uT = {30, 20, -10}}, 10, 30);  // another phone's offset
        ::_exit(r.start_rc == 0 && r.events.back().saves >= 1 ? 0 : 1);
    }
    // Only the child writes `paused`: a child that ends without pausing gives end of file
    // here, not a wait for ever.
    ::close(paused[1]);
    ::close(resume[0]);
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
    for (int fd : {paused[0], resume[1]}) ::close(fd);
}

// The kit file holds what the estimators know: the soft-iron correction in use, the
// strength and dip of the last trusted 3-D calibration, the store's coverage. Its saves
// and the record's, once returned, survive a power cut; a restart brings them back (the
// event reports the correction and coverage at once). (A kit file of another record
// brings nothing back, and a start that saves the record again writes the loaded one
// unchanged: the start outcomes' test.)
TEST_F(Kit, TheKitFileBringsBackTheCorrectionAndReferencesAfterARestart) {
    const ScenarioSettings s{.soft_iron = {1.10, 0.92, 1.0, 0.05, 0, 0}};
    const Trace first = run(s, 20);
    ASSERT_EQ(first.start_rc, 0);
    const KmxcServiceEvent &last = first.events.back();
    ASSERT_NE(last.soft_iron_q14[0], KMXC_SERVICE_SOFT_IRON_ONE) << "the correction this test saves";
    const std::string cfg = text_of(kCfg), kit = text_of(kKitCfg);
    vphone::power_cut(vphone::CutKeeps::kSynced);
    EXPECT_EQ(text_of(kCfg), cfg);
    EXPECT_EQ(text_of(kKitCfg), kit);
    const std::vector<long long> c = fields_of(cfg), k = fields_of(kit);
    ASSERT_EQ(c.size(), 9u) << cfg;
    ASSERT_EQ(k.size(), 19u) << kit;
    EXPECT_EQ(kit_belongs_to(kit), rough_and_magnetic(cfg));
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
    EXPECT_THAT(second.start.soft_iron_q14, ::testing::ElementsAreArray(last.soft_iron_q14));
    EXPECT_THAT(second.events.front().soft_iron_q14, ::testing::ElementsAreArray(last.soft_iron_q14));
    EXPECT_EQ(second.events.front().coverage_cells, last.coverage_cells);
}

// ---- Power cuts ---------------------------------------------------------------------------

// The rough offset changes what the record means: saved in the same cycle, with the
// offset in use (the last agreeing fit's, which the spacing may not have saved yet)
// carried over to it as the library carries offsets. Whatever call of that save fails,
// and wherever the power fails in it, the file holds the old record or the new one:
// never the new rough offset with the old magnetic offset (which starts the next run
// tens of uT off), never empty or cut.
TEST_F(Kit, ARoughOffsetChangeCutAnywhereLeavesTheOldRecordOrTheNew) {
    // The fault-free run: the change, saved at once with the offset in use carried over.
    vphone::write_file(kCfg, kStored);
    std::vector<std::string> seen;
    const Trace clean = run(scenario("magnet"), 10, 1e9, [&](double, Truth &) { seen.push_back(text_of(kCfg)); });
    KmxAxesData in_use{45, -31, 24};
    const uint8_t old_rough[3] = {16, 16, 16};
    double change_s = 0;
    int changes = 0;
    for (size_t i = 0; i < clean.events.size(); ++i) {
        const KmxcServiceEvent &e = clean.events[i];
        if ((e.flags & KMXC_SERVICE_FIT_3D) && e.accuracy >= KMXC_SERVICE_MEDIUM)
            in_use = KmxAxesData{e.offset[0], e.offset[1], e.offset[2]};
        if (!(e.flags & KMXC_SERVICE_ROUGH_CHANGED)) continue;
        ++changes;
        change_s = static_cast<double>(e.timestamp_ns) / 1e9;
        EXPECT_TRUE(e.flags & KMXC_SERVICE_SAVED);
        const std::vector<long long> saved = fields_of(seen.at(i + 2));  // seen[i + 1] is before cycle i
        ASSERT_EQ(saved.size(), 9u);
        const uint8_t new_rough[3] = {uint8_t(saved[0]), uint8_t(saved[1]), uint8_t(saved[2])};
        EXPECT_FALSE(std::equal(old_rough, old_rough + 3, new_rough));
        KmxAxesData expected;
        KmxAxesLibRecalcMsOffset(&in_use, &expected, old_rough, new_rough);
        EXPECT_EQ(std::vector<long long>(saved.begin() + 6, saved.end()),
                  (std::vector<long long>{expected.x, expected.y, expected.z}));
    }
    ASSERT_EQ(changes, 1);
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

}  // namespace
