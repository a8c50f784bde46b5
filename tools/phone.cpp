#include "tools/phone.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "vphone/kmxc_model.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace compass {
namespace fs = std::filesystem;

namespace {

constexpr double kUtPerCount = 0.4;

// The magnetometer model on the bus, with the replay's raw values laid over its
// answers: measurement blocks (8-byte reads) carry the recorded channels and
// temperature, rough-offset measurements (6-byte reads) the recorded readings. The
// model still runs the command sequence and the conversion times, so a replay sees
// the same busy bits and errors a live run would.
class Magnetometer : public vphone::BusDevice {
public:
    vphone::KmxcModel model;
    bool replay = false;
    RecordRow row;                                // replay: the current cycle
    std::deque<std::array<int, 3>> rough_answers; // replay: later rough measurements
    std::array<int, 3> rough_default{};           // replay: when none is left
    std::vector<std::array<int, 3>> rough_seen;   // readings delivered, for the record

    int write(const uint8_t *data, size_t length) override { return model.write(data, length); }
    int read(uint8_t *d, size_t n) override
    {
        const int got = model.read(d, n);
        if (got != static_cast<int>(n) || (d[0] & 0x80) != 0) return got;
        if (!replay) {
            if (n == 6) rough_seen.push_back({d[5], d[3], d[1]});
            return got;
        }
        auto hi = [](int v) { return static_cast<uint8_t>((v >> 8) & 0x07); };
        auto lo = [](int v) { return static_cast<uint8_t>(v & 0xFF); };
        if (n == 8) { // channels listed last to first, then the temperature
            d[0] = static_cast<uint8_t>((d[0] & 0x80) | hi(row.ms[2]));
            d[1] = lo(row.ms[2]);
            d[2] = hi(row.ms[1]);
            d[3] = lo(row.ms[1]);
            d[4] = hi(row.ms[0]);
            d[5] = lo(row.ms[0]);
            d[6] = hi(row.temperature);
            d[7] = lo(row.temperature);
        } else if (n == 6) {
            std::array<int, 3> r = rough_default;
            if (!rough_answers.empty()) {
                r = rough_answers.front();
                rough_answers.pop_front();
            }
            d[5] = lo(r[0]);
            d[3] = lo(r[1]);
            d[1] = lo(r[2]);
            rough_seen.push_back(r);
        }
        return got;
    }
};

std::string profile_file(const std::vector<std::array<int, 18>> &lines)
{
    std::ostringstream f;
    for (const auto &line : lines) {
        for (size_t i = 0; i < line.size(); ++i) f << (i ? "," : "") << line[i];
        f << '\n';
    }
    return f.str();
}

std::array<int, 18> profile_line(const MountingProfile &p)
{
    std::array<int, 18> l{};
    for (int i = 0; i < 9; ++i) {
        l[i] = p.accel[i];
        l[9 + i] = p.mag[i];
    }
    return l;
}

// A sandbox is a directory this tool made: it carries kSandboxMarker. Nothing else is
// ever emptied, or written into unless it is empty: a folder that merely looks like a
// phone's (a root file system's etc, dev, sys) may be someone's work.
constexpr const char *kSandboxMarker = ".kmxc-sandbox";

bool is_sandbox(const fs::path &dir, std::error_code &ec)
{
    return fs::is_regular_file(dir / kSandboxMarker, ec);
}

bool make_phone_dirs(const std::string &dir, bool fresh, std::string *error)
{
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
    marker << "A virtual phone's files, made by compass_service; --fresh and replays empty this directory.\n";
    if (!marker) {
        *error = "sandbox: cannot write '" + (root / kSandboxMarker).string() + "'";
        return false;
    }
    vphone::set_root(fs::absolute(dir).string());
    return true;
}

} // namespace

int raw_temperature(double celsius)
{
    const long raw = 256 + std::lround((celsius - 25.0) * 4.0);
    return static_cast<int>(std::clamp(raw, 0L, 2047L));
}

struct Phone::Chips {
    Magnetometer mag;
    vphone::Smb380Model accel;
    Vec3 field_uT{}; // the ambient field last sensed
};

Phone::Phone() : chips_(std::make_unique<Chips>()) {}
Phone::~Phone()
{
    vphone::detach(vphone::KmxcModel::kAddress);
    vphone::detach(vphone::Smb380Model::kAddress);
}

