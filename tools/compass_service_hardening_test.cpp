// End-to-end checks of the compass service demo against bad input and failures: damaged
// calibration files, bad options, sandboxes it did not make, failed saves and writes,
// hostile plot names and long replay gaps. Nothing is lost and every failure is said.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vphone/scene/record.h"
#include "tools/service_run_test_util.h"

namespace {

using namespace service_run;
using ::testing::HasSubstr;

// A still run on the sandbox d/phone, its raw record written to d/r.csv: its exit code.
int record_still(const std::string &d) {
    return run(d, {"--fresh", "--sandbox", d + "/phone", "--quiet", "--scenario", "still", "--record", d + "/r.csv"})
        .exit_code;
}

TEST(CompassService, AGarbledCalibrationFileIsResetAndSaidSo) {
    // Letters load as offsets 0,0,0 under the file's rules. The kit must not use them,
    // and must leave a file the next run loads.
    const std::string d = dir_for("garbled");
    fs::create_directories(d + "/phone/misc/sensor");
    std::ofstream(d + "/phone/.kmxc-sandbox");
    std::ofstream(d + "/phone/misc/sensor/kmxc_orvane.cfg") << "calibrated!";
    const std::vector<std::string> still = {"--sandbox", d + "/phone", "--quiet", "--scenario", "still"};
    const Result r = run(d, still);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("no stored magnetic offset; the calibration file was empty or garbled and was reset"));
    const Result again = run(d, still);
    EXPECT_EQ(again.exit_code, 0);
    EXPECT_EQ(again.err, "") << "the next run must load the file without a complaint";
    EXPECT_THAT(again.out, HasSubstr("from the file"));
}

TEST(CompassService, BadInputGetsOneLineAndANonZeroExit) {
    const std::string d = dir_for("bad"), phone = d + "/phone";
    std::ofstream(d + "/not-a-record.csv") << "hello\n";
    struct Case {
        const char *name;
        std::vector<std::string> args;
        const char *error_part;
    };
    std::vector<Case> cases = {
        {"unknown option", {"--frobnicate"}, "unknown option '--frobnicate'"},
        {"missing replay file", {"--replay", d + "/missing.csv"}, "cannot read replay file"},
        {"replay file is not a record", {"--replay", d + "/not-a-record.csv"}, "line 1: not a raw record"},
        {"replay file is a directory", {"--replay", d}, "it is a directory"},
        {"plot file cannot be written", {"--sandbox", phone, "--plot", d + "/no/such/dir/p.png"}, "cannot write '"},
        {"record file cannot be written", {"--sandbox", phone, "--record", d + "/no/dir/r.csv"}, "cannot write record"},
    };
    // A plot that cannot be written after the run is reported too.
    if (fs::exists("/dev/full"))
        cases.push_back({"plot fails at the end",
                         {"--sandbox", phone, "--quiet", "--scenario", "still", "--plot", "/dev/full"},
                         "plot: cannot write '/dev/full'"});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = run(d, c.args);
        EXPECT_FALSE(r.crashed);
        EXPECT_NE(r.exit_code, 0);
        EXPECT_THAT(r.err, ::testing::StartsWith("compass_service: "));
        EXPECT_THAT(r.err, HasSubstr(c.error_part));
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
}

