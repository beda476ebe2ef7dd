// Room for files that are gone when the program ends.
#ifndef TSLB_BENCH_SCRATCH_H
#define TSLB_BENCH_SCRATCH_H

#include <stdint.h>

#include <string>

// A directory of this process on a tmpfs with `bytes` to spare, the same at every call; removed with all that is in it
// when the program ends, however it does. Empty after a line on stderr if there is none, and then there is nothing to
// measure. The first call is made before there are threads.
const std::string &scratch_dir(uint64_t bytes);

#endif
