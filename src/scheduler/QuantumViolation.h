// How long a run overstayed its task's quantum, as counted in the task's statistics.
#pragma once

#include <chrono>

namespace Tarvo {

enum class QuantumViolation { none, over200, over500 };

// A run of `elapsed` under `quantum` is a violation from twice the quantum on: one of 200%
// below five times the quantum, one of 500% from there on. A zero quantum never counts. Both
// sides are compared as elapsed / n against the quantum, so that no quantum up to the 64-bit
// limit overflows; for the non-negative lengths a run has, floor(elapsed / n) >= quantum holds
// exactly when elapsed >= n * quantum.
constexpr QuantumViolation quantumViolation(std::chrono::nanoseconds elapsed,
                                            std::chrono::nanoseconds quantum) {
  if (quantum.count() == 0 || elapsed / 2 < quantum) {
    return QuantumViolation::none;
  }
  return elapsed / 5 < quantum ? QuantumViolation::over200 : QuantumViolation::over500;
}

}  // namespace Tarvo
