#include "vphone/scene/record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sstream>

namespace vphone::scene {
namespace {

Record random_record(uint32_t seed, int rows) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> ch(0, 2047), acc(-512, 511), byte(0, 255), rough(0, 31);
    Record r;
    r.header.profile = 2;
    r.header.transformation = {0, 1, 0, -1, 0, 0, 0, 0, 1, 0, -1, 0, 1, 0, 0, 0, 0, 1};
    for (int &c : r.header.calib) c = byte(rng);
    for (int &c : r.header.rough) c = rough(rng);
    r.header.has_stored = true;
    r.header.stored = {12, 13, 14, -5, 6, 7, 2147483647, -2147483648LL, 0};
    r.rough_readings = {{21, 0, 255}, {5, 6, 7}};
    int64_t t = 0;
    for (int i = 0; i < rows; ++i) {
        RecordRow row;
        row.time_us = (t += 100000 + i % 3);
        for (int &m : row.ms) m = ch(rng);
        row.temperature = ch(rng);
        for (int &g : row.gs) g = acc(rng);
        r.rows.push_back(row);
    }
    return r;
}

std::string text_of(const Record &r) {
    std::ostringstream o;
    write_record_header(o, r.header);
    write_rough_reading(o, r.rough_readings.at(0));
    for (const auto &row : r.rows) write_record_row(o, row);
    write_rough_reading(o, r.rough_readings.at(1));
    return o.str();
}

// Also with the \r\n line ends of a file written on another system.
TEST(Record, WrittenRecordsParseBackExactlyWithEitherLineEnd) {
    for (uint32_t seed : {1u, 2u, 3u})
        for (bool crlf : {false, true}) {
            const Record r = random_record(seed, 200);
            std::string text = text_of(r);
            if (crlf)
                for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
                    text.insert(at, "\r");
            std::istringstream in(text);
            const ParsedRecord p = parse_record(in);
            ASSERT_TRUE(p.ok) << p.error;
            EXPECT_TRUE(p.record == r) << "seed " << seed << (crlf ? ", \\r\\n" : "");
        }
}

// Each case edits a good three-sample file: replaces the line that starts with
// line_start (nothing: appends after the column line, all samples dropped; "*": the
// whole file) by with.
const struct {
    const char *name, *line_start, *with, *error_part;
} kMalformed[] = {
    {"empty", "*", "", "empty file"},
    {"not a record", "# kmxc", "hello", "line 1: not a raw record"},
    {"unknown header key", "profile,", "profil,2", "line 2: unknown header line 'profil'"},
    {"short calib", "calib,", "calib,1,2", "'calib' needs 9 values, found 2"},
    {"rough beyond 31", "rough,", "rough,32,0,0", "'rough' value 1 ('32')"},
    {"matrix entry 2", "transformation,", "transformation,2,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1",
     "'transformation' value 1"},
    {"missing calib before columns", "calib,", "# no calib", "needs 'transformation', 'calib' and 'rough'"},
    {"missing rough before columns", "rough,", "# no rough", "needs 'transformation', 'calib' and 'rough'"},
    {"too few values", "", "0,1,2,3", "line 8: expected 8 values, found 4"},
    {"channel beyond 11 bits", "", "0,2048,0,0,0,0,0,0", "ms0 '2048'"},
    {"truncated row", "", "0,1,1,1,1,0,0,", "gs_z ''"},
    {"time standing still", "", "5,1,1,1,1,0,0,0\n5,1,1,1,1,0,0,0", "line 9: time_us 5 does not increase"},
    {"rough reading beyond a byte", "", "rough_reading,1,256,0", "'rough_reading' value 2 ('256')"},
    {"no samples", "", "# nothing", "no samples"},
};

TEST(Record, MalformedFilesAreRefusedWithTheLineAndTheProblem) {
    const std::string text = text_of(random_record(5, 3)), head = text.substr(0, text.find("rough_reading,"));
    for (const auto &c : kMalformed) {
        std::string t = c.with;
        if (std::strlen(c.line_start) == 0) {
            t = head + c.with + "\n";
        } else if (std::string(c.line_start) != "*") {
            const auto at = text.rfind(std::string("\n") + c.line_start);
            const auto from = at == std::string::npos ? 0 : at + 1;  // the first line has no newline before it
            t = text;
            t.replace(from, t.find('\n', from) - from, c.with);
        }
        std::istringstream in(t);
        const ParsedRecord p = parse_record(in);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
    }
}

// The rate is the median spacing: a recorder's first cycle, a late or dropped cycle,
// jitter and a pause in the log leave it where the rows mostly lie.
TEST(Record, TheRateIsAMillionOverTheRowsMedianSpacing) {
    const struct {
        const char *name;
        std::vector<int64_t> times_us;
        double hz;
    } cases[] = {
        {"no rows", {}, 0},
        {"one row", {4000}, 0},
        {"the first cycle 4 ms in, then every 20 ms", {4000, 20000, 40000, 60000, 80000}, 50},
        {"a late cycle and a dropped one", {0, 20000, 43000, 60000, 100000, 120000, 140000}, 50},
        {"jitter of a millisecond", {0, 19000, 40000, 60000, 81000, 100000}, 50},
        {"a pause of an hour", {0, 100000, 200000, 3600200000, 3600300000, 3600400000}, 10},
    };
    for (const auto &c : cases) {
        Record r;
        for (const int64_t t : c.times_us) r.rows.push_back(RecordRow{t, {}, 0, {}});
        EXPECT_DOUBLE_EQ(record_rate_hz(r), c.hz) << c.name;
    }
}

}  // namespace
}  // namespace vphone::scene
