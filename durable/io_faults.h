// Faults of the file layer (files.h). With them a test ends a process, or makes a disk fail, at every point where this
// makes a difference on the disk.
//
// Each change of a file or a folder is one step. A write is two steps, one before it and one after half of its bytes.
// The variables are read at the first step of a process:
//   TSLB_DURABLE_CRASH_AT=k        the process kills itself with SIGKILL before step k
//   TSLB_DURABLE_FAIL_AT=k:ERROR   only step k fails, with that error: a name such as ENOSPC, or a number
#pragma once

#include <cstdint>

namespace tslb_durable {

// Number of steps so far.
uint64_t io_operations();

// Like the variables, for tests in the process itself. k counts from the next step; 0 means none.
void crash_at_io(uint64_t k);
void fail_at_io(uint64_t k, int error);

// For the file layer. take_io_step counts a step and returns 0 or the error with which it fails. io_faults_are_armed
// returns whether a fault can follow, so that writes must be done in two halves.
int take_io_step();
bool io_faults_are_armed();

}  // namespace tslb_durable
