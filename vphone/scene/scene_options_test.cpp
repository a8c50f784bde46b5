// The world's options, as the demo's command line and VPHONE_OPTIONS give them.
#include "vphone/scene/scene_options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

namespace vphone::scene {
namespace {

// The one-line error must contain error_part, naming the problem.
const struct {
    const char *name;
    std::vector<std::string> args;
    const char *error_part;
} kRefused[] = {
    {"not a number", {"--field", "strong"}, "--field: 'strong' is not a number"},
    {"trailing junk", {"--noise", "0.2uT"}, "'0.2uT' is not a number"},
    {"not-a-number value", {"--noise", "nan"}, "not a number"},
    {"field just below the range", {"--field=24.9"}, "--field: 24.9 is outside 25..65"},
    {"field just above the range", {"--field", "65.01"}, "outside 25..65"},
    {"hard iron with two values", {"--hard-iron", "1,2"}, "not three numbers"},
    {"hard iron with four values", {"--hard-iron", "1,2,3,4"}, "not three numbers"},
    {"hard iron component out of range", {"--hard-iron", "0,200.5,0"}, "200.5 is outside -200..200"},
    {"fractional profile", {"--profile", "1.5"}, "not a whole number"},
    {"profile out of range", {"--profile", "9"}, "--profile: 9 is outside 1..3"},
    {"seed past 32 bits", {"--seed", "4294967296"}, "outside 0..4294967295"},
    {"unknown scenario", {"--scenario", "juggling"}, "unknown scenario 'juggling' (choose default, planar"},
    {"missing value", {"--field"}, "--field needs a value"},
    {"soft iron too weak", {"--soft-iron", "0.49,1,1,0,0,0"}, "eigenvalues 1, 1, 0.49: each must lie within 0.5..2"},
    {"soft iron too strong", {"--soft-iron", "1.5,1.5,1,0.6,0,0"}, "eigenvalues 2.1, 1, 0.9: each must lie within"},
    {"soft iron not positive definite", {"--soft-iron", "1,1,1,1.2,0,0"}, "2.2, 1, -0.2: not positive definite"},
    {"soft iron of three numbers", {"--soft-iron", "1,1,1"}, "'1,1,1' is not six numbers XX,YY,ZZ,XY,XZ,YZ"},
    {"a tool's option", {"--rate", "5"}, "unknown option '--rate' (the world's options: --scenario, --field"},
    {"control characters stay on one line", {"--x\ny\r\x1b\x7f"}, "unknown option '--x?y?\?\?'"},
};

TEST(SceneOptions, RefusedValuesGiveOneLineNamingTheProblem) {
    for (const auto &c : kRefused) {
        const ParsedScene p = parse_scene_options(c.args);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
        EXPECT_EQ(p.error.find('\n'), std::string::npos) << c.name << ": error spans lines";
    }
}

TEST(SceneOptions, ValuesReachTheSettingsInBothSpellingsRangeEndsIncluded) {
    const ParsedScene p = parse_scene_options(
        {"--scenario", "two-planes", "--field=25", "--declination", "+12.5", "--hard-iron", "-200,2.5,200", "--profile",
         "3", "--seed=4294967295", "--inclination", "-90", "--noise", "0", "--field", "65",
         "--accel-offset=-200,0.5,200", "--soft-iron", "1.5,0.7,1.1,0.3,-0.2,0.1"});
    ASSERT_TRUE(p.ok) << p.error;
    // --field 65: the last one counts. Every setting not named stays at its default.
    EXPECT_EQ(p.settings, (ScenarioSettings{.name = "two-planes",
                                            .field_uT = 65,
                                            .inclination_deg = -90,
                                            .declination_deg = 12.5,
                                            .hard_iron_uT = {-200, 2.5, 200},
                                            .noise_uT = 0,
                                            .accel_offset_mg = {-200, 0.5, 200},
                                            .profile = 3,
                                            .seed = 4294967295u,
                                            .soft_iron = {1.5, 0.7, 1.1, 0.3, -0.2, 0.1}}));
}

// The reader both command lines use: flags, values inline or next, the first '='.
TEST(SceneOptions, TheReaderSplitsAtTheFirstEqualsAndFlagsTakeNoValue) {
    std::vector<std::string> taken;
    auto kind_of = [](const std::string &opt) {
        return opt == "--flag" ? OptionKind::Flag : opt == "--file" ? OptionKind::WithValue : OptionKind::Unknown;
    };
    auto take = [&](const std::string &opt, const std::string &value) {
        taken.push_back(opt + "|" + value);
        return std::string();
    };
    EXPECT_EQ(read_command_line({"--file=a=b.csv", "--flag", "--file", "--flag"}, kind_of, take, "(hint)"), "");
    EXPECT_EQ(taken, (std::vector<std::string>{"--file|a=b.csv", "--flag|", "--file|--flag"}));
    EXPECT_EQ(read_command_line({"--flag=1"}, kind_of, take, "(hint)"), "--flag takes no value");
    EXPECT_EQ(read_command_line({"-x=1"}, kind_of, take, "(hint)"), "unknown option '-x=1' (hint)");
}

// Every option of --help is one the parser takes, and the default it shows reads back
// as that default: set to something else, then to what the help shows, each option
// leaves the settings at their defaults again.
TEST(SceneOptions, EachHelpLinesShownDefaultReadsBackAsTheDefault) {
    const std::map<std::string, std::string> other{
        {"--scenario", "still"},         {"--field", "30"},        {"--inclination", "10"},
        {"--declination", "-7"},         {"--hard-iron", "1,2,3"}, {"--soft-iron", "1.2,0.9,1,0.1,0,0"},
        {"--car-field", "0,0,5"},        {"--noise", "1"},         {"--temp-drift", "2"},
        {"--temperature", "5"},          {"--profile", "2"},       {"--seed", "9"},
        {"--accel-offset", "40,-30,20"}, {"--car-vibration", "10"}};
    std::istringstream help(scene_options_help());
    std::vector<std::string> entries;
    for (std::string line; std::getline(help, line);) {
        if (line.rfind(std::string(25, ' '), 0) == 0)  // help on a line of its own
            entries.back() += line;
        else
            entries.push_back(line);
    }
    std::set<std::string> listed;
    ScenarioSettings s;
    for (const std::string &line : entries) {
        const std::string name = line.substr(2, line.find(' ', 2) - 2);
        std::string shown = line.substr(line.find('(', line.find(' ', 2)) + 1);
        shown = shown.substr(0, shown.find(')'));
        if (shown.rfind("default: ", 0) == 0) shown = shown.substr(9);
        ASSERT_TRUE(other.count(name)) << line;
        EXPECT_EQ(set_scene_option(name, other.at(name), &s), "") << name;
        EXPECT_NE(s, ScenarioSettings{}) << name;
        EXPECT_EQ(set_scene_option(name, shown, &s), "") << line;
        EXPECT_EQ(s, ScenarioSettings{}) << line << ": the shown default '" << shown << "' is not the default";
        listed.insert(name);
    }
    EXPECT_EQ(listed.size(), other.size());
    const std::string scenario_lines = scenarios_help();
    EXPECT_EQ(std::count(scenario_lines.begin(), scenario_lines.end(), '\n'),
              static_cast<long>(scenario_names().size()));
}

}  // namespace
}  // namespace vphone::scene
