#include "client/platform/durable_steps.hpp"

#include <atomic>

namespace zorvi {

namespace {
std::atomic<DurableStepObserver> observer{nullptr};
}

void observe_durable_steps(DurableStepObserver next) { observer.store(next, std::memory_order_relaxed); }

void durable_step() {
  if (const DurableStepObserver current = observer.load(std::memory_order_relaxed)) current();
}

}  // namespace zorvi
