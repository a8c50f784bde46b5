#include "vphone/fault_plan.h"
#include "vphone/world.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vphone {
namespace {

constexpr Call kCalls[] = {Call::Open,         Call::Close,     Call::Read,          Call::Write,   Call::Ioctl,
                           Call::Usleep,       Call::Fopen,     Call::Fgets,         Call::Fprintf, Call::Fclose,
                           Call::Access,       Call::Chown,     Call::Chmod,         Call::Rename,  Call::Unlink,
                           Call::Fsync,        Call::Fdatasync, Call::Flock,         Call::Fchmod,  Call::Fchown,
                           Call::ClockGettime, Call::Nanosleep, Call::ClockNanosleep};
static_assert(sizeof kCalls / sizeof kCalls[0] == static_cast<int>(Call::ClockNanosleep) + 1,
              "every call can be planned");
constexpr const char *kCallList =
    "open, close, read, write, ioctl, usleep, fopen, fgets, fprintf, fclose, access, chown, chmod, rename, unlink, "
    "fsync, fdatasync, flock, fchmod, fchown, clock_gettime, nanosleep, clock_nanosleep";

struct ErrnoName {
    const char *name;
    int value;
};
constexpr ErrnoName kErrnos[] = {{"EPERM", EPERM},        {"ENOENT", ENOENT}, {"EINTR", EINTR},   {"EIO", EIO},
                                 {"ENXIO", ENXIO},        {"EBADF", EBADF},   {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM},
                                 {"EACCES", EACCES},      {"EFAULT", EFAULT}, {"EBUSY", EBUSY},   {"EEXIST", EEXIST},
                                 {"ENODEV", ENODEV},      {"EISDIR", EISDIR}, {"EINVAL", EINVAL}, {"EMFILE", EMFILE},
                                 {"ENOTTY", ENOTTY},      {"EFBIG", EFBIG},   {"ENOSPC", ENOSPC}, {"EROFS", EROFS},
                                 {"ETIMEDOUT", ETIMEDOUT}};

bool whole(std::string_view text, int lo, int *out) {
    if (text.empty() || text.size() > 9) return false;
    int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v < lo) return false;
    *out = v;
    return true;
}

bool call_named(std::string_view name, Call *out) {
    for (Call c : kCalls)
        if (name == call_name(c)) {
            *out = c;
            return true;
        }
    return false;
}

// powercut:N[:CALL]
bool parse_power_cut(std::string_view entry, const std::string_view (&field)[4], int n, PlannedFault *f,
                     std::string *error) {
    f->power_cut = true;
    f->any_file_call = n < 3;
    f->count = 1;
    f->error = 0;
    if (n < 2 || n > 3 || !whole(field[1], 1, &f->nth)) {
        *error = "'" + std::string(entry) + "': a power cut is " + std::string(field[0]) +
                 ":N[:CALL], N a whole number from 1";
        return false;
    }
    if (n == 3 && !call_named(field[2], &f->call)) {
        *error = "'" + std::string(entry) + "': unknown call '" + std::string(field[2]) + "' (" + kCallList + ")";
        return false;
    }
    return true;
}

bool parse_entry(std::string_view entry, PlannedFault *f, std::string *error) {
    std::string_view field[4];
    int n = 0;
    for (size_t at = 0; n < 4; ++n) {
        const size_t colon = entry.find(':', at);
        field[n] = entry.substr(at, colon == std::string_view::npos ? std::string_view::npos : colon - at);
        if (colon == std::string_view::npos) {
            ++n;
            break;
        }
        at = colon + 1;
        if (n == 3) {
            *error = "'" + std::string(entry) + "': at most CALL:N:ERRNO:COUNT";
            return false;
        }
    }
    if (field[0] == "powercut" || field[0] == "powercut-entries") {
        f->keeps = field[0] == "powercut" ? CutKeeps::kSynced : CutKeeps::kEntries;
        return parse_power_cut(entry, field, n, f, error);
    }
    if (!call_named(field[0], &f->call)) {
        *error = "'" + std::string(entry) + "': unknown call '" + std::string(field[0]) + "' (" + kCallList +
                 ", or powercut, powercut-entries)";
        return false;
    }
    if (n < 2 || !whole(field[1], 1, &f->nth)) {
        *error = "'" + std::string(entry) + "': the occurrence must be a whole number from 1";
        return false;
    }
    f->error = EIO;
    if (n >= 3) {
        bool named = false;
        for (const ErrnoName &e : kErrnos)
            if (field[2] == e.name) f->error = e.value, named = true;
        if (!named && !whole(field[2], 1, &f->error)) {
            *error = "'" + std::string(entry) + "': unknown errno '" + std::string(field[2]) + "'";
            return false;
        }
    }
    f->count = 1;
    if (n == 4 && field[3] == "all")
        f->count = kForever;
    else if (n == 4 && !whole(field[3], 1, &f->count)) {
        *error = "'" + std::string(entry) + "': the count must be a whole number from 1, or all";
        return false;
    }
    return true;
}

const char *g_counts_file = nullptr;

void write_counts() {
    if (FILE *out = std::fopen(g_counts_file, "w")) {
        for (Call c : kCalls) std::fprintf(out, "%s %d\n", call_name(c), calls(c));
        std::fclose(out);
    }
}

}  // namespace

bool parse_fault_plan(std::string_view text, std::vector<PlannedFault> *out, std::string *error) {
    out->clear();
    if (text.empty()) {
        *error = "empty fault plan";
        return false;
    }
    int cuts = 0;
    for (;;) {  // every entry between commas, an empty one included
        const size_t comma = text.find(',');
        PlannedFault f{};
        if (!parse_entry(text.substr(0, comma), &f, error)) return false;
        if (f.power_cut && ++cuts > 1) {
            *error = "'" + std::string(text.substr(0, comma)) + "': one power cut per plan";
            return false;
        }
        out->push_back(f);
        if (comma == std::string_view::npos) return true;
        text = text.substr(comma + 1);
    }
}

void apply_fault_plan(const std::vector<PlannedFault> &plan) {
    for (const PlannedFault &f : plan) {
        if (!f.power_cut)
            fail_call(f.call, f.nth, f.error, f.count);
        else if (f.any_file_call)
            cut_power_at_file_call(f.nth, true, f.keeps);
        else
            cut_power_at(f.call, f.nth, true, f.keeps);
    }
}

void apply_environment_fault_plan() {
    static bool done = false;
    if (done) return;
    done = true;
    if (const char *text = std::getenv("VPHONE_FAULTS"); text != nullptr && *text != '\0') {
        std::vector<PlannedFault> plan;
        std::string error;
        if (!parse_fault_plan(text, &plan, &error)) {
            std::fprintf(stderr, "vphone: VPHONE_FAULTS: %s\n", error.c_str());
            std::exit(2);
        }
        // Counted from the program's start: this runs inside its first counted call.
        apply_fault_plan(plan);
    }
    if (const char *file = std::getenv("VPHONE_CALL_COUNTS"); file != nullptr && *file != '\0') {
        g_counts_file = file;
        std::atexit(write_counts);
    }
    if (const char *file = std::getenv("VPHONE_FILE_LOG"); file != nullptr && *file != '\0') {
        state().file_log_out = std::fopen(file, "w");
        if (state().file_log_out == nullptr) {
            std::fprintf(stderr, "vphone: VPHONE_FILE_LOG: cannot write '%s'\n", file);
            std::exit(2);
        }
    }
}

}  // namespace vphone
