// Still pictures: live thumbnails out of the cache, frames of recordings, animated pictures.
#include "bench/stills.h"

#include <utility>

namespace {

std::vector<bench::Workload> MakeWorkloads(const std::string&) {
  std::vector<bench::Workload> all;
  for (const auto& make : {bench::CacheWorkloads, bench::JpegWorkloads, bench::GifWorkloads}) {
    for (bench::Workload& workload : make()) {
      all.push_back(std::move(workload));
    }
  }
  return all;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBench(argc, argv, {"Still pictures.", MakeWorkloads, nullptr});
}
