// The durable writer's rules on the virtual phone: what it refuses, the order of its
// calls, a failure or a power cut at each of them, exclusive temporaries, the lock
// across processes, and the safe reader.
#include "service/durable_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "service/kit_file_test_support.h"
#include "vphone/phone_fixture.h"

namespace {

using namespace kmxc_kit;
using vphone::Call;

constexpr const char *kDir = "/misc/sensor";
constexpr const char *kFile = "/misc/sensor/f.cfg";

class DurableFile : public vphone::PhoneTest {
protected:
    // Takes the lock and replaces kFile with text.
    WriteResult save(const std::string &text) {
        DirLock lock;
        WriteResult r = lock_directory(kDir, &lock);
        if (r.outcome != Outcome::kDone) return r;
        r = replace_file(lock, kFile, text.data(), text.size(), 1008, 1000, 0666);
        unlock_directory(&lock);
        return r;
    }
    // Powered on, with kFile holding "old" and nothing else in /misc/sensor.
    static void fresh() {
        vphone::reset();
        for (const auto &e : std::filesystem::directory_iterator(vphone::host_path(kDir)))
            std::filesystem::remove_all(e.path());
        vphone::write_file(kFile, "old");
    }
    // The names in the phone's /misc/sensor.
    static std::vector<std::string> names() {
        std::vector<std::string> out;
        for (const auto &e : std::filesystem::directory_iterator(vphone::host_path(kDir)))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
};

// The content is on the flash before the name points at it, and the name before the
// save returns: fsync of the file, then the rename, then fsync of the directory. The file
// has the content, owner and mode asked for, and no temporary is left; a failure or a
// power cut at any of its calls leaves the old file or the new.
TEST_F(DurableFile, ReplacesInOrderAndAFailureOrAPowerCutAtAnyCallLeavesTheOldFileOrTheNew) {
    for (const char *text : {"first", "", "second, longer than the first"}) {
        vphone::reset();
        ASSERT_EQ(save(text).outcome, Outcome::kDone) << text;
        EXPECT_EQ(vphone::read_file(kFile), text);
        EXPECT_EQ(vphone::owner_of(kFile), (vphone::Owner{1008, 1000}));
        EXPECT_EQ(vphone::mode_of(kFile), 0666u);
        EXPECT_EQ(names(), std::vector<std::string>{"f.cfg"});
    }
    std::vector<std::string> calls;  // the last save's, over a file already there
    for (const auto &c : vphone::file_call_log())
        calls.push_back(std::string(vphone::call_name(c.call)) + " " + c.path);
    const std::string temporary = std::string(kFile) + ".tmp-" + std::to_string(getpid()) + "-0";
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "open /misc/sensor", "flock /misc/sensor",                    // the lock
                         "open " + std::string(kFile), "close " + std::string(kFile),  // the target: a regular file
                         "access " + std::string(kFile),                               // ... that may be written
                         "open " + temporary, "write " + temporary, "fchown " + temporary, "fchmod " + temporary,
                         "fsync " + temporary, "rename " + std::string(kFile), "close " + temporary,
                         "fsync /misc/sensor", "close /misc/sensor"}));
    // A failure at any of those calls (but the closes) leaves the old file and no temporary,
    // and says at which step; only the directory's fsync comes after the new file is in place.
    using enum WriteStep;
    const WriteStep steps[] = {kLock,  kLock, kTarget, kNone,   kAccess, kCreate,  kWrite,
                               kOwner, kMode, kSync,   kRename, kNone,   kSyncDir, kNone};
    const std::vector<vphone::FileCall> log = vphone::file_call_log();
    ASSERT_EQ(log.size(), std::size(steps));
    std::map<Call, int> nth;
    for (size_t i = 0; i < log.size(); ++i) {
        SCOPED_TRACE("failing " + calls[i]);
        const int n = ++nth[log[i].call];
        if (steps[i] == kNone) continue;
        fresh();
        vphone::fail_call(log[i].call, n, ENOSPC);
        const WriteResult r = save("new");
        EXPECT_NE(r.outcome, Outcome::kDone);
        EXPECT_EQ(r.step, steps[i]);
        EXPECT_EQ(r.error, ENOSPC);
        EXPECT_EQ(vphone::read_file(kFile), steps[i] == kSyncDir ? "new" : "old");
        EXPECT_EQ(names(), std::vector<std::string>{"f.cfg"});
    }
    // Whenever the power fails, and whatever the journal had committed, the file is the old
    // one or the new one, never empty; once the save returned, it is the new one.
    const long returned = static_cast<long>(calls.size()) + 1;  // a cut after the save
    for (const vphone::CutKeeps keeps : {vphone::CutKeeps::kSynced, vphone::CutKeeps::kEntries}) {
        bool saw_old = false, saw_new = false;
        for (long at = 1; at <= returned; ++at) {
            SCOPED_TRACE("cut at file call " + std::to_string(at) +
                         (keeps == vphone::CutKeeps::kEntries ? " (entries kept)" : ""));
            fresh();
            vphone::cut_power_at_file_call(at, false, keeps);
            save("new");
            if (!vphone::powered_off()) vphone::power_cut(keeps);  // after the save
            vphone::reset();
            const auto now = vphone::read_file(kFile);
            ASSERT_TRUE(now);
            EXPECT_TRUE(*now == "old" || *now == "new") << *now;
            saw_old |= *now == "old";
            saw_new |= *now == "new";
            if (at == returned) { EXPECT_EQ(*now, "new") << "a finished save did not survive"; }
        }
        EXPECT_TRUE(saw_old && saw_new);
    }
}

