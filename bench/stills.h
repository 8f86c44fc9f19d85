// The groups of workloads in mediautil_bench_stills; each source makes one.
#pragma once

#include <vector>

#include "bench/runner.h"

namespace bench {

// Thumbnails out of the cache; none where the system allows no cache of the program's own.
std::vector<Workload> CacheWorkloads();

// Decoded pictures to an animated GIF.
std::vector<Workload> GifWorkloads();

// Frames of a Motion JPEG recording, as they are stored.
std::vector<Workload> JpegWorkloads();

}  // namespace bench
