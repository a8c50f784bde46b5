// The phone's flash: what the files would hold after a power cut (vphone.h, "Power").
// Directories enter the model the first time a counted call changes them (or a
// helper writes into them), with what they hold then; fsync of a file records its
// content, fsync of a directory its entries. A power cut writes that state back.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "vphone/world.h"

namespace vphone {

namespace {

namespace fs = std::filesystem;

Durability &model() { return state().durable; }

std::string parent_of(const std::string &host) { return fs::path(host).parent_path().string(); }
std::string name_of(const std::string &host) { return fs::path(host).filename().string(); }

std::string content_of(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The durable content object of the file with this inode; made (holding initial) the
// first time the file is seen.
Durable object_of(ino_t ino, const std::string &initial) {
    Durable &d = model().live[ino];
    if (!d) d = std::make_shared<DurableContent>(DurableContent{initial});
    return d;
}

// The regular files in dir: name -> inode.
std::map<std::string, ino_t> regular_files(const std::string &dir) {
    std::map<std::string, ino_t> out;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(dir, ec)) {
        struct stat st {};
        if (::lstat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode))
            out[entry.path().filename().string()] = st.st_ino;
    }
    return out;
}

// A directory the phone is about to change enters the model with what it holds now:
// it got there before the phone touched it, so it is durable.
void model_dir(const std::string &dir) {
    if (model().dirs.count(dir) != 0) return;
    std::map<std::string, Durable> entries;
    for (const auto &[name, ino] : regular_files(dir)) entries[name] = object_of(ino, content_of(dir + "/" + name));
    model().dirs[dir] = std::move(entries);
}

}  // namespace

void power_on() {
    model().dirs.clear();
    model().live.clear();
    model().retiring_set = false;
}

void durable_before_change(const std::string &host) { model_dir(parent_of(host)); }

void durable_before_remove(const std::string &host) {
    model_dir(parent_of(host));
    struct stat st {};
    // The file loses its last name: its inode number may be handed out again.
    model().retiring_set = ::lstat(host.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1;
    model().retiring = st.st_ino;
}

void durable_removed() {
    if (model().retiring_set) model().live.erase(model().retiring);
    model().retiring_set = false;
}

void durable_synced(int fd, const std::string &host) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return;
    if (S_ISREG(st.st_mode)) {
        // Through the descriptor: the file may have been renamed since it was opened.
        const std::string proc = "/proc/self/fd/" + std::to_string(fd);
        object_of(st.st_ino, "")->bytes = content_of(::access(proc.c_str(), F_OK) == 0 ? proc : host);
    } else if (S_ISDIR(st.st_mode)) {
        model_dir(host);
        std::map<std::string, Durable> entries;
        for (const auto &[name, ino] : regular_files(host)) entries[name] = object_of(ino, "");  // new: never synced
        model().dirs[host] = std::move(entries);
    }
}

void durable_helper_wrote(const std::string &host) {
    const std::string dir = parent_of(host);
    model_dir(dir);
    struct stat st {};
    if (::lstat(host.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    Durable d = object_of(st.st_ino, "");
    d->bytes = content_of(host);
    model().dirs[dir][name_of(host)] = d;
}

void durable_helper_removed(const std::string &host) {
    const auto it = model().dirs.find(parent_of(host));
    if (it != model().dirs.end()) it->second.erase(name_of(host));
}

void power_cut(CutKeeps keeps) {
    if (keeps == CutKeeps::kEntries) {
        // The journal committed every entry change; contents stay as of their fsync.
        for (auto &[dir, entries] : model().dirs) {
            std::map<std::string, Durable> now;
            for (const auto &[name, ino] : regular_files(dir)) now[name] = object_of(ino, "");
            entries = std::move(now);
        }
    }
    for (const auto &[dir, entries] : model().dirs) {
        for (const auto &[name, ino] : regular_files(dir))
            if (entries.count(name) == 0) ::unlink((dir + "/" + name).c_str());
        for (const auto &[name, content] : entries) {
            const std::string path = dir + "/" + name;
            struct stat st {};
            if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) continue;  // not ours to model
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            out.write(content->bytes.data(), static_cast<std::streamsize>(content->bytes.size()));
        }
    }
    power_on();
}

}  // namespace vphone
