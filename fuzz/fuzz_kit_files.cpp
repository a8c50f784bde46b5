// The kit's file handling on arbitrary files, inside a virtual phone's sandbox with both
// chips on the bus: the calibration file and the kit file from the input (split at its
// first NUL byte), each made a regular file, left out, a directory, a symbolic link or a
// FIFO by the input's first byte; then start, a few cycles and the stop's save. Nothing
// may crash or block, and whatever the files held, the offsets in use and every record
// written afterwards pass the range checks.
#include <stdint.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "orientation/orientation.h"
#include "service/kit_store.h"
#include "service/kmxc_service.h"
#include "vphone/kmxc_model.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace {

void require(bool ok) {
    if (!ok) __builtin_trap();
}

// Puts what the selector says at phone path: 0 the content as a regular file, 1
// nothing, 2 a directory, 3 a link to another phone file, 4 a FIFO.
void place(const char *phone, std::string_view content, int selector) {
    const std::string host = vphone::host_path(phone);
    std::error_code ignored;
    std::filesystem::remove_all(host, ignored);
    switch (selector % 5) {
    case 0: vphone::write_file(phone, content); break;
    case 1: break;
    case 2: std::filesystem::create_directory(host, ignored); break;
    case 3: std::filesystem::create_symlink(vphone::host_path("/etc/kmxc_transformation.cfg"), host, ignored); break;
    case 4: ::mkfifo(host.c_str(), 0600); break;
    }
}

bool is_regular(const char *phone) {
    std::error_code ec;
    return std::filesystem::symlink_status(vphone::host_path(phone), ec).type() == std::filesystem::file_type::regular;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static vphone::KmxcModel *magnetometer = nullptr;
    static vphone::Smb380Model *accelerometer = nullptr;
    if (magnetometer == nullptr) {  // one sandbox and one pair of chips for the whole run
        // In memory when the machine has it: every input creates, renames and removes
        // files, which a journaling disk makes ten times slower.
        if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
        vphone::make_sandbox();
        std::atexit([] { vphone::remove_sandbox(); });
        magnetometer = new vphone::KmxcModel;
        accelerometer = new vphone::Smb380Model;
    }
    vphone::reset();
    vphone::attach(vphone::KmxcModel::kAddress, magnetometer);
    vphone::attach(vphone::Smb380Model::kAddress, accelerometer);
    const vphone::Physics still{{20.0, 0.0, -40.0}, {18.0, -12.0, 9.0}, {0.0, 0.0, -1.0}, 25.0};
    magnetometer->set_physics(still);
    accelerometer->set_physics(still);

    const int kinds = size > 0 ? data[0] : 0;
    std::string_view all(reinterpret_cast<const char *>(data), size);
    if (!all.empty()) all.remove_prefix(1);
    const size_t cut = all.find('\0');
    const std::string_view calibration = all.substr(0, cut);
    const std::string_view kit = cut == std::string_view::npos ? std::string_view() : all.substr(cut + 1);
    // Three bits each, half of the values a regular file: the parsers are what is fuzzed.
    auto selector = [](int v) { return v < 4 ? 0 : v - 3; };
    place(KMXC_SERVICE_CALIBRATION_FILE, calibration, selector(kinds & 7));
    place(KMXC_SERVICE_KIT_FILE, kit, selector((kinds >> 3) & 7));

    KmxcServiceStart start{};
    require(kmxc_service_start(10, &start) == KMXC_SERVICE_OK);
    require(KmxAxesLibIsValidRoughOffset(start.rough) != 0);
    KmxAxesData offset, gravity;
    KmxAxesLibGetMsOffset(&offset);
    KmxAxesLibGetGsOffset(&gravity);
    require(start.offset_loaded == 0 || KmxAxesLibIsValidMsOffset(&offset) != 0);
    for (int32_t g : {gravity.x, gravity.y, gravity.z})
        require(g >= -KMXC_SERVICE_GRAVITY_OFFSET_LIMIT && g <= KMXC_SERVICE_GRAVITY_OFFSET_LIMIT);
    for (uint64_t us = 0; us < 300000; us += 100000) {
        KmxcServiceEvent e;
        require(kmxc_service_cycle(us, &e) == KMXC_SERVICE_OK);
    }
    kmxc_service_stop();

    // What the kit left is a record the checks pass unchanged, with its kit file.
    if (is_regular(KMXC_SERVICE_CALIBRATION_FILE) && (start.file & KMXC_SERVICE_FILE_NOT_REGULAR) == 0) {
        const std::string text = vphone::read_file(KMXC_SERVICE_CALIBRATION_FILE).value_or("");
        int32_t fields[kmxc_kit::kCalibFields];
        kmxc_kit::CalibRecord record;
        const bool saved =
            (start.file & (KMXC_SERVICE_FILE_GARBLED | KMXC_SERVICE_FILE_IMPLAUSIBLE | KMXC_SERVICE_FILE_ABSENT)) !=
                0 ||
            start.rough_measured != 0;
        if (saved && start.save_failures == 0) {
            require(kmxc_kit::parse_calib(text.data(), text.size(), fields));
            require(kmxc_kit::checked_record(fields, &record) == 0);
            const std::string k = vphone::read_file(KMXC_SERVICE_KIT_FILE).value_or("");
            kmxc_kit::KitRecord kit_record;
            require(kmxc_kit::parse_kit(k.data(), k.size(), &kit_record));
            require(kmxc_kit::kit_belongs_to(kit_record, record));
        }
    }
    // What the input made is freed within it: libFuzzer looks for leaks in every input
    // whose allocations and frees do not balance.
    vphone::reset();
    return 0;
}
