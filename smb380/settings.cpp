// SMB380 settings: range, bandwidth, mode, wake-up pause, the low-g, high-g and
// any-motion detectors and the interrupt enables, each a field of one register.
#include "smb380/smb380.h"
#include "smb380/smb380_internal.h"

using namespace smb380_regs;

namespace {

// Interrupt mask bits 0, 1, 6, 7 sit in 0x0B at the same positions; bits 3..5 sit in
// 0x15 bits 4..6. Mask bit 2 has no register bit.
constexpr uint8_t kMaskInIntEnable = 0xC3;
constexpr uint8_t kMaskInWakeUp = 0x70;

int32_t set_rmw(uint8_t reg, uint8_t mask, uint8_t shift, uint8_t value) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return set_field(reg, mask, shift, value);
}

int32_t set_whole(uint8_t reg, uint8_t value) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return write_byte(reg, value);
}

int32_t get_field(uint8_t reg, uint8_t mask, uint8_t shift, uint8_t *out) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t byte;
    const int32_t r = read_byte(reg, &byte);
    *out = field_of(byte, mask, shift);
    return r;
}

}  // namespace

int32_t smb380_set_range(uint8_t code) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    if (code > kRangeMax) return 0;
    return set_field(kRangeBandwidth, kRangeMask, kRangeShift, code);
}
int32_t smb380_get_range(uint8_t *code) { return get_field(kRangeBandwidth, kRangeMask, kRangeShift, code); }

int32_t smb380_set_bandwidth(uint8_t code) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    if (code > kBandwidthMax) return 0;
    return set_field(kRangeBandwidth, kBandwidthMask, kBandwidthShift, code);
}
int32_t smb380_get_bandwidth(uint8_t *code) {
    return get_field(kRangeBandwidth, kBandwidthMask, kBandwidthShift, code);
}

int32_t smb380_set_wake_up_pause(uint8_t code) { return set_rmw(kWakeUp, 0x06, 1, code); }
int32_t smb380_get_wake_up_pause(uint8_t *code) { return get_field(kWakeUp, 0x06, 1, code); }

int32_t smb380_set_low_g_countdown(uint8_t code) { return set_rmw(kIntEnable, 0x0C, 2, code); }
int32_t smb380_get_low_g_countdown(uint8_t *code) { return get_field(kIntEnable, 0x0C, 2, code); }

int32_t smb380_set_high_g_countdown(uint8_t code) { return set_rmw(kIntEnable, 0x30, 4, code); }
int32_t smb380_get_high_g_countdown(uint8_t *code) { return get_field(kIntEnable, 0x30, 4, code); }

int32_t smb380_set_any_motion_count(uint8_t count) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t byte;
    read_byte(kAnyMotionCount, &byte);  // only the write's result counts
    return write_byte(kAnyMotionCount, with_field(byte, 0xC0, 6, count));
}
int32_t smb380_get_any_motion_count(uint8_t *count) { return get_field(kAnyMotionCount, 0xC0, 6, count); }

int32_t smb380_set_low_g_threshold(uint8_t threshold) { return set_whole(kLowGThreshold, threshold); }
int32_t smb380_get_low_g_threshold(uint8_t *threshold) { return get_field(kLowGThreshold, 0xFF, 0, threshold); }
int32_t smb380_set_low_g_duration(uint8_t duration) { return set_whole(kLowGDuration, duration); }
int32_t smb380_get_low_g_duration(uint8_t *duration) { return get_field(kLowGDuration, 0xFF, 0, duration); }
int32_t smb380_set_high_g_threshold(uint8_t threshold) { return set_whole(kHighGThreshold, threshold); }
int32_t smb380_get_high_g_threshold(uint8_t *threshold) { return get_field(kHighGThreshold, 0xFF, 0, threshold); }
int32_t smb380_set_high_g_duration(uint8_t duration) { return set_whole(kHighGDuration, duration); }
int32_t smb380_get_high_g_duration(uint8_t *duration) { return get_field(kHighGDuration, 0xFF, 0, duration); }
int32_t smb380_set_any_motion_threshold(uint8_t threshold) { return set_whole(kAnyMotionThreshold, threshold); }
int32_t smb380_get_any_motion_threshold(uint8_t *threshold) {
    return get_field(kAnyMotionThreshold, 0xFF, 0, threshold);
}

int32_t smb380_set_low_g_int(uint8_t on) { return set_rmw(kIntEnable, 0x01, 0, on); }
int32_t smb380_set_high_g_int(uint8_t on) { return set_rmw(kIntEnable, 0x02, 1, on); }
int32_t smb380_set_any_motion_int(uint8_t on) { return set_rmw(kIntEnable, 0x40, 6, on); }
int32_t smb380_set_alert_int(uint8_t on) { return set_rmw(kIntEnable, 0x80, 7, on); }
int32_t smb380_latch_int(uint8_t on) { return set_rmw(kWakeUp, 0x10, 4, on); }
int32_t smb380_set_new_data_int(uint8_t on) { return set_rmw(kWakeUp, 0x20, 5, on); }
int32_t smb380_set_advanced_int(uint8_t on) { return set_rmw(kWakeUp, 0x40, 6, on); }

int32_t smb380_set_mode(uint8_t mode) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t wake, control;
    int32_t sum = read_byte(kWakeUp, &wake);
    sum += read_byte(kControl, &control);
    sum += write_byte(kWakeUp, with_field(wake, 0x01, 0, mode));
    sum += write_byte(kControl, with_field(control, 0x01, 0, static_cast<uint8_t>(mode >> 1)));
    p_smb380->mode = mode;
    return sum;
}

int32_t smb380_get_mode(void) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return p_smb380->mode;
}

int32_t smb380_set_interrupt_mask(uint8_t mask) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t enable, wake;
    int32_t sum = read_byte(kIntEnable, &enable);
    sum += read_byte(kWakeUp, &wake);
    const auto new_enable = static_cast<uint8_t>((enable & ~kMaskInIntEnable) | (mask & kMaskInIntEnable));
    const auto new_wake =
        static_cast<uint8_t>((wake & ~kMaskInWakeUp) | ((static_cast<uint32_t>(mask) << 1) & kMaskInWakeUp));
    sum += write_byte(kIntEnable, new_enable);
    sum += write_byte(kWakeUp, new_wake);
    return sum;
}

int32_t smb380_get_interrupt_mask(uint8_t *mask) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t enable, wake;
    read_byte(kIntEnable, &enable);
    *mask = static_cast<uint8_t>(enable & kMaskInIntEnable);
    read_byte(kWakeUp, &wake);
    *mask = static_cast<uint8_t>(*mask | ((wake & kMaskInWakeUp) >> 1));
    return 0;  // the reads' results are not reported
}

int32_t smb380_reset_interrupt(void) { return set_whole(kControl, kCtlResetInterrupt); }
