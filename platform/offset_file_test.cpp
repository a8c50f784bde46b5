// The calibration data file of the shipped library, on the virtual phone.
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::LogLine;

constexpr char kMain[] = "/misc/sensor/kmxc_orvane.cfg";
constexpr char kBackup[] = "/misc/sensor/kmxc_orvane-backup.cfg";
constexpr char kDefault[] = "255,255,255,0,0,0,2147483647,2147483647,2147483647";
constexpr int32_t kMax = INT32_MAX;
const vphone::Owner kCompassOwner{1008, 1000};

std::string message(const char *name, int error) { return std::string(name) + ": " + std::strerror(error) + "\n"; }
LogLine log_line(const char *text) { return LogLine{6, "Msmachdep", text}; }

struct Loaded {
    int rough_result, gs_result, ms_result;
    std::vector<int> rough;
    std::vector<int32_t> gs, ms;
};

// Every load once; outputs start as a marker so untouched outputs are visible.
Loaded load_all() {
    uint8_t rough[3] = {7, 7, 7};
    int32_t gs[3] = {7, 7, 7}, ms[3] = {7, 7, 7};
    Loaded l;
    l.rough_result = msmachdep_LoadRoughOffset(rough);
    l.gs_result = msmachdep_LoadGsOffset(gs);
    l.ms_result = msmachdep_LoadMsOffset(ms);
    l.rough = {rough[0], rough[1], rough[2]};
    l.gs = {gs[0], gs[1], gs[2]};
    l.ms = {ms[0], ms[1], ms[2]};
    return l;
}

class OffsetFileTest : public vphone::PhoneTest {};

