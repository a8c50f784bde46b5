// The kit's saves against power cuts at every file call: the old record or the new,
// never a mix, and a finished save survives.
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/platform.h"
#include "service/kit_file_test_support.h"

namespace {

using namespace kit_file_test;

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
