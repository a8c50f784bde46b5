// The kit's records as text and the save-spacing rule, without a phone: round trips
// against the library's own line format, hostile lines, every range at its edge, the
// checksum, and each spacing threshold at its edge.
#include "service/kit_store.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace kmxc_kit;

std::string calib_text(const CalibRecord &r) {
    char text[kCalibTextMax + 1];
    const size_t n = format_calib(r, text, sizeof text);
    return std::string(text, n);
}

TEST(KitStore, OnlyNineIntegersAreACalibrationRecord) {
    const struct {
        std::string text;
        bool record;
    } cases[] = {
        {"16,16,16,0,0,0,1,2,3", true},
        {"16,16,16,0,0,0,1,2,3\n", true},  // a hand-edited file's line end
        {"16,16,16,0,0,0,1,2,-2147483648", true},
        {"016,16,16,-0,0,0,1,2,3", true},  // what atoi reads the same way
        {"", false},
        {"1,2,3,4,5,6,7,8", false},
        {"16,16,16,0,0,0,1,2,3,4", false},
        {"16,16,16,0,0,0,1,2,3x", false},
        {"16,16,16,0,0,0,1,2,3\n\n", false},
        {"16,16,16,0,0,0,1,2,3 ", false},
        {" 16,16,16,0,0,0,1,2,3", false},
        {"16,,16,0,0,0,1,2,3,4", false},
        {"16,16,16,0,0,0,1,2,+3", false},
        {"16,16,16,0,0,0,1,2,-", false},
        {"16,16,16,0,0,0,1,2,2147483648", false},  // past 32 bits
        {"16,16,16,0,0,0,1,2,-2147483649", false},
        {"16,16,16,0,0,0,1,2,12345678901", false},  // 11 digits
        {std::string("16,16,16,0,0,0,1,2,3\0", 21), false},
    };
    for (const auto &c : cases) {
        int32_t fields[kCalibFields];
        EXPECT_EQ(parse_calib(c.text.data(), c.text.size(), fields), c.record) << '"' << c.text << '"';
    }
}

// Every value at the edge of its range, and what goes with it when it is out; what is
// left is written as the library writes it, "%d,%d,%d,%d,%d,%d,%d,%d,%d" byte for byte,
// and reads back as itself.
TEST(KitStore, ImplausibleValuesAreResetWithWhatBelongsToThemAndTheRestReadsBack) {
    const int32_t G = KMXC_SERVICE_GRAVITY_OFFSET_LIMIT, U = kUnknownOffset;
    // What is left of {16, 16, 16}, {0, 0, 0}, {1, 2, 3} with the magnetic or gravity offset reset.
    const CalibRecord no_magnetic{{16, 16, 16}, {0, 0, 0}, kNoStoredOffset},
        no_gravity{{16, 16, 16}, {0, 0, 0}, {1, 2, 3}};
    const struct {
        const char *name;
        int32_t f[kCalibFields];
        uint8_t reset;
        CalibRecord want;
    } cases[] = {
        {"plausible", {0, 31, 16, -G, G, 0, -16384, 16384, 0}, 0, {{0, 31, 16}, {-G, G, 0}, {-16384, 16384, 0}}},
        {"nothing known", {255, 255, 255, 0, 0, 0, U, U, U}, 0, kDefaultRecord},
        {"rough step 32", {32, 16, 16, 0, 0, 0, 1, 2, 3}, kResetRough | kResetMagnetic, kDefaultRecord},
        {"rough step -1", {16, -1, 16, 0, 0, 0, U, U, U}, kResetRough, kDefaultRecord},
        {"rough partly not known", {255, 16, 16, 0, 0, 0, U, U, U}, kResetRough, kDefaultRecord},
        {"magnetic offset of no rough offset", {255, 255, 255, 0, 0, 0, 1, 2, 3}, kResetMagnetic, kDefaultRecord},
        {"magnetic past 16384", {16, 16, 16, 0, 0, 0, 1, 2, 16385}, kResetMagnetic, no_magnetic},
        {"magnetic partly not known", {16, 16, 16, 0, 0, 0, U, 2, 3}, kResetMagnetic, no_magnetic},
        {"gravity one past the limit", {16, 16, 16, 0, G + 1, 0, 1, 2, 3}, kResetGravity, no_gravity},
        {"gravity one past the negative limit", {16, 16, 16, -G - 1, 0, 0, 1, 2, 3}, kResetGravity, no_gravity},
        {"gravity INT32_MIN", {16, 16, 16, 0, 0, INT32_MIN, 1, 2, 3}, kResetGravity, no_gravity},
        {"all three", {99, 16, 16, G + 1, 0, 0, 1, 2, 3}, kResetRough | kResetMagnetic | kResetGravity, kDefaultRecord},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        CalibRecord got;
        EXPECT_EQ(checked_record(c.f, &got), c.reset);
        const CalibRecord &r = c.want;
        EXPECT_TRUE(same_record(got, r)) << calib_text(got);
        char expected[kCalibTextMax + 1];
        std::snprintf(expected, sizeof expected, "%d,%d,%d,%d,%d,%d,%d,%d,%d", r.rough[0], r.rough[1], r.rough[2],
                      r.gravity.x, r.gravity.y, r.gravity.z, r.magnetic.x, r.magnetic.y, r.magnetic.z);
        const std::string text = calib_text(r);
        EXPECT_EQ(text, expected);
        int32_t fields[kCalibFields];
        ASSERT_TRUE(parse_calib(text.data(), text.size(), fields)) << text;
        CalibRecord back;
        EXPECT_EQ(checked_record(fields, &back), 0) << text;
        EXPECT_TRUE(same_record(back, r)) << text;
    }
    // The longest line fits the bound.
    EXPECT_LE(calib_text(CalibRecord{{255, 255, 255}, {-1024, -1024, -1024}, {-16384, -16384, -16384}}).size(),
              kCalibTextMax);
}