TEST_F(OffsetFileTest, MissingFileIsCreatedWithDefaultsThroughTheBackup) {
    const struct {
        const char *name;
        std::function<int()> load;
    } cases[] = {
        {"rough", [] { uint8_t r[3]; return msmachdep_LoadRoughOffset(r) == 0 && r[0] == 255 && r[1] == 255 && r[2] == 255; }},
        {"gravity", [] { int32_t g[3] = {1, 1, 1}; return msmachdep_LoadGsOffset(g) == 0 && g[0] == 0 && g[1] == 0 && g[2] == 0; }},
        {"magnetic", [] { int32_t m[3]; return msmachdep_LoadMsOffset(m) == 0 && m[0] == kMax && m[1] == kMax && m[2] == kMax; }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::remove_file(kMain);
        vphone::StderrCapture err;
        EXPECT_TRUE(c.load());
        EXPECT_EQ(vphone::read_file(kMain), kDefault);
        EXPECT_EQ(vphone::owner_of(kMain), kCompassOwner);
        EXPECT_EQ(vphone::mode_of(kMain), 0666u);
        EXPECT_FALSE(vphone::exists(kBackup));
        EXPECT_EQ(err.text(), "");
    }
}

struct LineCase {
    const char *name;
    const char *content;
    std::vector<int> rough;
    std::vector<int32_t> gs, ms;
};

TEST_F(OffsetFileTest, LinesLoadFieldByFieldWithDefaultsForMissingOnes) {
    const std::string long_line = "1,2,3,4,5,6,7,8," + std::string(300, '9');
    const std::string long_blank = std::string(300, ' ') + "1,2,3";
    const LineCase cases[] = {
        {"full line", "10,20,30,-5,6,7,100,-200,300", {10, 20, 30}, {-5, 6, 7}, {100, -200, 300}},
        {"three fields", "1,2,3", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"one field", "9", {9, 255, 255}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"missing trailing field", "1,2,3,4,5,6,7,8", {1, 2, 3}, {4, 5, 6}, {7, 8, kMax}},
        {"more than nine fields", "1,2,3,4,5,6,7,8,9,10,11", {1, 2, 3}, {4, 5, 6}, {7, 8, 9}},
        {"rough keeps its low 8 bits", "300,-1,256", {44, 255, 0}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"CRLF line end", "1,2,3,4,5,6,7,8,9\r\n", {1, 2, 3}, {4, 5, 6}, {7, 8, 9}},
        {"LF then a second line", "1,2,3\n4,5,6", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        // The text after the last comma is a field even when it is only the line end.
        {"line end after a last comma", "1,2,3,4,5,6,7,8,\r\n", {1, 2, 3}, {4, 5, 6}, {7, 8, 0}},
        {"consecutive commas count as one", "1,,2,,,3", {1, 2, 3}, {0, 0, 0}, {kMax, kMax, kMax}},
        {"blanks and signs", " +5,\t-0, 7x,-2147483648", {5, 0, 7}, {INT32_MIN, 0, 0}, {kMax, kMax, kMax}},
        {"non-numeric text", "a,b,c,d,e,f,g,h,i", {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
        {"beyond 32 bits saturates", "4294967296,-4294967297,99999999999999999999999,2147483648,-2147483649,0,1,1,1",
         {255, 0, 255}, {kMax, INT32_MIN, 0}, {1, 1, 1}},
        {"longer than 255 characters", long_line.c_str(), {1, 2, 3}, {4, 5, 6}, {7, 8, kMax}},
        {"255 blanks fill the line buffer", long_blank.c_str(), {0, 255, 255}, {0, 0, 0}, {kMax, kMax, kMax}},
    };
    for (const LineCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::write_file(kMain, c.content);
        vphone::StderrCapture err;
        Loaded l = load_all();
        EXPECT_EQ(l.rough_result + l.gs_result + l.ms_result, 0);
        EXPECT_EQ(l.rough, c.rough);
        EXPECT_EQ(l.gs, c.gs);
        EXPECT_EQ(l.ms, c.ms);
        EXPECT_EQ(vphone::read_file(kMain), c.content);  // loading never rewrites
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(OffsetFileTest, EmptyFileFailsEveryLoadAndLeavesOutputsAlone) {
    vphone::write_file(kMain, "");
    vphone::LogCapture log;
    vphone::StderrCapture err;
    Loaded l = load_all();
    EXPECT_EQ(l.rough_result, -1);
    EXPECT_EQ(l.gs_result, -1);
    EXPECT_EQ(l.ms_result, -1);
    EXPECT_EQ(l.rough, (std::vector<int>{7, 7, 7}));
    EXPECT_EQ(l.gs, (std::vector<int32_t>{7, 7, 7}));
    EXPECT_EQ(l.ms, (std::vector<int32_t>{7, 7, 7}));
    std::string text = err.text();  // fgets at end of file leaves errno as it was: check the names
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) EXPECT_EQ(text.compare(at, 7, "fgets: "), 0) << text;
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{log_line("msmachdep_LoadGsOffset() fail #3")}));
}

TEST_F(OffsetFileTest, NullPointerFailsWithoutTouchingTheFile) {
    vphone::StderrCapture err;
    EXPECT_EQ(msmachdep_LoadRoughOffset(nullptr), -1);
    EXPECT_EQ(msmachdep_SaveRoughOffset(nullptr), -1);
    EXPECT_EQ(msmachdep_LoadGsOffset(nullptr), -1);
    EXPECT_EQ(msmachdep_SaveGsOffset(nullptr), -1);
    EXPECT_EQ(msmachdep_LoadMsOffset(nullptr), -1);
    EXPECT_EQ(msmachdep_SaveMsOffset(nullptr), -1);
    EXPECT_EQ(vphone::calls(Call::Access) + vphone::calls(Call::Fopen), 0);
    EXPECT_FALSE(vphone::exists(kMain));
    EXPECT_EQ(err.text(), "");
}

TEST_F(OffsetFileTest, UnwritableFileFailsLoadsAndSavesWithAccess) {
    vphone::write_file(kMain, "1,2,3");
    vphone::fail_call(Call::Access, 1, EACCES, vphone::kForever);
    vphone::LogCapture log;
    vphone::StderrCapture err;
    Loaded l = load_all();
    const uint8_t rough[3] = {1, 1, 1};
    const int32_t triple[3] = {1, 1, 1};
    EXPECT_EQ(msmachdep_SaveRoughOffset(rough) + msmachdep_SaveGsOffset(triple) + msmachdep_SaveMsOffset(triple), -3);
    EXPECT_EQ(l.rough_result + l.gs_result + l.ms_result, -3);
    std::string access = message("access", EACCES);
    EXPECT_EQ(err.text(), access + access + access + access + access + access);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{log_line("msmachdep_LoadGsOffset() fail #1")}));
    EXPECT_EQ(vphone::read_file(kMain), "1,2,3");
}

struct SaveCase {
    const char *name;
    const char *before;  // nullptr: no file
    char which;          // 'r' rough, 'g' gravity, 'm' magnetic
    int32_t in[3];
    const char *after;
    bool through_backup;
};

int save(char which, const int32_t (&in)[3]) {
    const uint8_t rough[3] = {static_cast<uint8_t>(in[0]), static_cast<uint8_t>(in[1]), static_cast<uint8_t>(in[2])};
    if (which == 'r') return msmachdep_SaveRoughOffset(rough);
    return which == 'g' ? msmachdep_SaveGsOffset(in) : msmachdep_SaveMsOffset(in);
}

TEST_F(OffsetFileTest, SavesRewriteTheirTripleAndCarryTheOthersOverAsIntegers) {
    const SaveCase cases[] = {
        {"gravity in place", "10,20,30,-5,6,7,100,-200,300", 'g', {1, 2, 3}, "10,20,30,1,2,3,100,-200,300", false},
        {"magnetic", "10,20,30,-5,6,7,100,-200,300", 'm', {4, 5, 6}, "10,20,30,-5,6,7,4,5,6", true},
        {"rough", "10,20,30,-5,6,7,100,-200,300", 'r', {31, 0, 255}, "31,0,255,-5,6,7,100,-200,300", true},
        {"rough 300 carried by gravity", "300,2,3", 'g', {0, 0, -1}, "300,2,3,0,0,-1,2147483647,2147483647,2147483647", false},
        {"rough 300 carried by magnetic", "300,2,3", 'm', {kMax, INT32_MIN, 0}, "300,2,3,0,0,0,2147483647,-2147483648,0", true},
        {"text normalised", " +1x,,2,3\r\n", 'm', {0, 0, 0}, "1,2,3,0,0,0,0,0,0", true},
        {"missing file, magnetic", nullptr, 'm', {9, 9, 9}, "255,255,255,0,0,0,9,9,9", true},
        {"missing file, gravity in place", nullptr, 'g', {9, 9, 9}, "255,255,255,9,9,9,2147483647,2147483647,2147483647", false},
    };
    for (const SaveCase &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        vphone::remove_file(kMain);
        if (c.before != nullptr) vphone::write_file(kMain, c.before);
        vphone::StderrCapture err;
        EXPECT_EQ(save(c.which, c.in), 0);
        EXPECT_EQ(vphone::read_file(kMain), c.after);
        EXPECT_EQ(vphone::calls(Call::Rename) >= 1 && vphone::owner_of(kMain) == kCompassOwner, c.through_backup);
        EXPECT_FALSE(vphone::exists(kBackup));
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(OffsetFileTest, SavedTriplesLoadBackAndLeaveTheOthersAlone) {
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    std::uniform_int_distribution<int> byte(0, 255);
    msmachdep_ResetOffsetData();
    Loaded expected = load_all();
    for (int round = 0; round < 100; ++round) {
        const int32_t in[3] = {any(random), any(random), round == 0 ? INT32_MIN : any(random)};
        const int32_t bytes[3] = {byte(random), byte(random), byte(random)};
        const char which = "rgm"[round % 3];
        ASSERT_EQ(save(which, which == 'r' ? bytes : in), 0) << round;
        if (which == 'r') expected.rough = {bytes[0], bytes[1], bytes[2]};
        if (which == 'g') expected.gs = {in[0], in[1], in[2]};
        if (which == 'm') expected.ms = {in[0], in[1], in[2]};
        Loaded l = load_all();
        ASSERT_EQ(l.rough, expected.rough) << round;
        ASSERT_EQ(l.gs, expected.gs) << round;
        ASSERT_EQ(l.ms, expected.ms) << round;
    }
}

TEST_F(OffsetFileTest, ResetWritesTheDefaultsWhateverTheFileHeld) {
    const char *befores[] = {nullptr, "", "1,2,3,4,5,6,7,8,9", "garbage\r\n", "300"};
    for (const char *before : befores) {
        SCOPED_TRACE(before != nullptr ? before : "no file");
        vphone::reset();
        vphone::remove_file(kMain);
        if (before != nullptr) vphone::write_file(kMain, before);
        vphone::LogCapture log;
        vphone::StderrCapture err;
        msmachdep_ResetOffsetData();
        EXPECT_EQ(vphone::read_file(kMain), kDefault);
        EXPECT_EQ(vphone::owner_of(kMain), kCompassOwner);
        EXPECT_EQ(vphone::mode_of(kMain), 0666u);
        EXPECT_EQ(vphone::calls(Call::Access), 0);  // no test for the file first
        EXPECT_TRUE(log.lines().empty());
        EXPECT_EQ(err.text(), "");
    }
}

// ---- Faults at every step ----------------------------------------------------------

enum Op { kSaveRough, kSaveGs, kSaveMs, kReset, kLoadGs, kOpCount };
const char *const kOpNames[] = {"SaveRoughOffset", "SaveGsOffset", "SaveMsOffset", "ResetOffsetData", "LoadGsOffset"};

int run(Op op) {
    const int32_t in[3] = {11, 12, 13};
    int32_t out[3];
    switch (op) {
    case kSaveRough: return save('r', in);
    case kSaveGs: return save('g', in);
    case kSaveMs: return save('m', in);
    case kReset: msmachdep_ResetOffsetData(); return 0;
    default: return msmachdep_LoadGsOffset(out);
    }
}

struct Outcome {
    int result;
    std::string err;
    std::vector<LogLine> log;
    bool check_main;
    std::optional<std::string> main;  // the main file afterwards; nullopt: absent
};

// What the library does when the nth call of a kind fails with EIO during op, the
// main file holding `before` beforehand or being absent.
Outcome expected(Op op, Call call, int nth, bool existed, const char *before) {
    auto perror_of = [](const char *name) { return std::string(name) + ": " + std::strerror(EIO) + "\n"; };
    const std::optional<std::string> old = existed ? std::optional<std::string>(before) : std::nullopt;
    if (op == kReset) {
        const int step = call == Call::Fopen ? 1 : call == Call::Fprintf || call == Call::Fclose ? 2
                       : call == Call::Chown ? 3 : call == Call::Chmod ? 4 : 5;
        return {0, "", {log_line(("msmachdep_ResetOffsetData() fail #" + std::to_string(step)).c_str())}, true, old};
    }
    // A missing file is created first (each creation call once); then the line is
    // read (fopen, fgets, fclose) and, for saves, written (fopen, fprintf, fclose, ...).
    const bool creating = !existed && nth == 1 && call != Call::Fgets;
    const bool reading = !creating && nth == (existed ? 1 : 2);
    Outcome o{-1, "", {}, true, creating || existed ? old : std::optional<std::string>(kDefault)};
    switch (call) {
    case Call::Fopen:
        if (op != kSaveMs || creating || reading) o.err = perror_of("fopen");  // the magnetic backup's: silent
        break;
    case Call::Fclose:
        if (reading) return {0, "", {}, false, {}};  // closing after reading: result not needed
        o.err = perror_of("fprintf");                 // a failed close of a write loses the text
        break;
    default: o.err = perror_of(vphone::call_name(call)); break;
    }
    if (op == kLoadGs) {
        const char *line = creating || call == Call::Access ? "msmachdep_LoadGsOffset() fail #1"
                         : call == Call::Fopen ? "msmachdep_LoadGsOffset() fail #2"
                         : call == Call::Fgets ? "msmachdep_LoadGsOffset() fail #3" : nullptr;
        if (line != nullptr) o.log = {log_line(line)};
    }
    // The in-place gravity rewrite has already truncated the main file when its write fails.
    if (op == kSaveGs && (call == Call::Fprintf || call == Call::Fclose)) o.main = "";
    return o;
}

TEST_F(OffsetFileTest, FaultAtAnyStepLeavesTheMainFileAsItWasExceptTheInPlaceRewrite) {
    const char *const kBefore = "1,2,3,4,5,6,7,8,9";
    const Call kinds[] = {Call::Access, Call::Fopen, Call::Fgets, Call::Fprintf, Call::Fclose,
                          Call::Chown, Call::Chmod, Call::Rename};
    auto prepare = [&](bool existed) {
        vphone::reset();
        vphone::remove_file(kMain);
        vphone::remove_file(kBackup);
        if (existed) vphone::write_file(kMain, kBefore);
    };
    int steps = 0;
    for (bool existed : {true, false}) {
        for (int o = 0; o < kOpCount; ++o) {
            const Op op = static_cast<Op>(o);
            prepare(existed);  // a clean run counts the calls of each step
            run(op);
            int counts[std::size(kinds)];
            for (size_t k = 0; k < std::size(kinds); ++k) counts[k] = vphone::calls(kinds[k]);
            for (size_t k = 0; k < std::size(kinds); ++k) {
                const Call call = kinds[k];
                if (call == Call::Access && !existed) continue;  // failing with ENOENT is the normal path
                for (int nth = 1; nth <= counts[k]; ++nth) {
                    SCOPED_TRACE(std::string(kOpNames[op]) + (existed ? "" : " on a missing file") + ", " +
                                 vphone::call_name(call) + " #" + std::to_string(nth));
                    prepare(existed);
                    const Outcome want = expected(op, call, nth, existed, kBefore);
                    vphone::fail_call(call, nth, EIO);
                    {
                        vphone::LogCapture log;
                        vphone::StderrCapture err;
                        EXPECT_EQ(run(op), want.result);
                        EXPECT_EQ(err.text(), want.err);
                        EXPECT_EQ(log.lines(), want.log);
                    }
                    ++steps;
                    if (!want.check_main) continue;
                    EXPECT_EQ(vphone::read_file(kMain), want.main);
                    if (want.main == "") continue;  // loads now fail with "fgets" until a reset
                    vphone::reset();  // and the file loads: as before, or created afresh
                    vphone::StderrCapture quiet;
                    Loaded l = load_all();
                    EXPECT_EQ(l.rough_result + l.gs_result + l.ms_result, 0);
                    const std::vector<int> rough = existed ? std::vector<int>{1, 2, 3} : std::vector<int>{255, 255, 255};
                    EXPECT_EQ(l.rough, rough);
                }
            }
        }
    }
    EXPECT_GE(steps, 60);  // the iteration really ran over the steps
}

}  // namespace
