#include "tools/record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sstream>

namespace compass {
namespace {

Record random_record(uint32_t seed, int rows)
{
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

std::string text_of(const Record &r)
{
    std::ostringstream o;
    write_record_header(o, r.header);
    write_rough_reading(o, r.rough_readings.at(0));
    for (const auto &row : r.rows) write_record_row(o, row);
    write_rough_reading(o, r.rough_readings.at(1));
    return o.str();
}

TEST(Record, WrittenRecordsParseBackExactly)
{
    for (uint32_t seed : {1u, 2u, 3u}) {
        const Record r = random_record(seed, 200);
        std::istringstream in(text_of(r));
        const ParsedRecord p = parse_record(in);
        ASSERT_TRUE(p.ok) << p.error;
        const RecordHeader &a = r.header, &b = p.record.header;
        EXPECT_EQ(a.profile, b.profile);
        EXPECT_EQ(a.transformation, b.transformation);
        EXPECT_EQ(a.calib, b.calib);
        EXPECT_EQ(a.rough, b.rough);
        EXPECT_TRUE(b.has_stored);
        EXPECT_EQ(a.stored, b.stored);
        EXPECT_EQ(p.record.rough_readings, r.rough_readings);
        ASSERT_EQ(p.record.rows.size(), r.rows.size());
        for (size_t i = 0; i < r.rows.size(); ++i) {
            EXPECT_EQ(p.record.rows[i].time_us, r.rows[i].time_us) << "row " << i;
            EXPECT_EQ(p.record.rows[i].ms, r.rows[i].ms) << "row " << i;
            EXPECT_EQ(p.record.rows[i].temperature, r.rows[i].temperature) << "row " << i;
            EXPECT_EQ(p.record.rows[i].gs, r.rows[i].gs) << "row " << i;
        }
    }
}

TEST(Record, HandWrittenFilesWithCommentsBlanksAndCrLfAreRead)
{
    std::istringstream in("# kmxc raw record 1\r\n"
                          "# logged on a phone\r\n"
                          "profile,1\r\n"
                          "transformation,1,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1\r\n"
                          "calib, 128,128,128,128,128,128,128,128,128\r\n"
                          "rough,10,11,12\r\n"
                          "\r\n"
                          "time_us,ms0,ms1,ms2,temperature,gs_x,gs_y,gs_z\r\n"
                          "0,512,513,514,256,0,0,-256\r\n"
                          "# a comment between samples\r\n"
                          "100000,+600,500,400,260,1,-2,-255\r\n");
    const ParsedRecord p = parse_record(in);
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_FALSE(p.record.header.has_stored);
    ASSERT_EQ(p.record.rows.size(), 2u);
    EXPECT_EQ(p.record.rows[1].ms, (std::array<int, 3>{600, 500, 400}));
    EXPECT_EQ(p.record.rows[1].gs, (std::array<int, 3>{1, -2, -255}));
}

struct Malformed {
    const char *name;
    const char *line_start; // the line of a good file to replace; "" replaces the whole file
    const char *with;
    const char *error_part;
};

TEST(Record, MalformedFilesAreRefusedWithTheLineAndTheProblem)
{
    const std::string good = text_of(random_record(5, 3));
    const Malformed cases[] = {
        {"empty", "", "", "empty file"},
        {"not a record", "# kmxc", "hello", "line 1: not a raw record"},
        {"unknown header key", "profile,", "profil,2", "line 2: unknown header line 'profil'"},
        {"short calib", "calib,", "calib,1,2", "'calib' needs 9 values, found 2"},
        {"rough beyond 31", "rough,", "rough,32,0,0", "'rough' value 1 ('32')"},
        {"matrix entry 2", "transformation,", "transformation,2,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1",
         "'transformation' value 1"},
        {"missing calib before columns", "calib,", "# no calib", "needs 'transformation', 'calib' and 'rough'"},
        {"no columns", "time_us,", "time,x", "unknown header line 'time'"},
    };
    for (const auto &c : cases) {
        std::string text = c.with;
        if (*c.line_start) {
            const auto at = good.rfind(std::string("\n") + c.line_start);
            const auto from = at == std::string::npos ? 0 : at + 1; // the first line has no newline before it
            ASSERT_EQ(good.compare(from, std::strlen(c.line_start), c.line_start), 0) << c.name;
            text = good;
            text.replace(from, text.find('\n', from) - from, c.with);
        }
        std::istringstream in(text);
        const ParsedRecord p = parse_record(in);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
    }
}

TEST(Record, MalformedSampleRowsNameTheColumn)
{
    std::ostringstream o;
    write_record_header(o, random_record(6, 0).header);
    const std::string head = o.str();
    struct Row {
        const char *name, *rows, *error_part;
    } cases[] = {
        {"too few values", "0,1,2,3\n", "expected 8 values, found 4"},
        {"channel beyond 11 bits", "0,2048,0,0,0,0,0,0\n", "ms0 '2048'"},
        {"negative temperature", "0,1,1,1,-1,0,0,0\n", "temperature '-1'"},
        {"word for a count", "0,1,1,1,1,zero,0,0\n", "gs_x 'zero'"},
        {"time going back", "5,1,1,1,1,0,0,0\n4,1,1,1,1,0,0,0\n", "time_us 4 does not increase"},
        {"no samples", "", "no samples"},
        {"rough reading beyond a byte", "rough_reading,1,256,0\n", "'rough_reading' value 2 ('256')"},
        {"truncated row", "0,1,1,1,1,0,0,\n", "gs_z ''"},
    };
    const int first_row_line = 7; // magic, profile, transformation, calib, rough, stored, columns
    for (const auto &c : cases) {
        std::istringstream in(head + c.rows);
        const ParsedRecord p = parse_record(in);
        EXPECT_FALSE(p.ok) << c.name;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.name << ": got '" << p.error << "'";
        if (std::string(c.name) == "channel beyond 11 bits") {
            EXPECT_EQ(p.error.rfind("line " + std::to_string(first_row_line + 1) + ":", 0), 0u) << p.error;
        }
    }
}

} // namespace
} // namespace compass
