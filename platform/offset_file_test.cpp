// The calibration data file of the shipped library, on the virtual phone.
#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::LogLine;
using Text = std::optional<std::string>;  // a file's content; nullopt: no file

constexpr char kMain[] = "/misc/sensor/kmxc_orvane.cfg";
constexpr char kBackup[] = "/misc/sensor/kmxc_orvane-backup.cfg";
constexpr char kDefault[] = "255,255,255,0,0,0,2147483647,2147483647,2147483647";
constexpr int32_t kMax = INT32_MAX, kMin = INT32_MIN;
const vphone::Owner kCompassOwner{1008, 1000};

LogLine log_line(const std::string &text) { return LogLine{6, "Msmachdep", text}; }

void set_main(const Text &content) {
    vphone::remove_file(kMain);
    vphone::remove_file(kBackup);
    if (content) vphone::write_file(kMain, *content);
}

struct Loaded {
    int results;  // sum of the three results
    std::vector<int32_t> rough, gs, ms;
};

// Every load once; outputs start at 7 so untouched outputs show.
Loaded load_all() {
    uint8_t r[3] = {7, 7, 7};
    int32_t g[3] = {7, 7, 7}, m[3] = {7, 7, 7};
    const int results = msmachdep_LoadRoughOffset(r) + msmachdep_LoadGsOffset(g) + msmachdep_LoadMsOffset(m);
    return {results, {r[0], r[1], r[2]}, {g[0], g[1], g[2]}, {m[0], m[1], m[2]}};
}

class OffsetFileTest : public vphone::PhoneTest {};

