// The kit's persistence on the virtual phone: what is saved and when, stored offsets
// and their confirmation, failed saves and damaged files.
#include <gtest/gtest.h>

#include "service/kit_test_fixture.h"

namespace {

using namespace kit_test;

// ---- Persistence ----------------------------------------------------------------------

TEST_F(Kit, SavesOnlyAgreeingThreeDimensionalOffsetsThatDiffer) {
    for (const char *name : {"default", "magnet", "two-planes"})
        for (int rate : {10, 20, 50}) {
            SCOPED_TRACE(std::string(name) + " at " + std::to_string(rate) + " Hz");
            vphone::remove_file(kCfg);
            const Trace r = run(scenario(name), rate);
            const auto cfg = vphone::read_file(kCfg);
            ASSERT_TRUE(cfg);
            std::string saved;  // the file's magnetic offset as the kit saved it
            int saves = 1;      // the measured rough offset at start
            for (const auto &e : r.events) {
                if (e.flags & KMXC_SERVICE_ROUGH_CHANGED) ++saves;  // rough offset, carried offset
                if (!(e.flags & KMXC_SERVICE_SAVED) || (e.flags & KMXC_SERVICE_ROUGH_CHANGED)) continue;
                EXPECT_TRUE(e.flags & KMXC_SERVICE_FIT_3D) << "saved without a 3-D fit";
                const std::string now =
                    std::to_string(e.offset[0]) + "," + std::to_string(e.offset[1]) + "," + std::to_string(e.offset[2]);
                EXPECT_NE(now, saved) << "saved an unchanged offset at " << e.timestamp_ns;
                saved = now;
                ++saves;
            }
            EXPECT_LE(r.events.back().saves, static_cast<uint32_t>(saves + 1));
            if (!saved.empty()) { EXPECT_EQ(cfg->substr(cfg->size() - saved.size()), saved) << *cfg; }
        }
}

TEST_F(Kit, AStoredOffsetIsUsedButTrustedOnlyWhenTheFieldConfirmsIt) {
    // First run calibrates and saves; the true offset is then known.
    const Trace first = run(scenario("default"), 20);
    const auto good = vphone::read_file(kCfg);
    ASSERT_TRUE(good);
    // The offset the old loop saved after a weak field's planar batches: all zero.
    const std::string rough = good->substr(0, after_rough(*good));
    const struct {
        const char *name;
        std::string file;
        bool confirmed;
    } cases[] = {
        {"right offset", *good, true},
        {"zero offset from a weaker field", rough + "0,0,0,0,0,0", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kCfg, c.file);
        const Trace r = run(scenario("slow"), 20, 25);
        ASSERT_EQ(r.start_rc, 0);
        EXPECT_EQ(r.start.offset_loaded, 1);
        bool confirmed = false;
        for (const auto &e : r.events) {
            if (e.flags & KMXC_SERVICE_FIT_3D) break;  // the kit's store may fit the offset anew
            confirmed |= (e.flags & KMXC_SERVICE_CONFIRMED) != 0;
            // Unconfirmed, the stored offset is worth low accuracy (its field is the Earth's).
            EXPECT_EQ(e.accuracy, confirmed ? KMXC_SERVICE_MEDIUM : KMXC_SERVICE_LOW);
            EXPECT_EQ(e.estimator, KMXC_SERVICE_ESTIMATOR_STORED);
        }
        EXPECT_EQ(confirmed, c.confirmed);
        // A wrong stored offset is replaced by a fit and saved; a confirmed one is kept.
        if (c.confirmed) {
            EXPECT_EQ(r.first_fit_s, -1);
            EXPECT_EQ(*vphone::read_file(kCfg), c.file) << "nothing to save without a fit";
        } else {
            EXPECT_GT(r.first_fit_s, 0);
            EXPECT_LT(offset_error_uT(r.events.back(), r.true_offsets.back()), 1.5);
        }
    }
}

TEST_F(Kit, AFailedSaveIsReportedAndLeavesThePreviousFile) {
    vphone::write_file(kCfg, "16,16,16,0,0,0,1,2,3");
    const struct {
        const char *name;
        vphone::Call call;
    } cases[] = {{"rename refused", vphone::Call::Rename}, {"write fails", vphone::Call::Fprintf}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::fail_call(c.call, 1, EIO, vphone::kForever);
        const Trace fit = run(scenario("default"), 20, 16);
        vphone::reset();  // faults off; the chips go too
        rig_.attach_chips(1, kRigCalibration);
        ASSERT_GT(fit.first_fit_s, 0);
        bool failed = false;
        for (const auto &e : fit.events) failed |= (e.flags & KMXC_SERVICE_SAVE_FAILED) != 0;
        EXPECT_TRUE(failed);
        EXPECT_GE(fit.events.back().save_failures, 1u);
        EXPECT_EQ(fit.events.back().saves, 0u);
        EXPECT_EQ(*vphone::read_file(kCfg), "16,16,16,0,0,0,1,2,3");
    }
}

TEST_F(Kit, GarbledFilesAreResetAndOffsetsLoadOnlyWithTheirRoughOffset) {
    const struct {
        const char *name;
        const char *content;
        bool repaired, loaded;
    } cases[] = {
        {"empty", "", true, false},
        {"letters (load as zeros)", "abc", true, false},
        {"eight fields", "1,2,3,4,5,6,7,8", true, false},
        {"ten fields", "16,16,16,0,0,0,1,2,3,4", true, false},
        {"trailing junk", "16,16,16,0,0,0,1,2,3x", true, false},
        {"well formed", "16,16,16,0,0,0,1,2,3", false, true},
        // The magnetic offset belongs to the rough offset it was made with.
        {"rough offset out of range", "32,16,16,0,0,0,1,2,3", false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kCfg, c.content);
        const Trace r = run(scenario("still"), 10, 1);
        ASSERT_EQ(r.start_rc, 0);
        EXPECT_EQ(r.start.file_repaired, c.repaired ? 1 : 0);
        EXPECT_EQ(r.start.offset_loaded, c.loaded ? 1 : 0);
        EXPECT_EQ(r.start.rough_measured, c.loaded ? 0 : 1);
        const auto after = vphone::read_file(kCfg);
        ASSERT_TRUE(after);
        if (c.repaired) { EXPECT_EQ(after->substr(after_rough(*after)), kDefaultOffsets) << *after; }
    }
}

// A damaged file whose values would load as a valid rough and magnetic offset: with any
// one file call failing along the way, none of them is used, and the file ends reset
// (the defaults after the rough offset) or, untouched, with the failure counted.
TEST_F(Kit, ADamagedFileIsNeverTrustedWhicheverFileCallFails) {
    const std::string damaged = "16,16,16,0,0,0,1,2,3x";
    const vphone::Call calls[] = {vphone::Call::Fopen, vphone::Call::Fgets, vphone::Call::Fprintf, vphone::Call::Fclose,
                                  vphone::Call::Chown, vphone::Call::Chmod, vphone::Call::Rename};
    int started = 0, failures_counted = 0;  // runs with a failed write, reported
    for (const vphone::Call call : calls) {
        for (int nth = 1; nth <= 8; ++nth) {
            SCOPED_TRACE(std::string(vphone::call_name(call)) + " #" + std::to_string(nth));
            vphone::write_file(kCfg, damaged);
            vphone::fail_call(call, nth, EIO, 1);
            const Trace r = run(scenario("still"), 5, 1);
            vphone::reset();  // faults off; the chips go too
            rig_.attach_chips(1, kRigCalibration);
            if (r.start_rc != 0) continue;  // a start-up failure is reported as such
            ++started;
            EXPECT_EQ(r.start.offset_loaded, 0);
            EXPECT_EQ(r.start.rough_measured, 1);
            const auto after = vphone::read_file(kCfg);
            ASSERT_TRUE(after);
            const uint32_t failures = r.events.empty() ? 0 : r.events.back().save_failures;
            if (failures > 0) ++failures_counted;
            if (*after == damaged) {
                EXPECT_GE(failures, 1u) << "the damage stayed and nobody was told";
            } else {
                EXPECT_EQ(after->substr(after_rough(*after)), kDefaultOffsets) << *after;
            }
        }
    }
    EXPECT_GT(started, 40);
    EXPECT_GT(failures_counted, 0) << "no failing reset: the sweep misses it";
}

}  // namespace
