// The kit's saves against power cuts at every file call: the old record or the new,
// never a mix, and a finished save survives.
#include <gtest/gtest.h>

#include "platform/platform.h"
#include "service/kit_file_test_support.h"

namespace {

using namespace kit_file_test;

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
    for (const auto &e : run(scenario("magnet"), 10).events) {
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

}  // namespace
