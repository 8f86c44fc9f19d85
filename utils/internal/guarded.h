// Steps that may throw, for functions that must not.
#pragma once

#include <exception>

namespace mediautil {

// Runs a step that returns 0 or a code; -1 when it throws, as when memory runs out.
template <typename F>
int Guarded(F step) {
  try {
    return step();
  } catch (const std::exception&) {
    return -1;
  }
}

}  // namespace mediautil
