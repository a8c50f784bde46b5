// The calibration data file of the shipped library, on the virtual phone.
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::LogLine;
using Text = std::optional<std::string>;  // a file's content; nullopt: no file
using Fields = std::vector<int32_t>;

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

// Every load once: the sum of their results and the nine fields they gave. Outputs
// start at 7 so untouched outputs show.
std::pair<int, Fields> load_all() {
    uint8_t r[3] = {7, 7, 7};
    int32_t g[3] = {7, 7, 7}, m[3] = {7, 7, 7};
    const int results = msmachdep_LoadRoughOffset(r) + msmachdep_LoadGsOffset(g) + msmachdep_LoadMsOffset(m);
    return {results, {r[0], r[1], r[2], g[0], g[1], g[2], m[0], m[1], m[2]}};
}

enum Op { kSaveRough, kSaveGs, kSaveMs, kReset, kLoadGs };

int run(Op op, const int32_t (&in)[3]) {
    const uint8_t rough[3] = {static_cast<uint8_t>(in[0]), static_cast<uint8_t>(in[1]), static_cast<uint8_t>(in[2])};
    int32_t out[3];
    if (op == kReset) msmachdep_ResetOffsetData();
    return op == kSaveRough ? msmachdep_SaveRoughOffset(rough)
           : op == kSaveGs  ? msmachdep_SaveGsOffset(in)
           : op == kSaveMs  ? msmachdep_SaveMsOffset(in)
           : op == kLoadGs  ? msmachdep_LoadGsOffset(out)
                            : 0;
}

class OffsetFileTest : public vphone::PhoneTest {};