TEST(KitStore, TheChecksumIsZlibsCrc32) {
    EXPECT_EQ(crc32("", 0), 0u);
    EXPECT_EQ(crc32("123456789", 9), 0xCBF43926u);  // the CRC-32 check value
    EXPECT_EQ(crc32("a", 1), 0xE8B7BE43u);
}

std::string kit_text(const KitRecord &k) {
    char text[kKitTextMax + 1];
    const size_t n = format_kit(k, text, sizeof text);
    // Room for the longest line and its terminator, or nothing written.
    EXPECT_EQ(format_kit(k, text, kKitTextMax), 0u);
    return std::string(text, n);
}

// A kit line of these fields and their checksum.
std::string summed(const std::string &body) { return body + "," + std::to_string(crc32(body.data(), body.size())); }

// Replaces field i (0-based) of a kit line and fixes its checksum.
std::string with_field(const std::string &line, int i, const std::string &value) {
    std::istringstream fields(line.substr(0, line.rfind(',')));
    std::string body, field;
    for (int f = 0; std::getline(fields, field, ','); ++f) body += (f ? "," : "") + (f == i ? value : field);
    return summed(body);
}

// A kit line belongs to the record of its rough and magnetic offsets. Each field at the
// edge of its range (the checksum made right, so only the range decides); a wrong
// checksum, version or length is never a record. A record reads back as itself from a
// buffer of exactly its length (no terminator: what lies beyond is not the line's), with
// a line end, and from one that goes on past the length it is given.
TEST(KitStore, AKitLineBelongsToItsRecordAndEveryFieldIsCheckedAtItsEdges) {
    const CalibRecord calib{{16, 15, 17}, {3, 4, 5}, {45, -31, 24}};
    const KitRecord kit = default_kit(calib);
    const std::string base = kit_text(kit);
    EXPECT_EQ(base.substr(0, 49), "1,16,15,17,45,-31,24,16384,0,0,16384,0,16384,0,0,");
    EXPECT_TRUE(kit_belongs_to(kit, calib));
    EXPECT_FALSE(kit_belongs_to(kit, CalibRecord{{16, 15, 17}, {3, 4, 5}, {45, -31, 25}})) << "another magnetic offset";
    EXPECT_FALSE(kit_belongs_to(kit, CalibRecord{{16, 15, 18}, {3, 4, 5}, {45, -31, 24}})) << "another rough offset";
    EXPECT_TRUE(kit_belongs_to(kit, CalibRecord{{16, 15, 17}, {0, 4, 5}, {45, -31, 24}}))
        << "another gravity offset: not the kit file's business";
    const std::string known = with_field(with_field(with_field(base, 15, "1"), 13, "100"), 14, "6000");
    const std::string one = std::to_string(KMXC_SERVICE_SOFT_IRON_ONE);
    const size_t sum_at = base.rfind(',') + 1;  // where the checksum starts
    const struct {
        const char *name;
        std::string line;
        bool record;
    } cases[] = {
        {"defaults", base, true},
        {"every field at a far edge",
         kit_text({{0, 31, 1}, {-16384, 16384, 7}, {32768, -8192, 8192, 8192, 0, 20000}, 250, -9000, 1, 255, 1}), true},
        {"nothing known", kit_text(default_kit(kDefaultRecord)), true},
        {"version 2", with_field(base, 0, "2"), false},
        {"rough step 32", with_field(base, 1, "32"), false},
        {"magnetic past 32 bits", with_field(base, 4, "4294967297"), false},
        {"diagonal at one half", with_field(base, 7, std::to_string(KMXC_SERVICE_SOFT_IRON_ONE / 2)), true},
        {"diagonal under one half", with_field(base, 7, std::to_string(KMXC_SERVICE_SOFT_IRON_ONE / 2 - 1)), false},
        {"diagonal at two", with_field(base, 10, std::to_string(KMXC_SERVICE_SOFT_IRON_ONE * 2)), true},
        {"diagonal past two", with_field(base, 12, std::to_string(KMXC_SERVICE_SOFT_IRON_ONE * 2 + 1)), false},
        {"cross term at minus one half", with_field(base, 8, std::to_string(-KMXC_SERVICE_SOFT_IRON_ONE / 2)), true},
        {"cross term past one half", with_field(base, 11, std::to_string(KMXC_SERVICE_SOFT_IRON_ONE / 2 + 1)), false},
        {"reference known", known, true},
        {"reference at 10 uT", with_field(known, 13, "25"), true},
        {"reference under 10 uT", with_field(known, 13, "24"), false},
        {"reference past 100 uT", with_field(known, 13, "251"), false},
        {"dip at -90 degrees", with_field(known, 14, "-9000"), true},
        {"dip past 90 degrees", with_field(known, 14, "9001"), false},
        {"strength without a reference", with_field(base, 13, "100"), false},
        {"reference flag 2", with_field(known, 15, "2"), false},
        {"coverage 255", with_field(base, 16, "255"), true},
        {"coverage 256", with_field(base, 16, "256"), false},
        {"planar 1", with_field(base, 17, "1"), true},
        {"planar 2", with_field(base, 17, "2"), false},
        {"checksum off by one", base.substr(0, sum_at) + std::to_string(std::stoul(base.substr(sum_at)) ^ 1u), false},
        {"a digit changed, checksum kept", "1,17" + base.substr(4), false},
        {"cut short", base.substr(0, base.size() - 1), false},
        {"one field less", base.substr(base.find(',') + 1), false},
        {"a semicolon for a comma", summed("1;" + base.substr(2, sum_at - 3)), false},
        {"the identity read as text", "1,16,16,16,1,2,3," + one + ",0,0," + one + ",0," + one + ",0,0,0,0,0,x", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + ": " + c.line);
        KitRecord k{};
        const std::vector<char> exact(c.line.begin(), c.line.end());
        EXPECT_EQ(parse_kit(exact.data(), exact.size(), &k), c.record);
        if (c.record) { EXPECT_EQ(kit_text(k), c.line); }
        EXPECT_EQ(parse_kit((c.line + "\n").data(), c.line.size() + 1, &k), c.record);
        EXPECT_EQ(parse_kit((c.line + "7,1").data(), c.line.size(), &k), c.record);
        if (c.record) { EXPECT_EQ(kit_text(k), c.line); }
    }
}

