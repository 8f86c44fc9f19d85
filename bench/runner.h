// What a benchmark program is made of, and the modes it runs in.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// One piece of work, done by the library and, with the least effort that gives the same result, by the floor.
// Everything here throws std::exception when it fails.
struct Workload {
  std::string name;
  std::function<void(int times)> library;
  std::function<void(int times)> floor;
  std::function<void()> check;  // throws when library and floor do not agree
  int batch = 1;                // calls between two looks at the clock
};

// Work without an outcome of its own, as Workload wants it.
inline std::function<void(int times)> Repeat(const std::function<void()>& work) {
  return [work](int times) {
    for (int i = 0; i < times; ++i) {
      work();
    }
  };
}

// A program's workloads. inputs: the folder of its cached inputs, empty for none.
struct Suite {
  std::string description;
  std::function<std::vector<Workload>(const std::string& inputs)> make;
  std::function<void(const std::string& folder)> saveInputs;  // empty: the program needs no inputs
};

// main of every benchmark program: checks that library and floor agree, then measures. Returns the exit code.
int RunBench(int argc, char** argv, const Suite& suite);

}  // namespace bench
