#include "bench/runner.h"

#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "bench/usage.h"

// The calls that count: a profiler that collects inside this function sees neither start-up nor warm-up.
extern "C" __attribute__((noinline)) void CountedRun(const std::function<void(int)>& run, int times);
void CountedRun(const std::function<void(int)>& run, int times) {
  run(times);
}

namespace bench {
namespace {

const std::string kLibrary = "/library";
const std::string kFloor = "/floor";

void List(const std::vector<Workload>& workloads) {
  for (const Workload& workload : workloads) {
    std::printf("%s\n", workload.name.c_str());
  }
}

void Check(const std::vector<Workload>& workloads) {
  for (const Workload& workload : workloads) {
    try {
      workload.check();
    } catch (const std::exception& error) {
      throw std::runtime_error(workload.name + ": " + error.what());
    }
  }
}

const std::function<void(int)>& Find(const std::vector<Workload>& workloads, const std::string& name) {
  for (const Workload& workload : workloads) {
    if (name == workload.name + kLibrary) {
      return workload.library;
    }
    if (name == workload.name + kFloor) {
      return workload.floor;
    }
  }
  throw std::runtime_error("no workload " + name + "; --list shows them, with /library or /floor behind the name");
}

void RunOnce(const std::vector<Workload>& workloads, const std::string& name, int times) {
  const std::function<void(int)>& run = Find(workloads, name);
  run(1);
  const double before = CpuMicroseconds();
  CountedRun(run, times);
  std::printf("%.6f\n", (CpuMicroseconds() - before) / times);
}

void Measure(benchmark::State& state, const std::function<void(int)>& run, int batch) {
  try {
    while (state.KeepRunningBatch(batch)) {
      run(batch);
    }
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
}

void RunAll(const std::vector<Workload>& workloads, const char* program, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  auto argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  benchmark::Initialize(&argc, argv.data());
  if (argc > 1) {
    throw std::runtime_error(std::string("unknown option ") + argv[1]);
  }
  Check(workloads);
  for (const Workload& workload : workloads) {
    const auto add = [&workload](const std::string& side, const std::function<void(int)>& run) {
      const int batch = workload.batch;
      benchmark::RegisterBenchmark((workload.name + side).c_str(), [run, batch](benchmark::State& state) {
        Measure(state, run, batch);
      })->Unit(batch == 1 ? benchmark::kMillisecond : benchmark::kNanosecond);
    };
    add(kLibrary, workload.library);
    add(kFloor, workload.floor);
  }
  benchmark::RunSpecifiedBenchmarks();
}

}  // namespace

int RunBench(int argc, char** argv, const Suite& suite) {
  CLI::App app(suite.description +
               "\nWithout a mode it checks, then measures with Google Benchmark, whose options "
               "(--benchmark_filter=REGEX ...) it takes too.");
  bool list = false;
  bool check = false;
  std::string once;
  int times = 1;
  std::string saveTo;
  std::string inputs;
  app.allow_extras();
  app.add_flag("--list", list, "print the workloads' names");
  app.add_flag("--check", check, "only check that library and floor agree");
  app.add_option("--once", once,
                 "run one workload, NAME/library or NAME/floor, N times after a warm-up call, and print the CPU "
                 "microseconds of one call")
      ->type_name("NAME");
  app.add_option("N", times, "calls of --once (1)")->check(CLI::Range(1, 1000000000).description(""));
  if (suite.saveInputs) {
    app.add_option("--make-inputs", saveTo, "write the inputs to this folder")->type_name("DIR");
    app.add_option("--inputs", inputs, "read them from there instead of making them")->type_name("DIR");
  }
  CLI11_PARSE(app, argc, argv);

  try {
    if (!saveTo.empty()) {
      suite.saveInputs(saveTo);
      return 0;
    }
    const std::vector<Workload> workloads = suite.make(inputs);
    if (list) {
      List(workloads);
    } else if (check) {
      Check(workloads);
    } else if (!once.empty()) {
      RunOnce(workloads, once, times);
    } else {
      RunAll(workloads, argv[0], app.remaining());
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}

}  // namespace bench