TEST_F(OffsetFileTest, LinesLoadFieldByFieldWithDefaultsForMissingOnes) {
    const std::string long_line = "1,2,3,4,5,6,7,8," + std::string(300, '9');
    const std::string long_blank = std::string(300, ' ') + "1,2,3";
    const struct {
        const char *name;
        Text content;
        std::vector<int32_t> rough, gs, ms;
    } cases[] = {
        {"no file: created with defaults", std::nullopt, {255, 255, 255}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"full line", "10,20,30,-5,6,7,100,-200,300", {10, 20, 30}, {-5, 6, 7}, {100, -200, 300}},
        {"three fields", "1,2,3", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"one field", "9", {9, 255, 255}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"missing trailing field", "1,2,3,4,5,6,7,8", {1, 2, 3}, {4, 5, 6}, {7, 8, kMax}},
        {"more than nine fields", "1,2,3,4,5,6,7,8,9,10,11", {1, 2, 3}, {4, 5, 6}, {7, 8, 9}},
        {"rough keeps its low 8 bits", "300,-1,256", {44, 255, 0}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"CRLF line end", "1,2,3,4,5,6,7,8,9\r\n", {1, 2, 3}, {4, 5, 6}, {7, 8, 9}},
        {"only the first line counts", "1,2,3\n4,5,6", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        // The text after the last comma is a field even when it is only the line end.
        {"line end after a last comma", "1,2,3,4,5,6,7,8,\r\n", {1, 2, 3}, {4, 5, 6}, {7, 8, 0}},
        {"consecutive commas count as one", "1,,2,,,3", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"blanks and signs", " +5,\t-0, 7x,-2147483648", {5, 0, 7}, {kMin, 0, 0}, {kMax, kMax, kMax}},
        {"non-numeric text", "a,b,c,d,e,f,g,h,i", {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
        {"beyond 32 bits saturates", "4294967296,-4294967297,99999999999999999999999,2147483648,-2147483649,0,1,1,1",
         {255, 0, 255}, {kMax, kMin, 0}, {1, 1, 1}},
        {"longer than 255 characters", long_line, {1, 2, 3}, {4, 5, 6}, {7, 8, kMax}},
        {"255 blanks fill the line buffer", long_blank, {0, 255, 255}, {0, 0, 0}, {kMax, kMax, kMax}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        set_main(c.content);
        vphone::StderrCapture err;
        const Loaded l = load_all();
        EXPECT_EQ(l.results, 0);
        EXPECT_EQ(l.rough, c.rough);
        EXPECT_EQ(l.gs, c.gs);
        EXPECT_EQ(l.ms, c.ms);
        EXPECT_EQ(vphone::read_file(kMain), c.content.value_or(kDefault));  // loading never rewrites
        EXPECT_EQ(vphone::owner_of(kMain) == kCompassOwner && vphone::mode_of(kMain) == 0666u, !c.content);
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(OffsetFileTest, EmptyFileFailsEveryLoadAndLeavesOutputsAlone) {
    set_main("");
    vphone::LogCapture log;
    vphone::StderrCapture err;
    const Loaded l = load_all();
    EXPECT_EQ(l.results, -3);
    EXPECT_EQ(l.rough, (std::vector<int32_t>{7, 7, 7}));
    EXPECT_EQ(l.gs, l.rough);
    EXPECT_EQ(l.ms, l.rough);
    const std::string text = err.text();  // fgets at end of file leaves errno as it was: compare the names
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) EXPECT_EQ(text.compare(at, 7, "fgets: "), 0) << text;
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{log_line("msmachdep_LoadGsOffset() fail #3")}));
}

TEST_F(OffsetFileTest, NullPointerFailsWithoutTouchingTheFile) {
    EXPECT_EQ(msmachdep_LoadRoughOffset(nullptr) + msmachdep_LoadGsOffset(nullptr) + msmachdep_LoadMsOffset(nullptr) +
                  msmachdep_SaveRoughOffset(nullptr) + msmachdep_SaveGsOffset(nullptr) + msmachdep_SaveMsOffset(nullptr),
              -6);
    EXPECT_EQ(vphone::calls(Call::Access) + vphone::calls(Call::Fopen), 0);
}

int save(char which, const int32_t (&in)[3]) {
    const uint8_t rough[3] = {static_cast<uint8_t>(in[0]), static_cast<uint8_t>(in[1]), static_cast<uint8_t>(in[2])};
    if (which == 'r') return msmachdep_SaveRoughOffset(rough);
    return which == 'g' ? msmachdep_SaveGsOffset(in) : msmachdep_SaveMsOffset(in);
}

TEST_F(OffsetFileTest, SavesRewriteTheirTripleAndCarryTheOthersOverAsIntegers) {
    const char *const full = "10,20,30,-5,6,7,100,-200,300";
    const struct {
        const char *name;
        Text before;
        char which;  // 'r' rough, 'g' gravity (in place), 'm' magnetic
        int32_t in[3];
        const char *after;
    } cases[] = {
        {"gravity", full, 'g', {1, 2, 3}, "10,20,30,1,2,3,100,-200,300"},
        {"magnetic", full, 'm', {4, 5, 6}, "10,20,30,-5,6,7,4,5,6"},
        {"rough", full, 'r', {31, 0, 255}, "31,0,255,-5,6,7,100,-200,300"},
        {"rough 300 carried by gravity", "300,2,3", 'g', {0, 0, -1}, "300,2,3,0,0,-1,2147483647,2147483647,2147483647"},
        {"rough 300 carried by magnetic", "300,2,3", 'm', {kMax, kMin, 0}, "300,2,3,0,0,0,2147483647,-2147483648,0"},
        {"text normalised", " +1x,,2,3\r\n", 'm', {0, 0, 0}, "1,2,3,0,0,0,0,0,0"},
        {"no file, magnetic", std::nullopt, 'm', {9, 9, 9}, "255,255,255,0,0,0,9,9,9"},
        {"no file, gravity", std::nullopt, 'g', {9, 9, 9}, "255,255,255,9,9,9,2147483647,2147483647,2147483647"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        set_main(c.before);
        vphone::StderrCapture err;
        EXPECT_EQ(save(c.which, c.in), 0);
        EXPECT_EQ(vphone::read_file(kMain), c.after);
        EXPECT_EQ(vphone::owner_of(kMain) == kCompassOwner, c.which != 'g');  // only the backup gets the owner
        EXPECT_FALSE(vphone::exists(kBackup));
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(OffsetFileTest, SavedTriplesLoadBackAndLeaveTheOthersAlone) {
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int32_t> any(kMin, kMax), byte(0, 255);
    msmachdep_ResetOffsetData();
    Loaded want = load_all();
    for (int round = 0; round < 60; ++round) {
        const char which = "rgm"[round % 3];
        const int32_t in[3] = {which == 'r' ? byte(random) : any(random), which == 'r' ? byte(random) : any(random),
                               which == 'r' ? byte(random) : round == 1 ? kMin : any(random)};
        ASSERT_EQ(save(which, in), 0) << round;
        (which == 'r' ? want.rough : which == 'g' ? want.gs : want.ms) = {in[0], in[1], in[2]};
        const Loaded l = load_all();
        ASSERT_TRUE(l.rough == want.rough && l.gs == want.gs && l.ms == want.ms) << round;
    }
}

TEST_F(OffsetFileTest, ResetWritesTheDefaultsWhateverTheFileHeld) {
    for (const Text &before : {Text{}, Text{""}, Text{"1,2,3,4,5,6,7,8,9"}, Text{"garbage\r\n"}}) {
        SCOPED_TRACE(before.value_or("no file"));
        vphone::reset();
        set_main(before);
        vphone::LogCapture log;
        vphone::StderrCapture err;
        msmachdep_ResetOffsetData();
        EXPECT_EQ(vphone::read_file(kMain), kDefault);
        EXPECT_TRUE(vphone::owner_of(kMain) == kCompassOwner && vphone::mode_of(kMain) == 0666u);
        EXPECT_EQ(vphone::calls(Call::Access), 0);  // no test for the file first
        EXPECT_TRUE(log.lines().empty() && err.text().empty());
    }
}

// ---- A fault at every step ---------------------------------------------------------

enum Op { kSaveRough, kSaveGs, kSaveMs, kReset, kLoadGs, kOpCount };
const char *const kOpNames[] = {"SaveRoughOffset", "SaveGsOffset", "SaveMsOffset", "ResetOffsetData", "LoadGsOffset"};

int run(Op op) {
    const int32_t in[3] = {11, 12, 13};
    int32_t out[3];
    if (op == kReset) msmachdep_ResetOffsetData();
    return op == kReset ? 0 : op == kLoadGs ? msmachdep_LoadGsOffset(out) : save("rgm"[op], in);
}

struct Outcome {
    int result;
    std::string err;
    std::vector<LogLine> log;
    bool check_main;
    Text main;  // the main file afterwards
};

// What the library does when the nth call of a kind fails with EIO during op.
Outcome expected(Op op, Call call, int nth, const Text &before) {
    auto perror_of = [](const char *name) { return std::string(name) + ": " + std::strerror(EIO) + "\n"; };
    if (op == kReset) {
        const int step = call == Call::Fopen ? 1 : call == Call::Fprintf || call == Call::Fclose ? 2
                       : call == Call::Chown ? 3 : call == Call::Chmod ? 4 : 5;
        return {0, "", {log_line("msmachdep_ResetOffsetData() fail #" + std::to_string(step))}, true, before};
    }
    // A missing file is created first (each creation call once); then the line is
    // read (fopen, fgets, fclose) and, for saves, written (fopen, fprintf, fclose, ...).
    const bool creating = !before && nth == 1 && call != Call::Fgets;
    const bool reading = !creating && nth == (before ? 1 : 2);
    Outcome o{-1, perror_of(vphone::call_name(call)), {}, true, creating || before ? before : Text{kDefault}};
    if (call == Call::Fopen && op == kSaveMs && !creating && !reading) o.err = "";  // the magnetic backup's: silent
    if (call == Call::Fclose && reading) return {0, "", {}, false, {}};  // closing after reading: result unused
    if (call == Call::Fclose) o.err = perror_of("fprintf");  // a failed close of a write loses the text
    if (op == kLoadGs) {
        const int fail = creating || call == Call::Access ? 1 : call == Call::Fopen ? 2 : call == Call::Fgets ? 3 : 0;
        if (fail != 0) o.log = {log_line("msmachdep_LoadGsOffset() fail #" + std::to_string(fail))};
    }
    // The in-place gravity rewrite has already truncated the main file when its write fails.
    if (op == kSaveGs && (call == Call::Fprintf || call == Call::Fclose)) o.main = "";
    return o;
}

TEST_F(OffsetFileTest, FaultAtAnyStepLeavesTheMainFileAsItWasExceptTheInPlaceRewrite) {
    const Call kinds[] = {Call::Access, Call::Fopen, Call::Fgets, Call::Fprintf,
                          Call::Fclose, Call::Chown, Call::Chmod, Call::Rename};
    int steps = 0;
    for (const Text &before : {Text{"1,2,3,4,5,6,7,8,9"}, Text{}}) {
        for (int o = 0; o < kOpCount; ++o) {
            const Op op = static_cast<Op>(o);
            vphone::reset();
            set_main(before);
            run(op);  // a clean run counts the calls of each step
            int counts[std::size(kinds)];
            for (size_t k = 0; k < std::size(kinds); ++k) counts[k] = vphone::calls(kinds[k]);
            for (size_t k = 0; k < std::size(kinds); ++k) {
                if (kinds[k] == Call::Access && !before) continue;  // failing with ENOENT is the normal path
                for (int nth = 1; nth <= counts[k]; ++nth, ++steps) {
                    SCOPED_TRACE(std::string(kOpNames[op]) + (before ? "" : " on a missing file") + ", " +
                                 vphone::call_name(kinds[k]) + " #" + std::to_string(nth));
                    vphone::reset();
                    set_main(before);
                    const Outcome want = expected(op, kinds[k], nth, before);
                    vphone::fail_call(kinds[k], nth, EIO);
                    {
                        vphone::LogCapture log;
                        vphone::StderrCapture err;
                        EXPECT_EQ(run(op), want.result);
                        EXPECT_EQ(err.text(), want.err);
                        EXPECT_EQ(log.lines(), want.log);
                    }
                    if (!want.check_main) continue;
                    EXPECT_EQ(vphone::read_file(kMain), want.main);
                    if (want.main == "") continue;  // loads now fail with "fgets" until a reset
                    vphone::reset();  // and it loads: as before, or created afresh
                    vphone::StderrCapture quiet;
                    const Loaded l = load_all();
                    EXPECT_EQ(l.results, 0);
                    EXPECT_EQ(l.rough, (before ? std::vector<int32_t>{1, 2, 3} : std::vector<int32_t>{255, 255, 255}));
                }
            }
        }
    }
    EXPECT_GE(steps, 60);  // the iteration really ran over the steps
}

}  // namespace