// What the tool is pointed at but not given to change stays as it was: it empties only
// sandboxes it made, never runs text from file names, and reports what it cannot write.
TEST(CompassService, NeverEmptiesADirectoryItDidNotMake) {
    const std::string d = dir_for("foreign");
    ASSERT_EQ(record_still(d), 0);
    const struct {
        const char *name;
        std::vector<std::string> args;
    } cases[] = {
        {"--fresh", {"--fresh", "--scenario", "still"}},
        {"a replay", {"--replay", d + "/r.csv"}},
        {"a plain run", {"--scenario", "still"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string mine = d + "/mine-" + std::to_string(&c - cases);
        fs::create_directories(mine);
        std::ofstream(mine + "/thesis.txt") << "years of work\n";
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--sandbox", mine, "--quiet"});
        const Result r = run(d, args);
        EXPECT_NE(r.exit_code, 0);
        EXPECT_THAT(r.err, HasSubstr("holds files that are not a virtual phone's"));
        EXPECT_EQ(slurp(mine + "/thesis.txt"), "years of work\n");
        EXPECT_EQ(std::distance(fs::directory_iterator(mine), fs::directory_iterator()), 1);
    }
    // A folder that merely looks like a phone's (a root file system being put together)
    // is not a sandbox either.
    const std::string rootfs = d + "/rootfs";
    for (const char *sub : {"/etc", "/dev", "/sys", "/misc"}) fs::create_directories(rootfs + sub);
    std::ofstream(rootfs + "/etc/fstab") << "proc /proc proc defaults 0 0\n";
    EXPECT_NE(run(d, {"--fresh", "--sandbox", rootfs, "--quiet", "--scenario", "still"}).exit_code, 0);
    EXPECT_EQ(slurp(rootfs + "/etc/fstab"), "proc /proc proc defaults 0 0\n");
    EXPECT_FALSE(fs::exists(rootfs + "/.kmxc-sandbox"));
    // Its own sandbox it empties on request (a stray file goes, the marker stays), but
    // only once every output can be written.
    std::ofstream(d + "/phone/stray.txt") << "x";
    EXPECT_NE(run(d, {"--fresh", "--sandbox", d + "/phone", "--record", d + "/no/such/dir/r.csv"}).exit_code, 0);
    EXPECT_TRUE(fs::exists(d + "/phone/stray.txt"));
    ASSERT_EQ(record_still(d), 0);
    EXPECT_FALSE(fs::exists(d + "/phone/stray.txt"));
    EXPECT_TRUE(fs::exists(d + "/phone/.kmxc-sandbox"));
}

TEST(CompassService, FilesNamedInsideTheSandboxAreRefusedBeforeAnythingIsLost) {
    // --fresh and replays empty the sandbox: a record opened there would be written to a
    // file already deleted, a replay file there would be deleted after reading.
    const std::string d = dir_for("inside");
    ASSERT_EQ(record_still(d), 0);
    fs::copy_file(d + "/r.csv", d + "/phone/r.csv");
    const struct {
        const char *name;
        std::vector<std::string> args;
    } cases[] = {
        {"record", {"--fresh", "--scenario", "still", "--record", d + "/phone/misc/r2.csv"}},
        {"outputs", {"--fresh", "--scenario", "still", "--outputs", d + "/phone/o.csv"}},
        {"replay file", {"--replay", d + "/phone/r.csv"}},
        {"plot, named through ..", {"--scenario", "still", "--plot", d + "/phone/etc/../p.png"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--sandbox", d + "/phone", "--quiet"});
        const Result r = run(d, args);
        EXPECT_EQ(r.exit_code, 2);
        EXPECT_THAT(r.err, HasSubstr("is inside the sandbox"));
        EXPECT_EQ(slurp(d + "/phone/r.csv"), slurp(d + "/r.csv"));
    }
    EXPECT_FALSE(fs::exists(d + "/phone/misc/r2.csv"));
    EXPECT_FALSE(fs::exists(d + "/phone/o.csv"));
}

TEST(CompassService, AFailedSaveIsReportedAndTheExitStatusSaysSo) {
    const std::string d = dir_for("save-fails");
    ASSERT_EQ(run(d, {"--fresh", "--sandbox", d + "/phone", "--quiet"}).exit_code, 0);
    const std::string cfg = slurp(d + "/phone/misc/sensor/kmxc_orvane.cfg");
    ASSERT_FALSE(cfg.empty());
    // The magnet moves the rough offset and a new fit follows: saves the file system
    // refuses, every one.
    const Result r =
        run(d, {"--sandbox", d + "/phone", "--quiet", "--scenario", "magnet", "--fault", "rename:1:EROFS:all"});
    EXPECT_EQ(r.exit_code, 3) << r.err;
    EXPECT_THAT(r.err, HasSubstr("compass_service: saving the calibration file failed"));
    EXPECT_THAT(r.out, HasSubstr(" 0 done, "));
    EXPECT_EQ(slurp(d + "/phone/misc/sensor/kmxc_orvane.cfg"), cfg);
}

TEST(CompassService, NamesReachThePlotAsTextNeverAsCommands) {
    const std::string d = dir_for("inject");
    const std::string record = d + "/r\";system(\"touch INJECTED\");\"x.csv", plot = d + "/p'`touch INJECTED2`'.png";
    ASSERT_EQ(
        run(d, {"--fresh", "--sandbox", d + "/phone", "--quiet", "--scenario", "still", "--record", record}).exit_code,
        0);
    const Result r = run(d, {"--replay", record, "--sandbox", d + "/replay", "--quiet", "--plot", plot});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(slurp(plot).substr(0, 4), "\x89PNG") << "gnuplot drew no PNG";
    for (const auto &entry : fs::recursive_directory_iterator(d))
        EXPECT_EQ(entry.path().filename().string().rfind("INJECTED", 0), std::string::npos) << entry.path();
    EXPECT_FALSE(fs::exists("INJECTED") || fs::exists("INJECTED2"));
}

TEST(CompassService, ReplayWaitsOutGapsLongerThanThirtyTwoBitsOfMicroseconds) {
    const std::string d = dir_for("gap");
    ASSERT_EQ(record_still(d), 0);
    // Every row after the first second moves 4,400,000,000 us later: past 2^32.
    std::ifstream in(d + "/r.csv");
    vphone::scene::ParsedRecord p = vphone::scene::parse_record(in);
    ASSERT_TRUE(p.ok) << p.error;
    for (vphone::scene::RecordRow &row : p.record.rows)
        if (row.time_us > 1000000) row.time_us += 4400000000;
    std::ofstream out(d + "/gap.csv");
    vphone::scene::write_record_header(out, p.record.header);
    for (const auto &reading : p.record.rough_readings) vphone::scene::write_rough_reading(out, reading);
    for (const vphone::scene::RecordRow &row : p.record.rows) vphone::scene::write_record_row(out, row);
    out.close();
    const Result r =
        run(d, {"--replay", d + "/gap.csv", "--sandbox", d + "/replay", "--quiet", "--outputs", d + "/o.csv"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const auto rows = outputs(d + "/o.csv");
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(std::stoll(rows.back().at("time_us")), p.record.rows.back().time_us);
}

}  // namespace
