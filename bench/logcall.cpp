// A log call whose message is dropped, by itself and beside a plain comparison of levels.
#include <stdexcept>

#include "bench/runner.h"
#include "utils/internal/log.h"

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

int g_messages = 0;  // that got through

}  // namespace

// Takes the sink's place in this program: counts instead of writing.
int VyVPrintf(LOG_TYPE, const char*, const char*, const char*, int, const char*, const char*, va_list) {
  ++g_messages;
  return 0;
}

namespace {

DbgLogCfg g_record = {};

// Nothing may move out of the loop or vanish with it.
inline void Barrier() {
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void GuardedLoop(int times) {
  for (int i = 0; i < times; ++i) {
    VY_LOG(LOG_LEVEL_DEBUG, "Call %d\n", i);
    Barrier();
  }
}

__attribute__((noinline)) void PlainLoop(int times) {
  for (int i = 0; i < times; ++i) {
    if (__builtin_expect(LOG_LEVEL_DEBUG <= g_record.categLevel[kLogCategory], 0)) {
      ++g_messages;
    }
    Barrier();
  }
}

__attribute__((noinline)) void EmptyLoop(int times) {
  for (int i = 0; i < times; ++i) {
    Barrier();
  }
}

enum class Record { kNone, kOpen, kOtherProcesses };

// Sets up the record that the guard reads: without pid filter, with one that names 4 other processes, or none at all.
void Use(Record kind, int threshold) {
  g_record.categLevel[kLogCategory] = threshold;
  g_record.pidCount = kind == Record::kOtherProcesses ? 4 : 0;
  for (int i = 0; i < 4; ++i) {
    g_record.pids[i] = -1 - i;
  }
  __atomic_store_n(&g_pDbgLogCfg, kind == Record::kNone ? nullptr : &g_record, __ATOMIC_RELEASE);
}

int MessagesOf(Record kind, int threshold) {
  Use(kind, threshold);
  g_messages = 0;
  GuardedLoop(10);
  return g_messages;
}

// The messages are dropped, and not because nothing would let them through.
void Check(Record kind) {
  if (MessagesOf(Record::kOpen, LOG_LEVEL_TRACE) != 10) {
    throw std::runtime_error("a wanted message did not get through");
  }
  if (MessagesOf(kind, LOG_LEVEL_WARN) != 0) {
    throw std::runtime_error("an unwanted message got through");
  }
}

bench::Workload Dropped(const std::string& name, Record kind) {
  const auto library = [kind](int times) {
    Use(kind, LOG_LEVEL_WARN);
    GuardedLoop(times);
  };
  return {name, library, PlainLoop, [kind] { Check(kind); }, 1000};
}

std::vector<bench::Workload> MakeWorkloads(const std::string&) {
  // The loop around the others, to be taken off.
  const bench::Workload loop = {"log/loop", EmptyLoop, EmptyLoop, [] {}, 1000};
  return {loop, Dropped("log/dropped", Record::kOpen), Dropped("log/dropped-4-pids", Record::kOtherProcesses),
          Dropped("log/dropped-no-record", Record::kNone)};
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBench(argc, argv, {"Log calls whose message is dropped.", MakeWorkloads, nullptr});
}
