// The phone's files: its paths mapped into a sandbox directory, and the helpers tests
// use to set up and inspect them (vphone.h).
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "vphone/world.h"

namespace vphone {

namespace {

struct Prefix {
    const char *text;
    bool whole;  // the path must equal the text
};
constexpr Prefix kPhonePrefixes[] = {
    {"/dev/compass", true}, {"/misc/", false}, {"/etc/kmxc_", false}, {"/sys/module/zorsensor/", false}};

void create_phone_dirs(const std::string &dir) {
    for (const char *sub : {"misc/sensor", "etc", "sys/module/zorsensor/parameters", "dev"})
        std::filesystem::create_directories(std::filesystem::path(dir) / sub);
}

}  // namespace

bool phone_path(const char *path) {
    for (const Prefix &p : kPhonePrefixes) {
        size_t n = std::strlen(p.text);
        if (std::strncmp(path, p.text, n) == 0 && (!p.whole || path[n] == '\0')) return true;
    }
    return false;
}

// A program started with LD_PRELOAD has no test to choose the sandbox: take
// $VPHONE_ROOT, or make a fresh one and say where.
const std::string &ensure_root() {
    State &s = state();
    if (s.root.empty()) {
        const char *env = std::getenv("VPHONE_ROOT");
        if (env != nullptr && *env != '\0') {
            s.root = env;
            create_phone_dirs(s.root);
            power_on();
        } else {
            make_sandbox();
            std::fprintf(stderr, "vphone: sandbox %s\n", s.root.c_str());
        }
    }
    return s.root;
}

std::string make_sandbox() {
    remove_sandbox();
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vphone-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        std::perror("vphone: mkdtemp");
        std::abort();
    }
    State &s = state();
    s.root = buffer.data();
    s.made_root = true;
    create_phone_dirs(s.root);
    power_on();
    return s.root;
}

void set_root(const std::string &directory) {
    remove_sandbox();
    state().root = directory;
    power_on();
}

void remove_sandbox() {
    State &s = state();
    if (s.made_root && !s.root.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(s.root, ignored);
    }
    s.root.clear();
    s.made_root = false;
}

std::string root() { return state().root; }

bool is_phone_path(std::string_view path) { return phone_path(std::string(path).c_str()); }

std::string host_path(std::string_view phone) {
    std::string path(phone);
    if (!phone_path(path.c_str())) return path;
    return ensure_root() + path;
}

void write_file(std::string_view phone, std::string_view content) {
    const std::string host = host_path(phone);
    {
        std::ofstream out(host, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
    }
    durable_helper_wrote(host);
}

std::optional<std::string> read_file(std::string_view phone) {
    std::ifstream in(host_path(phone), std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(std::string_view phone) { return std::filesystem::exists(host_path(phone)); }

void remove_file(std::string_view phone) {
    const std::string host = host_path(phone);
    durable_before_remove(host);
    std::error_code ignored;
    if (std::filesystem::remove(host, ignored)) durable_removed();
    durable_helper_removed(host);
}

unsigned mode_of(std::string_view phone) {
    struct stat st {};
    if (::stat(host_path(phone).c_str(), &st) != 0) return 0;
    return st.st_mode & 07777u;
}

Owner owner_of(std::string_view phone) {
    std::string host = host_path(phone);
    auto it = state().owners.find(host);
    if (it != state().owners.end()) return it->second;
    struct stat st {};
    if (::stat(host.c_str(), &st) != 0) return Owner{~0u, ~0u};
    return Owner{st.st_uid, st.st_gid};
}

}  // namespace vphone
