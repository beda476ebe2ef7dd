// Space for temporary files.
#ifndef TSLB_BENCH_SCRATCH_H
#define TSLB_BENCH_SCRATCH_H

#include <stdint.h>

#include <string>

// Returns a directory of this process on a tmpfs with `bytes` free, the same at every call; in the folder that the environment
// variable TSLB_BENCH_FOLDER names, to measure a disk. It is removed with its
// contents when the program ends for any reason. Empty after a line on stderr if there is none; then nothing can be
// measured. The first call is made before any thread starts.
const std::string &scratch_dir(uint64_t bytes);

#endif