// ---- When to save ----------------------------------------------------------------------------

constexpr int64_t kS = 1000000000;  // a second in the kit's nanoseconds

TEST(KitStore, SavesAreSpacedAtEachThreshold) {
    // The stored record's magnetic offset moved by (dx, dy, 0).
    const auto with = [](int dx, int dy) { return CalibRecord{{16, 16, 16}, {0, 0, 0}, {100 + dx, 100 + dy, 100}}; };
    const CalibRecord stored = with(0, 0), other_rough{{16, 15, 16}, {0, 0, 0}, {100, 100, 100}},
                      unknown{{16, 16, 16}, {0, 0, 0}, kNoStoredOffset};
    const int M = KMXC_SERVICE_SAVE_MIN_MOVE_COUNTS;
    const int64_t interval = int64_t{KMXC_SERVICE_SAVE_MIN_INTERVAL_S} * kS,
                  settle = int64_t{KMXC_SERVICE_SAVE_SETTLE_S} * kS;
    const int64_t t0 = 1000 * kS;
    const SaveClock fresh{false, 0, t0}, saved{true, t0, t0};
    const struct {
        const char *name;
        SaveClock clock;
        CalibRecord wanted, stored;
        bool stored_valid;
        int64_t now;
        bool due;
    } cases[] = {
        {"the same record", fresh, stored, stored, true, t0 + settle, false},
        {"moved exactly the least move", fresh, with(M, 0), stored, true, t0, false},
        {"moved just more", fresh, with(M, 1), stored, true, t0, true},
        {"moved a count, not yet settled", fresh, with(1, 0), stored, true, t0 + settle - 1, false},
        {"moved a count, settled", fresh, with(1, 0), stored, true, t0 + settle, true},
        {"moved more, within the interval", saved, with(M, 1), stored, true, t0 + interval - 1, false},
        {"moved more, the interval over", saved, with(M, 1), stored, true, t0 + interval, true},
        {"moved a count, settled since the last save", saved, with(1, 0), stored, true, t0 + settle, true},
        {"nothing stored", fresh, stored, stored, false, t0, true},
        {"nothing stored, within the interval", saved, stored, stored, false, t0 + interval - 1, false},
        {"no magnetic offset stored", fresh, stored, unknown, true, t0, true},
        {"the offset forgotten", fresh, unknown, stored, true, t0, true},
        {"another rough offset", fresh, other_rough, stored, true, t0, true},
        {"another rough offset, within the interval", saved, other_rough, stored, true, t0 + 1, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(save_due(c.clock, c.wanted, c.stored, c.stored_valid, c.now), c.due) << c.name;
}

}  // namespace
