// The kit's records as text and the save-spacing rule (kit_store.h).
#include "service/kit_store.h"

#include "common/common.h"

namespace kmxc_kit {

namespace {

constexpr int32_t kSoftIronDiagonalMin = KMXC_SERVICE_SOFT_IRON_ONE / 2;
constexpr int32_t kSoftIronDiagonalMax = KMXC_SERVICE_SOFT_IRON_ONE * 2;
constexpr int32_t kSoftIronCrossMax = KMXC_SERVICE_SOFT_IRON_ONE / 2;
constexpr bool kSoftIronDiagonal[6] = {true, false, false, true, false, true};  // xx, xy, xz, yy, yz, zz
// The Earth's range, in corrected counts.
constexpr int32_t kStrengthMin = KMXC_SERVICE_FIELD_MIN_UT * KMXC_MS_COUNTS_PER_10_UT / 10;
constexpr int32_t kStrengthMax = KMXC_SERVICE_FIELD_MAX_UT * KMXC_MS_COUNTS_PER_10_UT / 10;
constexpr int32_t kDipMax = 9000;  // 90 degrees

// Splits text into exactly n comma-separated decimal integers (an optional '-', 1 to
// 10 digits each), allowing one final newline.
bool parse_fields(const char *text, size_t length, int64_t *out, int n) {
    if (length > 0 && text[length - 1] == '\n') --length;
    size_t at = 0;
    for (int f = 0; f < n; ++f) {
        if (f > 0) {
            if (at >= length || text[at] != ',') return false;
            ++at;
        }
        const bool negative = at < length && text[at] == '-';
        if (negative) ++at;
        int64_t v = 0;
        int digits = 0;
        while (at < length && text[at] >= '0' && text[at] <= '9') {
            if (++digits > 10) return false;
            v = v * 10 + (text[at] - '0');
            ++at;
        }
        if (digits == 0) return false;
        out[f] = negative ? -v : v;
    }
    return at == length;
}

bool in(int64_t v, int64_t lo, int64_t hi) { return v >= lo && v <= hi; }

// Appends v in decimal ("%d" for the values a record holds).
size_t put_int(char *out, size_t at, int64_t v) {
    char digits[20];
    int n = 0;
    const bool negative = v < 0;
    uint64_t u = negative ? uint64_t{0} - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (negative) out[at++] = '-';
    while (n > 0) out[at++] = digits[--n];
    return at;
}

size_t put_fields(const int64_t *v, int n, char *out) {
    size_t at = 0;
    for (int i = 0; i < n; ++i) {
        if (i > 0) out[at++] = ',';
        at = put_int(out, at, v[i]);
    }
    out[at] = '\0';
    return at;
}

}  // namespace

// ---- The calibration file ------------------------------------------------------------------

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

bool same_record(const CalibRecord &a, const CalibRecord &b) {
    return a.rough[0] == b.rough[0] && a.rough[1] == b.rough[1] && a.rough[2] == b.rough[2] &&
           same(a.gravity, b.gravity) && same(a.magnetic, b.magnetic);
}

bool rough_known(const uint8_t rough[3]) { return KmxAxesLibIsValidRoughOffset(rough) != 0; }
bool magnetic_known(const KmxAxesData &offset) { return KmxAxesLibIsValidMsOffset(&offset) != 0; }

bool parse_calib(const char *text, size_t length, int32_t fields[kCalibFields]) {
    int64_t v[kCalibFields];
    if (!parse_fields(text, length, v, kCalibFields)) return false;
    for (int i = 0; i < kCalibFields; ++i) {
        if (!in(v[i], INT32_MIN, INT32_MAX)) return false;
        fields[i] = static_cast<int32_t>(v[i]);
    }
    return true;
}

uint8_t checked_record(const int32_t f[kCalibFields], CalibRecord *out) {
    uint8_t reset = 0;
    *out = kDefaultRecord;
    const bool rough_unknown = f[0] == kUnknownRough && f[1] == kUnknownRough && f[2] == kUnknownRough;
    const bool rough_valid = in(f[0], 0, 31) && in(f[1], 0, 31) && in(f[2], 0, 31);
    if (rough_valid)
        for (int k = 0; k < 3; ++k) out->rough[k] = static_cast<uint8_t>(f[k]);
    else if (!rough_unknown)
        reset |= kResetRough;
    const KmxAxesData magnetic{f[6], f[7], f[8]};
    if (magnetic_known(magnetic) && rough_valid)
        out->magnetic = magnetic;
    else if (!same(magnetic, kNoStoredOffset))
        reset |= kResetMagnetic;  // out of range, or of a rough offset not known
    const int32_t limit = KMXC_SERVICE_GRAVITY_OFFSET_LIMIT;
    if (in(f[3], -limit, limit) && in(f[4], -limit, limit) && in(f[5], -limit, limit))
        out->gravity = KmxAxesData{f[3], f[4], f[5]};
    else
        reset |= kResetGravity;
    return reset;
}

size_t format_calib(const CalibRecord &r, char *out, size_t capacity) {
    if (capacity <= kCalibTextMax) return 0;
    const int64_t v[kCalibFields] = {r.rough[0],  r.rough[1],   r.rough[2],   r.gravity.x, r.gravity.y,
                                     r.gravity.z, r.magnetic.x, r.magnetic.y, r.magnetic.z};
    return put_fields(v, kCalibFields, out);
}

// ---- The kit file --------------------------------------------------------------------------

KitRecord default_kit(const CalibRecord &belongs_to) {
    KitRecord k{};
    for (int i = 0; i < 3; ++i) k.rough[i] = belongs_to.rough[i];
    k.magnetic = belongs_to.magnetic;
    for (int i = 0; i < 6; ++i) k.soft_iron[i] = kSoftIronDiagonal[i] ? KMXC_SERVICE_SOFT_IRON_ONE : 0;
    return k;
}

bool kit_belongs_to(const KitRecord &kit, const CalibRecord &calib) {
    return kit.rough[0] == calib.rough[0] && kit.rough[1] == calib.rough[1] && kit.rough[2] == calib.rough[2] &&
           same(kit.magnetic, calib.magnetic);
}

uint32_t crc32(const char *data, size_t length) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < length; ++i) {
        crc ^= static_cast<uint8_t>(data[i]);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

bool parse_kit(const char *text, size_t length, KitRecord *out) {
    int64_t v[kKitFields];
    if (!parse_fields(text, length, v, kKitFields)) return false;
    // The checksum covers the text before its comma.
    size_t body = length;
    while (body > 0 && text[body - 1] != ',') --body;
    if (!in(v[18], 0, UINT32_MAX) || crc32(text, body - 1) != static_cast<uint32_t>(v[18])) return false;
    if (v[0] != KMXC_SERVICE_KIT_FILE_VERSION) return false;
    for (int i = 1; i <= 6; ++i)
        if (!in(v[i], INT32_MIN, INT32_MAX)) return false;
    // The record it belongs to, checked as the calibration file's is (gravity aside).
    const int32_t fields[kCalibFields] = {
        static_cast<int32_t>(v[1]), static_cast<int32_t>(v[2]), static_cast<int32_t>(v[3]), 0, 0, 0,
        static_cast<int32_t>(v[4]), static_cast<int32_t>(v[5]), static_cast<int32_t>(v[6])};
    KitRecord k{};
    CalibRecord calib;
    if (checked_record(fields, &calib) != 0) return false;
    for (int i = 0; i < 3; ++i) k.rough[i] = calib.rough[i];
    k.magnetic = calib.magnetic;
    for (int i = 0; i < 6; ++i) {
        const int64_t s = v[7 + i];
        if (kSoftIronDiagonal[i] ? !in(s, kSoftIronDiagonalMin, kSoftIronDiagonalMax)
                                 : !in(s, -kSoftIronCrossMax, kSoftIronCrossMax))
            return false;
        k.soft_iron[i] = static_cast<int32_t>(s);
    }
    if (!in(v[15], 0, 1) || !in(v[16], 0, 255) || !in(v[17], 0, 1)) return false;
    const bool reference = v[15] == 1;
    if (reference ? !in(v[13], kStrengthMin, kStrengthMax) || !in(v[14], -kDipMax, kDipMax) : v[13] != 0 || v[14] != 0)
        return false;
    k.strength = static_cast<int32_t>(v[13]);
    k.dip_centideg = static_cast<int32_t>(v[14]);
    k.reference = static_cast<uint8_t>(v[15]);
    k.coverage = static_cast<uint8_t>(v[16]);
    k.planar = static_cast<uint8_t>(v[17]);
    *out = k;
    return true;
}

size_t format_kit(const KitRecord &r, char *out, size_t capacity) {
    if (capacity <= kKitTextMax) return 0;
    const int64_t v[kKitFields - 1] = {KMXC_SERVICE_KIT_FILE_VERSION,
                                       r.rough[0],
                                       r.rough[1],
                                       r.rough[2],
                                       r.magnetic.x,
                                       r.magnetic.y,
                                       r.magnetic.z,
                                       r.soft_iron[0],
                                       r.soft_iron[1],
                                       r.soft_iron[2],
                                       r.soft_iron[3],
                                       r.soft_iron[4],
                                       r.soft_iron[5],
                                       r.strength,
                                       r.dip_centideg,
                                       r.reference,
                                       r.coverage,
                                       r.planar};
    size_t at = put_fields(v, kKitFields - 1, out);
    const uint32_t crc = crc32(out, at);
    out[at++] = ',';
    at = put_int(out, at, crc);
    out[at] = '\0';
    return at;
}

// ---- When to save ----------------------------------------------------------------------------

bool save_due(const SaveClock &clock, const CalibRecord &wanted, const CalibRecord &stored, bool stored_valid,
              int64_t now_ns) {
    if (stored_valid && same_record(wanted, stored)) return false;
    constexpr int64_t kNsPerS = 1000000000;
    if (clock.attempted && now_ns - clock.last_attempt_ns < int64_t{KMXC_SERVICE_SAVE_MIN_INTERVAL_S} * kNsPerS)
        return false;
    if (!stored_valid || !magnetic_known(stored.magnetic) || !magnetic_known(wanted.magnetic)) return true;
    CalibRecord moved = stored;
    moved.magnetic = wanted.magnetic;
    if (!same_record(moved, wanted)) return true;  // another rough or gravity offset: what the record means
    const int64_t dx = int64_t{wanted.magnetic.x} - stored.magnetic.x;
    const int64_t dy = int64_t{wanted.magnetic.y} - stored.magnetic.y;
    const int64_t dz = int64_t{wanted.magnetic.z} - stored.magnetic.z;
    const int64_t limit = KMXC_SERVICE_SAVE_MIN_MOVE_COUNTS;
    if (dx * dx + dy * dy + dz * dz > limit * limit) return true;
    return now_ns - clock.settle_from_ns >= int64_t{KMXC_SERVICE_SAVE_SETTLE_S} * kNsPerS;
}

}  // namespace kmxc_kit
