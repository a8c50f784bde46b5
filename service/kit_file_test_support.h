// What the kit's file tests share: the phone files' texts, the records' parts, and
// another process holding the calibration folder's lock.
#ifndef KMXC_SERVICE_KIT_FILE_TEST_SUPPORT_H
#define KMXC_SERVICE_KIT_FILE_TEST_SUPPORT_H

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "service/kit_test_fixture.h"

namespace kit_file_test {

using namespace kit_test;
using vphone::Call;

constexpr const char *kKitCfg = KMXC_SERVICE_KIT_FILE;
constexpr const char *kBackup = "/misc/sensor/kmxc_orvane-backup.cfg";  // the library's fixed name
constexpr const char *kStored = "16,16,16,0,0,0,45,-31,24";             // a calibrated phone's record

// A phone file's text ("<none>" when missing); never opens what is not a regular file.
inline std::string text_of(const char *phone) {
    std::error_code ec;
    const auto status = std::filesystem::symlink_status(vphone::host_path(phone), ec);
    if (!ec && status.type() != std::filesystem::file_type::regular) return "<not a regular file>";
    return vphone::read_file(phone).value_or("<none>");
}

// The kit file's rough and magnetic offset: the record it belongs to.
inline std::string kit_belongs_to(const std::string &kit) {
    size_t at = kit.find(',') + 1, end = at;
    for (int i = 0; i < 6; ++i) end = kit.find(',', end) + 1;
    return kit.substr(at, end - at - 1);
}
// The calibration record's rough and magnetic offset.
inline std::string rough_and_magnetic(const std::string &cfg) {
    const size_t rough_end = after_rough(cfg);
    size_t at = rough_end;
    for (int i = 0; i < 3; ++i) at = cfg.find(',', at) + 1;
    return cfg.substr(0, rough_end) + cfg.substr(at);
}

// Holds /misc/sensor's lock from another process while it lives.
class OtherProcessHoldingTheLock {
public:
    OtherProcessHoldingTheLock() {
        if (::pipe(go_) != 0 || ::pipe(ready_) != 0) return;
        child_ = vphone::fork_process();
        if (child_ == 0) {
            const int dir = ::open(vphone::host_path("/misc/sensor").c_str(), O_RDONLY | O_DIRECTORY);
            char byte = dir >= 0 && ::flock(dir, LOCK_EX | LOCK_NB) == 0 ? 'y' : 'n';
            (void)!::write(ready_[1], &byte, 1);
            (void)!::read(go_[0], &byte, 1);
            ::_exit(0);
        }
        char byte = 0;
        held_ = child_ > 0 && ::read(ready_[0], &byte, 1) == 1 && byte == 'y';
    }
    ~OtherProcessHoldingTheLock() { release(); }
    bool held() const { return held_; }
    void release() {
        if (child_ <= 0) return;
        (void)!::write(go_[1], "x", 1);
        ::waitpid(child_, nullptr, 0);
        child_ = -1;
        for (int fd : {go_[0], go_[1], ready_[0], ready_[1]}) ::close(fd);
    }

private:
    int go_[2] = {-1, -1}, ready_[2] = {-1, -1};
    pid_t child_ = -1;
    bool held_ = false;
};

inline std::vector<long long> fields_of(const std::string &line) {
    std::vector<long long> v;
    size_t at = 0;
    while (at <= line.size()) {
        const size_t end = line.find(',', at);
        v.push_back(std::stoll(line.substr(at, end == std::string::npos ? std::string::npos : end - at)));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return v;
}

// The kit file's fields: 0 version, 1-3 rough, 4-6 magnetic, 7-12 soft iron (xx, xy, xz,
// yy, yz, zz), 13 strength, 14 dip, 15 reference, 16 coverage, 17 planar, 18 checksum.
constexpr int kKitW = 7, kKitStrength = 13, kKitDip = 14, kKitReference = 15, kKitCoverage = 16;
constexpr int kRowMajorOfKit[6] = {0, 1, 2, 4, 5, 8};

}  // namespace kit_file_test

#endif
