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
    {"unknown option", {"--colour", "red"}, "unknown option '--colour'"},
    {"control characters stay on one line",
     {"--x\ny\r\x1b"},
     "unknown option '--x?y?"
     "?'"},
    {"missing value", {"--field"}, "--field needs a value"},
    {"not a number", {"--field", "strong"}, "--field: 'strong' is not a number"},
    {"trailing junk", {"--noise", "0.2uT"}, "'0.2uT' is not a number"},
    {"field just below the range", {"--field=24.9"}, "outside 25..65"},
    {"hard iron with two values", {"--hard-iron", "1,2"}, "not three numbers"},
    {"fractional profile", {"--profile", "1.5"}, "not a whole number"},
    {"profile out of range", {"--profile", "9"}, "--profile: 9 is outside"},
    {"unknown scenario", {"--scenario", "juggling"}, "unknown scenario 'juggling'"},
    {"flag with a value", {"--quiet=yes"}, "--quiet takes no value"},
    {"empty file name", {"--replay="}, "--replay: empty file name"},
    {"record and replay together", {"--record", "a.csv", "--replay", "b.csv"}, "cannot be combined"},
    {"not-a-number value", {"--noise", "nan"}, "not a number"},
    {"rate above what the kit serves", {"--rate", "101"}, "--rate: 101 is outside 1..100"},
    {"replay with a scenario option",
     {"--replay", "r.csv", "--field", "30"},
     "--field and --replay cannot be combined"},
    {"scenario option before the replay", {"--seed", "3", "--replay", "r.csv"}, "--seed and --replay"},
};

TEST(Options, BadInputGivesOneLineNamingTheProblem) {
    for (const auto &c : kBad) {
        const ParsedOptions p = parse_options(c.args);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
        EXPECT_EQ(p.error.find('\n'), std::string::npos) << c.name << ": error spans lines";
    }
}

TEST(Options, ValuesReachTheSettingsInBothSpellings) {
    const ParsedOptions p =
        parse_options({"--scenario", "two-planes", "--field=30", "--declination", "+12.5", "--hard-iron", "-1,2.5,3",
                       "--profile", "3", "--seed", "99", "--fresh", "--rate", "100", "--field", "65"});
    ASSERT_TRUE(p.ok) << p.error;
    const Options &o = p.options;
    EXPECT_EQ(o.scenario.name, "two-planes");
    EXPECT_EQ(o.scenario.field_uT, 65) << "the last one counts; range ends are allowed";
    EXPECT_EQ(o.scenario.declination_deg, 12.5);
    EXPECT_EQ(o.scenario.hard_iron_uT, (Vec3{-1, 2.5, 3}));
    EXPECT_EQ(o.scenario.profile, 3);
    EXPECT_EQ(o.scenario.seed, 99u);
    EXPECT_TRUE(o.fresh);
    EXPECT_EQ(o.rate_hz, 100);
    EXPECT_EQ(parse_options({"--replay", "r.csv"}).options.sandbox, "out/replay-sandbox")
        << "a replay must not empty the scenario runs' sandbox";
    EXPECT_EQ(parse_options({}).options.scenario.name, "default") << "no arguments: the default scenario";
    EXPECT_EQ(parse_options({}).options.sandbox, "out/sandbox");
}

}  // namespace
}  // namespace compass
