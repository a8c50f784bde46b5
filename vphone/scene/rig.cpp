// The phone rig: sandbox files, chip models, and what they are fed.
#include "vphone/scene/rig.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "drivers/kmxc_protocol.h"
#include "vphone/kmxc_model.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace vphone::scene {
namespace fs = std::filesystem;

namespace {

using namespace kmxc;

// The magnetometer model on the bus, with the replay's raw values laid over its
// answers: measurement blocks (8-byte reads) carry the recorded channels and
// temperature, rough-offset measurements (6-byte reads) the recorded readings. The
// model still runs the command sequence and the conversion times, so a replay sees
// the same busy bits and errors a live run would.
class Magnetometer : public BusDevice {
public:
    KmxcModel model;
    bool replay = false;
    RecordRow row;                                 // replay: the current cycle
    std::deque<std::array<int, 3>> rough_answers;  // replay: later rough measurements
    std::array<int, 3> rough_default{};            // replay: when none is left
    std::vector<std::array<int, 3>> rough_seen;    // readings delivered, for the record

    int write(const uint8_t *data, size_t length) override { return model.write(data, length); }
    int read(uint8_t *d, size_t n) override {
        const int got = model.read(d, n);
        if (got != static_cast<int>(n) || (d[0] & kBusy) != 0) return got;
        auto rough_of = [d] {
            return std::array<int, 3>{d[kRoughChannelAt[0]], d[kRoughChannelAt[1]], d[kRoughChannelAt[2]]};
        };
        if (!replay) {
            if (n == kRoughBlockBytes) rough_seen.push_back(rough_of());
            return got;
        }
        // An 11-bit value into its two bytes, the busy bit left as the model set it.
        auto put_11bit = [d](int at, int v) {
            d[at] = static_cast<uint8_t>((d[at] & kBusy) | ((v >> 8) & kHighBitsMask));
            d[at + 1] = static_cast<uint8_t>(v & 0xFF);
        };
        if (n == kMeasureBlockBytes) {
            for (int k = 0; k < 3; ++k) put_11bit(kMeasureChannelAt[k], row.ms[k]);
            put_11bit(kMeasureTemperatureAt, row.temperature);
        } else if (n == kRoughBlockBytes) {
            std::array<int, 3> r = rough_default;
            if (!rough_answers.empty()) {
                r = rough_answers.front();
                rough_answers.pop_front();
            }
            for (int k = 0; k < 3; ++k) d[kRoughChannelAt[k]] = static_cast<uint8_t>(r[k] & 0xFF);
            rough_seen.push_back(r);
        }
        return got;
    }
};

std::string profile_file(const std::vector<std::array<int, 18>> &lines) {
    std::ostringstream f;
    for (const auto &line : lines) {
        for (size_t i = 0; i < line.size(); ++i) f << (i ? "," : "") << line[i];
        f << '\n';
    }
    return f.str();
}

std::array<int, 18> profile_line(const MountingProfile &p) {
    std::array<int, 18> l{};
    for (int i = 0; i < 9; ++i) {
        l[i] = p.accel[i];
        l[9 + i] = p.mag[i];
    }
    return l;
}

void write_profile_number(int profile) {
    write_file("/sys/module/zorsensor/parameters/profile", std::to_string(profile) + "\n");
}

// A sandbox is a directory a rig made: it carries kSandboxMarker. Nothing else is
// ever emptied, or written into unless it is empty: a folder that merely looks like a
// phone's (a root file system's etc, dev, sys) may be someone's work.
constexpr const char *kSandboxMarker = ".kmxc-sandbox";

bool is_sandbox(const fs::path &dir, std::error_code &ec) { return fs::is_regular_file(dir / kSandboxMarker, ec); }

bool make_phone_dirs(const std::string &dir, bool fresh, std::string *error) {
    std::error_code ec;
    const fs::path root(dir);
    if (fs::exists(root, ec)) {
        if (!fs::is_directory(root, ec)) {
            *error = "sandbox: '" + dir + "' exists and is not a directory";
            return false;
        }
        if (!fs::is_empty(root, ec) && !is_sandbox(root, ec)) {
            *error = "sandbox: '" + dir + "' holds files that are not a virtual phone's (no " + kSandboxMarker +
                     "); refusing to " + (fresh ? "empty" : "write into") + " it. Name a new or empty directory.";
            return false;
        }
        if (fresh) {
            for (const auto &entry : fs::directory_iterator(root, ec)) fs::remove_all(entry.path(), ec);
            if (ec) {
                *error = "sandbox: cannot empty '" + dir + "': " + ec.message();
                return false;
            }
        }
    }
    for (const char *sub : {"misc/sensor", "etc", "sys/module/zorsensor/parameters", "dev"}) {
        fs::create_directories(root / sub, ec);
        if (ec) {
            *error = "sandbox: cannot create '" + (root / sub).string() + "': " + ec.message();
            return false;
        }
    }
    std::ofstream marker(root / kSandboxMarker);
    marker << "A virtual phone's files, made by its rig (vphone/scene); compass_service --fresh and replays "
              "empty this directory.\n";
    if (!marker) {
        *error = "sandbox: cannot write '" + (root / kSandboxMarker).string() + "'";
        return false;
    }
    set_root(fs::absolute(dir).string());
    return true;
}

}  // namespace