bool Phone::open_sandbox(const std::string &dir, bool fresh, int profile, std::string *error)
{
    if (!make_phone_dirs(dir, fresh, error)) return false;
    std::vector<std::array<int, 18>> lines;
    for (const auto &p : mounting_profiles()) lines.push_back(profile_line(p));
    vphone::write_file("/etc/kmxc_transformation.cfg", profile_file(lines));
    vphone::write_file("/sys/module/zorsensor/parameters/profile", std::to_string(profile) + "\n");
    return true;
}

bool Phone::open_replay_sandbox(const std::string &dir, const RecordHeader &h, std::string *error)
{
    if (!make_phone_dirs(dir, true, error)) return false;
    // The recorded profile's line at its number; identity lines before it.
    std::vector<std::array<int, 18>> lines(static_cast<size_t>(h.profile), profile_line(mounting_profiles()[0]));
    lines.back() = h.transformation;
    vphone::write_file("/etc/kmxc_transformation.cfg", profile_file(lines));
    vphone::write_file("/sys/module/zorsensor/parameters/profile", std::to_string(h.profile) + "\n");
    std::ostringstream cfg;
    if (h.has_stored) {
        for (size_t i = 0; i < h.stored.size(); ++i) cfg << (i ? "," : "") << h.stored[i];
    } else {
        cfg << h.rough[0] << ',' << h.rough[1] << ',' << h.rough[2] << ",0,0,0,2147483647,2147483647,2147483647";
    }
    vphone::write_file("/misc/sensor/kmxc_orvane.cfg", cfg.str());
    return true;
}

void Phone::attach_chips(int profile, const std::array<int, 9> &calib)
{
    const MountingProfile &p = mounting_profiles()[static_cast<size_t>(profile - 1)];
    std::array<uint8_t, 9> bytes{};
    std::array<int8_t, 9> mag{}, accel{};
    for (int i = 0; i < 9; ++i) {
        bytes[i] = static_cast<uint8_t>(calib[i]);
        mag[i] = static_cast<int8_t>(p.mag[i]);
        accel[i] = static_cast<int8_t>(p.accel[i]);
    }
    chips_->mag.model.setCalibration(bytes);
    chips_->mag.model.setMounting(mag);
    chips_->accel.set_mounting(accel);
    vphone::attach(vphone::KmxcModel::kAddress, &chips_->mag);
    vphone::attach(vphone::Smb380Model::kAddress, &chips_->accel);
}

void Phone::attach_replay_chips(const RecordHeader &h)
{
    std::array<uint8_t, 9> bytes{};
    for (int i = 0; i < 9; ++i) bytes[i] = static_cast<uint8_t>(h.calib[i]);
    chips_->mag.model.setCalibration(bytes);
    chips_->mag.replay = true;
    for (int k = 0; k < 3; ++k) chips_->mag.rough_default[k] = h.rough[k] + 5;
    vphone::attach(vphone::KmxcModel::kAddress, &chips_->mag);
    vphone::attach(vphone::Smb380Model::kAddress, &chips_->accel);
}

void Phone::sense(const Truth &t)
{
    vphone::KmxcModel &m = chips_->mag.model;
    m.setField({t.field_uT[0], t.field_uT[1], t.field_uT[2]});
    m.setHardIron({t.hard_iron_uT[0], t.hard_iron_uT[1], t.hard_iron_uT[2]});
    m.setTemperature(static_cast<uint16_t>(raw_temperature(t.temperature_C)));
    chips_->field_uT = t.field_uT;
    chips_->accel.set_gravity_g(t.gravity_g[0], t.gravity_g[1], t.gravity_g[2]);
}

Vec3 Phone::true_offset_counts() const
{
    const auto e = chips_->mag.model.expectedMicrotesla();
    const Vec3 &f = chips_->field_uT;
    return {(e.x - f[0]) / kUtPerCount, (e.y - f[1]) / kUtPerCount, (e.z - f[2]) / kUtPerCount};
}

void Phone::deliver(const RecordRow &row)
{
    chips_->mag.row = row;
    chips_->accel.set_counts(row.gs[0], row.gs[1], row.gs[2]);
}

void Phone::queue_rough(const std::array<int, 3> &r) { chips_->mag.rough_answers.push_back(r); }

std::vector<std::array<int, 3>> Phone::take_rough_readings()
{
    std::vector<std::array<int, 3>> r;
    r.swap(chips_->mag.rough_seen);
    return r;
}

} // namespace compass
