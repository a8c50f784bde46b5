// SMB380 settings: range, bandwidth, mode, wake-up pause, the low-g, high-g and
// any-motion detectors and the interrupt enables, each a field of one register.
#include "smb380/smb380.h"
#include "smb380/smb380_internal.h"

using namespace smb380_regs;

namespace {

int32_t set_rmw(const Field &f, uint8_t value) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return set_field(f, value);
}

int32_t set_whole(uint8_t reg, uint8_t value) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    return write_byte(reg, value);
}

int32_t get_field(const Field &f, uint8_t *out) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t byte;
    const int32_t r = read_byte(f.reg, &byte);
    *out = field_of(byte, f);
    return r;
}

// A whole register as a field.
constexpr Field whole(uint8_t reg) { return Field{reg, 0xFF, 0}; }

}  // namespace

int32_t smb380_set_range(uint8_t code) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    if (code > kRangeMax) return 0;
    return set_field(kRangeField, code);
}
int32_t smb380_get_range(uint8_t *code) { return get_field(kRangeField, code); }

int32_t smb380_set_bandwidth(uint8_t code) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    if (code > kBandwidthMax) return 0;
    return set_field(kBandwidthField, code);
}
int32_t smb380_get_bandwidth(uint8_t *code) { return get_field(kBandwidthField, code); }

// 0x0B, bit by bit: interrupt enables and the low-g and high-g countdowns.
int32_t smb380_set_low_g_int(uint8_t on) { return set_rmw(kLowGIntField, on); }
int32_t smb380_set_high_g_int(uint8_t on) { return set_rmw(kHighGIntField, on); }
int32_t smb380_set_low_g_countdown(uint8_t code) { return set_rmw(kLowGCountdownField, code); }
int32_t smb380_get_low_g_countdown(uint8_t *code) { return get_field(kLowGCountdownField, code); }
int32_t smb380_set_high_g_countdown(uint8_t code) { return set_rmw(kHighGCountdownField, code); }
int32_t smb380_get_high_g_countdown(uint8_t *code) { return get_field(kHighGCountdownField, code); }
int32_t smb380_set_any_motion_int(uint8_t on) { return set_rmw(kAnyMotionIntField, on); }
int32_t smb380_set_alert_int(uint8_t on) { return set_rmw(kAlertIntField, on); }

// 0x0C..0x10: thresholds and durations, whole registers written without a read.
int32_t smb380_set_low_g_threshold(uint8_t threshold) { return set_whole(kLowGThreshold, threshold); }
int32_t smb380_set_low_g_duration(uint8_t duration) { return set_whole(kLowGDuration, duration); }
int32_t smb380_set_high_g_threshold(uint8_t threshold) { return set_whole(kHighGThreshold, threshold); }
int32_t smb380_set_high_g_duration(uint8_t duration) { return set_whole(kHighGDuration, duration); }
int32_t smb380_set_any_motion_threshold(uint8_t threshold) { return set_whole(kAnyMotionThreshold, threshold); }
int32_t smb380_get_low_g_threshold(uint8_t *threshold) { return get_field(whole(kLowGThreshold), threshold); }
int32_t smb380_get_low_g_duration(uint8_t *duration) { return get_field(whole(kLowGDuration), duration); }
int32_t smb380_get_high_g_threshold(uint8_t *threshold) { return get_field(whole(kHighGThreshold), threshold); }
int32_t smb380_get_high_g_duration(uint8_t *duration) { return get_field(whole(kHighGDuration), duration); }
int32_t smb380_get_any_motion_threshold(uint8_t *threshold) { return get_field(whole(kAnyMotionThreshold), threshold); }

// 0x11: the any-motion sample count; only the write's result counts.
int32_t smb380_set_any_motion_count(uint8_t count) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t byte;
    read_byte(kAnyMotionCountField.reg, &byte);
    return write_byte(kAnyMotionCountField.reg, with_field(byte, kAnyMotionCountField, count));
}
int32_t smb380_get_any_motion_count(uint8_t *count) { return get_field(kAnyMotionCountField, count); }

// 0x15: wake-up pause and interrupt behaviour.
int32_t smb380_latch_int(uint8_t on) { return set_rmw(kLatchIntField, on); }
int32_t smb380_set_new_data_int(uint8_t on) { return set_rmw(kNewDataIntField, on); }
int32_t smb380_set_advanced_int(uint8_t on) { return set_rmw(kAdvancedIntField, on); }
int32_t smb380_set_wake_up_pause(uint8_t code) { return set_rmw(kWakeUpPauseField, code); }
int32_t smb380_get_wake_up_pause(uint8_t *code) { return get_field(kWakeUpPauseField, code); }

int32_t smb380_set_mode(uint8_t mode) {
    if (no_device()) return SMB380_ERR_NULL_DEV;
    uint8_t wake, control;
    int32_t sum = read_byte(kWakeUpField.reg, &wake);
    sum += read_byte(kSleepField.reg, &control);
    sum += write_byte(kWakeUpField.reg, with_field(wake, kWakeUpField, mode));
    sum += write_byte(kSleepField.reg, with_field(control, kSleepField, static_cast<uint8_t>(mode >> 1)));
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
    const auto new_wake = static_cast<uint8_t>((wake & ~kMaskInWakeUp) |
                                               ((static_cast<uint32_t>(mask) << kMaskToWakeUpShift) & kMaskInWakeUp));
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
    *mask = static_cast<uint8_t>(*mask | ((wake & kMaskInWakeUp) >> kMaskToWakeUpShift));
    return 0;  // the reads' results are not reported
}

int32_t smb380_reset_interrupt(void) { return set_whole(kControl, kCtlResetInterrupt); }
