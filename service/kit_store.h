// What the kit stores and when: its two files as records (the library's calibration
// file, written byte for byte as the library writes it, and the kit's own file), text
// to record and back with every value range-checked, and the rule that spaces saves for
// flash. No I/O, integer arithmetic only (C++ only, hidden in libkmxc_service.so).
#ifndef KMXC_SERVICE_KIT_STORE_H
#define KMXC_SERVICE_KIT_STORE_H

#include <stddef.h>
#include <stdint.h>

#include "orientation/orientation.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

constexpr uint8_t kUnknownRough = KMXC_ROUGH_UNKNOWN;    // the file's "not known" rough-offset step
constexpr int32_t kUnknownOffset = KMXC_OFFSET_UNKNOWN;  // the file's "not known" magnetic offset
constexpr KmxAxesData kNoStoredOffset{kUnknownOffset, kUnknownOffset, kUnknownOffset};

// ---- The calibration file ------------------------------------------------------------------

// One record: what the library's line of nine integers holds.
struct CalibRecord {
    uint8_t rough[3];      // steps 0..31, or kUnknownRough three times
    KmxAxesData gravity;   // 1/4096 g, each within KMXC_SERVICE_GRAVITY_OFFSET_LIMIT
    KmxAxesData magnetic;  // counts, within the library's valid range, or kNoStoredOffset
};
constexpr CalibRecord kDefaultRecord{{kUnknownRough, kUnknownRough, kUnknownRough}, {0, 0, 0}, kNoStoredOffset};

bool same(const KmxAxesData &a, const KmxAxesData &b);
bool same_record(const CalibRecord &a, const CalibRecord &b);
bool rough_known(const uint8_t rough[3]);
bool magnetic_known(const KmxAxesData &offset);

// Longest line the file can hold: nine fields of at most 11 characters, 8 commas.
constexpr size_t kCalibTextMax = 107;
constexpr int kCalibFields = 9;
// The library's line, strictly: exactly nine comma-separated decimal integers that fit
// 32 bits (an optional '-', 1 to 10 digits), and at most one final newline. false: not
// a record (empty, letters, missing or extra fields, junk, overflow).
bool parse_calib(const char *text, size_t length, int32_t fields[kCalibFields]);

// What range checks reset (bits).
enum : uint8_t { kResetRough = 1, kResetGravity = 2, kResetMagnetic = 4 };
// The record of nine parsed fields, every value checked. Implausible parts are reset to
// "not known" (gravity to 0), with the rest made consistent: a magnetic offset belongs to
// its rough offset, so it goes when the rough offset is not known (or goes itself).
// Returns the kReset* bits of what was reset.
uint8_t checked_record(const int32_t fields[kCalibFields], CalibRecord *out);
// The library's line for a record ("%d,%d,%d,%d,%d,%d,%d,%d,%d", no line end); its
// length. capacity must exceed kCalibTextMax.
size_t format_calib(const CalibRecord &r, char *out, size_t capacity);

// ---- The kit file --------------------------------------------------------------------------

// The kit's record: what the next calibration work keeps beside the library's file.
struct KitRecord {
    uint8_t rough[3];      // the calibration record it belongs to: its rough offset ...
    KmxAxesData magnetic;  // ... and magnetic offset (or kNoStoredOffset)
    int32_t soft_iron[6];  // symmetric 3x3 correction xx, xy, xz, yy, yz, zz, Q14
    int32_t strength;      // field strength of the last trusted 3-D calibration, counts
    int32_t dip_centideg;  // its dip, 1/100 degree
    uint8_t reference;     // 1: strength and dip hold values
    uint8_t coverage;      // cells of the sample store covered, 0..255
    uint8_t planar;        // 1: the offset came from a planar fit
};
// Fields on the line: version, rough x3, magnetic x3, soft iron x6, strength, dip,
// reference, coverage, planar, checksum.
constexpr int kKitFields = 19;
constexpr size_t kKitTextMax = kKitFields * 11 + kKitFields - 1;
// The default for a record: identity correction, no reference, nothing covered.
KitRecord default_kit(const CalibRecord &belongs_to);
bool kit_belongs_to(const KitRecord &kit, const CalibRecord &calib);
// The kit's line, strictly: kKitFields decimal integers, the version
// KMXC_SERVICE_KIT_FILE_VERSION, every value in its range, and the last field the
// CRC-32 of the text before its comma. false: not a kit record of this version.
bool parse_kit(const char *text, size_t length, KitRecord *out);
size_t format_kit(const KitRecord &r, char *out, size_t capacity);  // capacity > kKitTextMax
// CRC-32 (IEEE 802.3, reflected, as zlib's crc32) of length bytes.
uint32_t crc32(const char *data, size_t length);

// ---- When to save ----------------------------------------------------------------------------

// The clock of one session's saves, in the caller's timestamps (ns).
struct SaveClock {
    bool attempted;           // an offset save has been tried in this session ...
    int64_t last_attempt_ns;  // ... at this time
    int64_t settle_from_ns;   // the stored offset's age counts from here
};
// Whether a save of wanted over stored (stored_valid: the file holds stored) is due now
// in the cycle: never within KMXC_SERVICE_SAVE_MIN_INTERVAL_S of the last attempt; at
// once when the file holds no record, another rough or gravity offset or no magnetic
// offset; when the magnetic offset moved more than KMXC_SERVICE_SAVE_MIN_MOVE_COUNTS;
// and when it moved at all and the stored one is KMXC_SERVICE_SAVE_SETTLE_S old.
bool save_due(const SaveClock &clock, const CalibRecord &wanted, const CalibRecord &stored, bool stored_valid,
              int64_t now_ns);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_STORE_H