// A load that creates the missing file and one whose read fails (as on an empty file)
// are among the faulted cases below.
TEST_F(OffsetFileTest, LoadsReadFieldByFieldWithDefaultsForMissingOnes) {
    const struct {
        const char *name;
        std::string content;
        Fields fields;
    } cases[] = {
        {"full line", "10,20,30,-5,6,7,100,-200,300", {10, 20, 30, -5, 6, 7, 100, -200, 300}},
        {"one field: each triple's own default", "9", {9, 255, 255, 0, 0, 0, kMax, kMax, kMax}},
        {"rough keeps its low 8 bits", "300,-1,256", {44, 255, 0, 0, 0, 0, kMax, kMax, kMax}},
        {"comma runs, a tenth field", "1,,2,,,3,4,5,6,7,8,9,10\n", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"CRLF right after the ninth field", "1,2,3,4,5,6,7,8,-9\r\n", {1, 2, 3, 4, 5, 6, 7, 8, -9}},
        {"only the first line counts", "1,2,3\n4,5,6", {1, 2, 3, 0, 0, 0, kMax, kMax, kMax}},
        {"beyond 32 bits saturates",
         "4294967296,-4294967297,99999999999999999999999,2147483648,-2147483649,0,1,1,1",
         {255, 0, 255, kMax, kMin, 0, 1, 1, 1}},
        // 246 blanks and "1,2,3,4,5" are the 255 characters read: "56" is cut to 5.
        {"longer than 255 characters", std::string(246, ' ') + "1,2,3,4,56,6", {1, 2, 3, 4, 5, 0, kMax, kMax, kMax}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        set_main(c.content);
        vphone::LogCapture log;
        vphone::StderrCapture err;
        EXPECT_EQ(load_all(), std::make_pair(0, c.fields));
        EXPECT_EQ(vphone::read_file(kMain), c.content);  // loading never rewrites
        EXPECT_EQ(err.text(), "");
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST_F(OffsetFileTest, NullPointerFailsWithoutTouchingTheFile) {
    EXPECT_EQ(msmachdep_LoadRoughOffset(nullptr) + msmachdep_LoadGsOffset(nullptr) + msmachdep_LoadMsOffset(nullptr) +
                  msmachdep_SaveRoughOffset(nullptr) + msmachdep_SaveGsOffset(nullptr) +
                  msmachdep_SaveMsOffset(nullptr),
              -6);
    EXPECT_EQ(vphone::calls(Call::Access) + vphone::calls(Call::Fopen), 0);
}

// ---- Saves, loads and reset, with a fault at every step --------------------------------

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
        const int step = call == Call::Fopen                             ? 1
                         : call == Call::Fprintf || call == Call::Fclose ? 2
                         : call == Call::Chown                           ? 3
                         : call == Call::Chmod                           ? 4
                                                                         : 5;
        return {0, "", {log_line("msmachdep_ResetOffsetData() fail #" + std::to_string(step))}, true, before};
    }
    // A missing file is created first (each creation call once); then the line is
    // read (fopen, fgets, fclose) and, for saves, written (fopen, fprintf, fclose, ...).
    const bool creating = !before && nth == 1 && call != Call::Fgets;
    const bool reading = !creating && nth == (before ? 1 : 2);
    Outcome o{-1, perror_of(vphone::call_name(call)), {}, true, creating || before ? before : Text{kDefault}};
    if (call == Call::Fopen && op == kSaveMs && !creating && !reading) o.err = "";  // the magnetic backup's: silent
    if (call == Call::Fclose && reading) return {0, "", {}, false, {}};  // closing after reading: result unused
    if (call == Call::Fclose) o.err = perror_of("fprintf");              // a failed close of a write loses the text
    if (op == kLoadGs) {
        const int fail = creating || call == Call::Access ? 1 : call == Call::Fopen ? 2 : call == Call::Fgets ? 3 : 0;
        if (fail != 0) o.log = {log_line("msmachdep_LoadGsOffset() fail #" + std::to_string(fail))};
    }
    // The in-place gravity rewrite has already truncated the main file when its write fails.
    if (op == kSaveGs && (call == Call::Fprintf || call == Call::Fclose)) o.main = "";
    return o;
}

// Each case runs once cleanly, then once for every step of it with that step failing.
TEST_F(OffsetFileTest, SavesRewriteTheirTripleAndAFaultAtAnyStepLeavesTheMainFileAsItWas) {
    const char *const full = "10,20,30,-5,6,7,100,-200,300";
    const struct {
        const char *name;
        Text before;
        Op op;
        int32_t in[3];
        const char *after;
    } cases[] = {
        {"gravity", full, kSaveGs, {1, 2, 3}, "10,20,30,1,2,3,100,-200,300"},
        {"magnetic", full, kSaveMs, {4, 5, 6}, "10,20,30,-5,6,7,4,5,6"},
        {"rough", full, kSaveRough, {31, 0, 255}, "31,0,255,-5,6,7,100,-200,300"},
        {"rough 300 survives", "300,2,3", kSaveMs, {kMax, kMin, 0}, "300,2,3,0,0,0,2147483647,-2147483648,0"},
        {"magnetic, no file", std::nullopt, kSaveMs, {9, 9, 9}, "255,255,255,0,0,0,9,9,9"},
        {"gravity, no file", std::nullopt, kSaveGs, {9, 9, 9}, "255,255,255,9,9,9,2147483647,2147483647,2147483647"},
        {"gravity load", full, kLoadGs, {}, full},
        {"gravity load, no file", std::nullopt, kLoadGs, {}, kDefault},
        {"reset", full, kReset, {}, kDefault},
    };
    const Call kinds[] = {Call::Access, Call::Fopen, Call::Fgets, Call::Fprintf,
                          Call::Fclose, Call::Chown, Call::Chmod, Call::Rename};
    size_t steps = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::pair<Call, int>> runs = {{Call::Access, 0}};  // nth 0: the clean run, which counts the steps
        for (size_t i = 0; i < runs.size(); ++i) {
            const auto [call, nth] = runs[i];
            SCOPED_TRACE(nth == 0 ? "clean" : vphone::call_name(call) + (" #" + std::to_string(nth)) + " failing");
            vphone::reset();
            set_main(c.before);
            const Outcome want = nth == 0 ? Outcome{0, "", {}, true, c.after} : expected(c.op, call, nth, c.before);
            if (nth != 0) vphone::fail_call(call, nth, EIO);
            {
                vphone::LogCapture log;
                vphone::StderrCapture err;
                EXPECT_EQ(run(c.op, c.in), want.result);
                EXPECT_EQ(err.text(), want.err);
                EXPECT_EQ(log.lines(), want.log);
            }
            if (nth == 0) {
                EXPECT_FALSE(vphone::exists(kBackup));
                // Only a file that went through the backup has the owner and mode.
                const bool via_backup = c.op != kSaveGs && (c.op != kLoadGs || !c.before);
                EXPECT_EQ(vphone::owner_of(kMain) == kCompassOwner && vphone::mode_of(kMain) == 0666u, via_backup);
                for (const Call k : kinds) {
                    if (k == Call::Access && !c.before) continue;  // failing with ENOENT is the normal path
                    for (int n = 1; n <= vphone::calls(k); ++n) runs.emplace_back(k, n);
                }
                steps += runs.size() - 1;
            }
            if (!want.check_main) continue;
            EXPECT_EQ(vphone::read_file(kMain), want.main);
            if (want.main == "") continue;  // loads now fail with "fgets" until a reset
            vphone::reset();                // and it loads: as before, or created afresh
            vphone::StderrCapture quiet;
            EXPECT_EQ(load_all().first, 0);
        }
    }
    EXPECT_GE(steps, 80u);  // the iteration really ran over the steps
}

}  // namespace