// What the target is: the reader never follows a link nor waits for a FIFO's writer and
// says what it found; anything but a regular file that may be written is refused by the
// writer and never written through.
TEST_F(DurableFile, TheReaderAndTheWriterNeverFollowNorWaitAndSayWhatTheyFound) {
    const std::string outside = vphone::root() + "/outside";
    vphone::write_file("/etc/kmxc_target", "precious");
    const auto text = [](const char *t) { return [t](const std::string &h) { std::ofstream(h) << t; }; };
    const struct {
        const char *name;
        std::function<void(const std::string &host)> make;
        PathKind kind;
        std::string text;  // what the reader reads into its 8 bytes
        bool too_long;
        WriteStep refused;             // where the writer refuses it (kNone: it writes)
        std::pair<Call, int> fails{};  // a call on the file that fails, and its errno
    } cases[] = {
        {"missing", [](const std::string &) {}, PathKind::kMissing, "", false, WriteStep::kNone},
        {"exactly full", text("1234567"), PathKind::kRegular, "1234567", false, WriteStep::kNone},
        {"too long", text("12345678"), PathKind::kRegular, "1234567", true, WriteStep::kNone},
        {"symbolic link", [&](const std::string &h) { std::filesystem::create_symlink(outside, h); },
         PathKind::kSymlink, "", false, WriteStep::kTarget},
        {"link to a file",
         [&](const std::string &h) { std::filesystem::create_symlink(vphone::host_path("/etc/kmxc_target"), h); },
         PathKind::kSymlink, "", false, WriteStep::kTarget},
        {"FIFO without a writer", [](const std::string &h) { ::mkfifo(h.c_str(), 0600); }, PathKind::kFifo, "", false,
         WriteStep::kTarget},
        {"directory", [](const std::string &h) { std::filesystem::create_directory(h); }, PathKind::kDirectory, "",
         false, WriteStep::kTarget},
        {"unreadable", text("1,2,3"), PathKind::kUnreadable, "", false, WriteStep::kTarget, {Call::Open, EACCES}},
        {"read-only", text("pinned"), PathKind::kRegular, "pinned", false, WriteStep::kAccess, {Call::Access, EROFS}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vphone::reset();
        std::filesystem::remove_all(vphone::host_path(kFile));
        c.make(vphone::host_path(kFile));
        if (c.fails.second != 0) vphone::fail_path(kFile, c.fails.first, c.fails.second);
        char buffer[8];
        const FileRead read = read_small_file(kFile, buffer, sizeof buffer);
        EXPECT_EQ(read.kind, c.kind);
        EXPECT_EQ(std::string(buffer, read.length), c.text);
        EXPECT_EQ(read.too_long, c.too_long);
        if (c.kind == PathKind::kUnreadable) { EXPECT_EQ(read.error, EACCES); }
        const WriteResult r = save("new");
        if (c.refused == WriteStep::kNone) {
            EXPECT_EQ(r.outcome, Outcome::kDone);
            EXPECT_EQ(vphone::read_file(kFile), "new");
            continue;
        }
        EXPECT_EQ(r.outcome, Outcome::kRefused);
        EXPECT_EQ(r.kind, c.kind);
        EXPECT_EQ(r.step, c.refused);
        vphone::StderrCapture err;
        report_write(kFile, r);
        const std::string said = err.text();
        EXPECT_NE(said.find(std::string("kmxc_service: ") + kFile), std::string::npos) << said;
        if (c.refused == WriteStep::kTarget) {
            const char *what = c.kind == PathKind::kUnreadable ? "cannot be read" : path_kind_text(c.kind);
            EXPECT_NE(said.find(what), std::string::npos) << said;
        }
        EXPECT_FALSE(std::filesystem::exists(outside));
        EXPECT_EQ(vphone::read_file("/etc/kmxc_target"), "precious");
        EXPECT_EQ(names(), std::vector<std::string>{"f.cfg"});
    }
}

// A temporary is always a new file of the writer's own: a name someone else holds (a
// link planted there, another writer's file) is never opened. Another process holding
// the directory's lock: the save does not wait and says so, and touches nothing.
TEST_F(DurableFile, TemporariesAreExclusiveLeftoversGoAndTheLockKeepsOthersOutWithoutWaiting) {
    const std::string mine = std::string(kFile) + ".tmp-" + std::to_string(getpid());
    const std::string outside = vphone::root() + "/outside";
    std::filesystem::create_symlink(outside, vphone::host_path(mine + "-0"));
    vphone::write_file(mine + "-1", "another writer's");
    vphone::write_file(kFile, "old");
    kit_file_test::OtherProcessHoldingTheLock other;
    ASSERT_TRUE(other.held());
    EXPECT_EQ(save("new").outcome, Outcome::kLocked);
    EXPECT_EQ(vphone::read_file(kFile), "old");
    other.release();
    ASSERT_EQ(save("new").outcome, Outcome::kDone);  // released with the process
    EXPECT_EQ(vphone::read_file(kFile), "new");
    EXPECT_FALSE(std::filesystem::exists(outside));
    EXPECT_EQ(vphone::read_file(mine + "-1"), "another writer's");
    // Leftovers of this file's writers go; other files stay.
    vphone::write_file(std::string(kFile) + ".tmp-99999-0", "dead writer's");
    vphone::write_file("/misc/sensor/g.cfg.tmp-1-0", "another file's");
    DirLock lock;
    ASSERT_EQ(lock_directory(kDir, &lock).outcome, Outcome::kDone);
    remove_stale_temporaries(lock, kFile);
    unlock_directory(&lock);
    EXPECT_EQ(names(), (std::vector<std::string>{"f.cfg", "g.cfg.tmp-1-0"}));
}

}  // namespace
