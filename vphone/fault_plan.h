// A fault plan: which interposed call fails, at which occurrence, with which errno,
// written as text so that an integrator can script fault sweeps against their own
// service without touching it:
//
//   VPHONE_FAULTS="fopen:3:ENOSPC,write:1:EIO,usleep:2:EINTR:5"  (environment)
//   compass_service --fault "rename:1:EROFS"                     (the demo service)
//
// Each entry is CALL:N[:ERRNO[:COUNT]]: the Nth call of CALL (counted from the start
// of the program, or from where the plan is applied) and the COUNT-1 after it fail
// (COUNT "all": every one from the Nth on; default 1) with ERRNO, a name (EIO, ENOSPC,
// EACCES, ...) or a number (default EIO). CALL is one of the counted calls: open,
// close, read, write, ioctl, usleep, fopen, fgets, fprintf, fclose, access, chown,
// chmod, rename, unlink, fsync, fdatasync, flock, fchmod, fchown, clock_gettime,
// nanosleep, clock_nanosleep. Only calls that concern the phone count (see vphone.h).
//
// Or powercut:N[:CALL]: the power fails as the Nth call on a phone file is made (with
// CALL: the Nth call of CALL, e.g. powercut:300:usleep for a moment between file
// calls); the files go back to their durable state and the program ends with status
// vphone::kPowerCutExitStatus (86). powercut-entries:N[:CALL] the same, with every
// directory entry change made so far kept (vphone.h, CutKeeps::kEntries). One power
// cut per plan.
//
// VPHONE_CALL_COUNTS=FILE writes how many calls of each kind the program made, one
// "name count" line each, when it exits: the size of a sweep. VPHONE_FILE_LOG=FILE
// writes every call on a phone file as it is made (vphone.h, file_call_log).
#ifndef KMXC_VPHONE_FAULT_PLAN_H
#define KMXC_VPHONE_FAULT_PLAN_H

#include <string>
#include <string_view>
#include <vector>

#include "vphone/vphone.h"

namespace vphone {

struct PlannedFault {
    Call call;
    int nth;
    int error;
    int count;                   // kForever: every call from the nth on
    bool power_cut = false;      // powercut:N[:CALL], powercut-entries:N[:CALL]
    bool any_file_call = false;  // ... without CALL: the nth call on a phone file
    CutKeeps keeps = CutKeeps::kSynced;
    bool operator==(const PlannedFault &) const = default;
};

// Parses a plan; false and a one-line reason when it is not one.
bool parse_fault_plan(std::string_view text, std::vector<PlannedFault> *out, std::string *error);
// Schedules the faults (fail_call) and the power cut (ending the process), counted from
// now.
void apply_fault_plan(const std::vector<PlannedFault> &plan);
// Once per program, at its first counted call: VPHONE_FAULTS and VPHONE_CALL_COUNTS.
// A plan that does not parse stops the program with the reason (exit status 2).
void apply_environment_fault_plan();

}  // namespace vphone

#endif  // KMXC_VPHONE_FAULT_PLAN_H