void write_profile_files(int profile) {
    std::vector<std::array<int, 18>> lines;
    for (const auto &p : mounting_profiles()) lines.push_back(profile_line(p));
    write_file("/etc/kmxc_transformation.cfg", profile_file(lines));
    write_profile_number(profile);
}

void write_replay_files(const RecordHeader &h) {
    // The recorded profile's line at its number; identity lines before it.
    std::vector<std::array<int, 18>> lines(static_cast<size_t>(h.profile), profile_line(mounting_profiles()[0]));
    lines.back() = h.transformation;
    write_file("/etc/kmxc_transformation.cfg", profile_file(lines));
    write_profile_number(h.profile);
    if (h.has_stored) {
        std::ostringstream cfg;
        for (size_t i = 0; i < h.stored.size(); ++i) cfg << (i ? "," : "") << h.stored[i];
        write_file(kCalibrationFile, cfg.str());
    }
}

double offset_error_uT(std::span<const int32_t, 3> offset, const Vec3 &truth) {
    double sq = 0;
    for (int k = 0; k < 3; ++k) sq += (offset[k] - truth[k]) * (offset[k] - truth[k]);
    return std::sqrt(sq) * kMicroteslaPerCount;
}

struct Rig::Chips {
    Magnetometer mag;
    Smb380Model accel;
    Vec3 field_uT{};  // the ambient field last sensed
};

Rig::Rig() : chips_(std::make_unique<Chips>()) {}
Rig::~Rig() {
    detach(KmxcModel::kAddress);
    detach(Smb380Model::kAddress);
}

bool Rig::open_sandbox(const std::string &dir, bool fresh, int profile, std::string *error) {
    if (!make_phone_dirs(dir, fresh, error)) return false;
    write_profile_files(profile);
    return true;
}

bool Rig::open_replay_sandbox(const std::string &dir, const RecordHeader &h, std::string *error) {
    if (!make_phone_dirs(dir, true, error)) return false;
    write_replay_files(h);
    if (!h.has_stored) {
        std::ostringstream cfg;
        cfg << h.rough[0] << ',' << h.rough[1] << ',' << h.rough[2] << ",0,0,0,2147483647,2147483647,2147483647";
        write_file(kCalibrationFile, cfg.str());
    }
    return true;
}

void Rig::attach_chips(int profile, const std::array<int, 9> &calib) {
    const MountingProfile &p = mounting_profiles()[static_cast<size_t>(profile - 1)];
    std::array<uint8_t, 9> bytes{};
    std::array<int8_t, 9> mag{}, accel{};
    for (int i = 0; i < 9; ++i) {
        bytes[i] = static_cast<uint8_t>(calib[i]);
        mag[i] = static_cast<int8_t>(p.mag[i]);
        accel[i] = static_cast<int8_t>(p.accel[i]);
    }
    chips_->mag.model.set_calibration(bytes);
    chips_->mag.model.set_mounting(mag);
    chips_->accel.set_mounting(accel);
    attach(KmxcModel::kAddress, &chips_->mag);
    attach(Smb380Model::kAddress, &chips_->accel);
}

void Rig::attach_replay_chips(const Record &record) {
    const RecordHeader &h = record.header;
    std::array<uint8_t, 9> bytes{};
    for (int i = 0; i < 9; ++i) bytes[i] = static_cast<uint8_t>(h.calib[i]);
    chips_->mag.model.set_calibration(bytes);
    chips_->mag.replay = true;
    for (int k = 0; k < 3; ++k) chips_->mag.rough_default[k] = h.rough[k] + kRoughReadingBias;
    chips_->mag.rough_answers.assign(record.rough_readings.begin(), record.rough_readings.end());
    attach(KmxcModel::kAddress, &chips_->mag);
    attach(Smb380Model::kAddress, &chips_->accel);
}

void Rig::sense(const Truth &t) {
    const Physics p{t.field_uT, t.hard_iron_uT, t.gravity_g, t.temperature_C};
    chips_->mag.model.set_physics(p);
    chips_->accel.set_physics(p);
    chips_->field_uT = t.field_uT;
}

Vec3 Rig::true_offset_counts() const {
    const auto e = chips_->mag.model.expected_microtesla();
    const Vec3 &f = chips_->field_uT;
    return {(e[0] - f[0]) / kMicroteslaPerCount, (e[1] - f[1]) / kMicroteslaPerCount,
            (e[2] - f[2]) / kMicroteslaPerCount};
}

void Rig::deliver(const RecordRow &row) {
    chips_->mag.row = row;
    chips_->accel.set_counts(row.gs[0], row.gs[1], row.gs[2]);
}

std::vector<std::array<int, 3>> Rig::take_rough_readings() {
    std::vector<std::array<int, 3>> r;
    r.swap(chips_->mag.rough_seen);
    return r;
}

}  // namespace vphone::scene
