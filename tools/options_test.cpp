// The demo's command line: its own options, and the world's passed to the scene.
#include "tools/options.h"

#include <gtest/gtest.h>

namespace compass {
namespace {

// The one-line error must contain error_part, naming the problem.
const struct {
    const char *name;
    std::vector<std::string> args;
    const char *error_part;
} kBad[] = {
    {"unknown option", {"--colour", "red"}, "unknown option '--colour' (try --help)"},
    {"a world option's problem", {"--field", "99"}, "--field: 99 is outside 25..65"},
    {"flag with a value", {"--quiet=yes"}, "--quiet takes no value"},
    {"empty file name", {"--replay="}, "--replay: empty file name"},
    {"empty fault plan", {"--fault", ""}, "--fault: empty fault plan"},
    {"rate above what the kit serves", {"--rate", "101"}, "--rate: 101 is outside 1..100"},
    {"record and replay together", {"--record", "a.csv", "--replay", "b.csv"}, "cannot be combined"},
    {"replay with a world option", {"--replay", "r.csv", "--field", "30"}, "--field and --replay cannot be combined"},
    {"world option before the replay", {"--seed", "3", "--replay", "r.csv"}, "--seed and --replay"},
    {"replay with a rate", {"--replay", "r.csv", "--rate", "20"}, "--rate and --replay"},
    {"replay with --fresh", {"--fresh", "--replay", "r.csv"}, "--fresh and --replay"},
    {"both replays", {"--replay", "r.csv", "--replay-field", "f.csv"}, "--replay and --replay-field"},
    {"a field log with a world option", {"--replay-field", "f.csv", "--field", "30"}, "--field and --replay-field"},
    {"a field log with a scenario", {"--scenario", "slow", "--replay-field", "f.csv"}, "--scenario and --replay-field"},
    {"a field log with --fresh", {"--replay-field", "f.csv", "--fresh"}, "its sandbox is emptied first"},
    {"a field log logged again", {"--replay-field", "f.csv", "--record-field", "g.csv"}, "only a scenario's physics"},
    {"a record logged as a field log",
     {"--replay", "r.csv", "--record-field", "g.csv"},
     "--record-field and --replay "},
};

TEST(Options, BadInputGivesOneLineNamingTheProblem) {
    for (const auto &c : kBad) {
        const ParsedOptions p = parse_options(c.args);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
    }
}

TEST(Options, ToolAndWorldValuesReachTheirSettings) {
    const ParsedOptions p = parse_options(
        {"--scenario", "two-planes",       "--rate=100", "--fresh", "--quiet", "--sandbox",      "s", "--record",
         "r.csv",      "--outputs",        "o.csv",      "--plot",  "p.png",   "--summary-json", "j", "--fault",
         "open:1",     "--fault=rename:2", "--seed",     "9"});
    ASSERT_TRUE(p.ok) << p.error;
    const Options &o = p.options;
    EXPECT_EQ(o.scenario.name, "two-planes");
    EXPECT_EQ(o.scenario.seed, 9u);
    EXPECT_EQ(o.rate_hz, 100);
    EXPECT_TRUE(o.fresh && o.quiet && !o.help && !o.version);
    EXPECT_EQ(o.sandbox + o.record_path + o.outputs_path + o.plot_path + o.summary_json_path, "sr.csvo.csvp.pngj");
    EXPECT_EQ(o.fault_plan, "open:1,rename:2") << "faults accumulate";
    for (const char *replay : {"--replay", "--replay-field"})
        EXPECT_NE(parse_options({replay, "r.csv"}).options.sandbox, parse_options({}).options.sandbox)
            << replay << ": a replay must not empty the scenario runs' sandbox";
    // A field log keeps what its world cannot say: the chips' mounting and the rate.
    const ParsedOptions f =
        parse_options({"--profile", "2", "--replay-field", "f.csv", "--rate", "25", "--record", "r"});
    ASSERT_TRUE(f.ok) << f.error;
    EXPECT_EQ(f.options.field_log_path + f.options.record_path, "f.csvr");
    EXPECT_TRUE(f.options.rate_given && f.options.rate_hz == 25 && f.options.scenario.profile == 2);
    EXPECT_FALSE(parse_options({}).options.rate_given);
}

}  // namespace
}  // namespace compass
