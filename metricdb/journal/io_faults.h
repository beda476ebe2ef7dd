// Faults of the file layer (files.h), so that a test can end a process, or fail a disk, at each point where that makes
// a difference on the disk.
//
// Whatever changes a file or a folder counts as one step, but a write as two: one ahead of it, and one when half of its
// bytes are written. The variables are read at the first step of a process:
//   METRICDB_CRASH_AT=k        it kills itself with SIGKILL ahead of step k
//   METRICDB_FAIL_AT=k:ERROR   step k fails with that error, a name as in ENOSPC or a number, and no other does
#pragma once

#include <cstdint>

namespace metricdb {

// Steps so far.
uint64_t io_operations();

// As the variables: k counts on from the steps so far, 0 is none. For tests in the process itself.
void crash_at_io(uint64_t k);
void fail_at_io(uint64_t k, int error);

// For the file layer. The first takes a step: 0, or the error that it fails with. The second says whether a fault may
// lie ahead, and writes have to stop halfway for it.
int take_io_step();
bool io_faults_are_armed();

}  // namespace metricdb
