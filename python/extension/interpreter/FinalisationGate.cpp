#include "interpreter/FinalisationGate.hpp"

namespace vorlinkit::python {

FinalisationGate& FinalisationGate::instance() {
  static auto* const gate = new FinalisationGate;
  return *gate;
}

std::optional<FinalisationGate::Pass> FinalisationGate::enter() noexcept {
  const auto before = state_.fetch_add(1);
  const Pass pass{generationOf(before)};
  if ((before & closedBit) == 0) return pass;
  leave(pass);
  return std::nullopt;
}

void FinalisationGate::leave(Pass pass) noexcept {
  if (!current(pass)) return;
  const auto after = state_.fetch_sub(1) - 1;
  if ((after & closedBit) == 0 || (after & countMask) != 0) return;
  const std::lock_guard lock(emptyLock_);
  empty_.notify_all();
}

bool FinalisationGate::awaitEmpty(std::chrono::milliseconds limit) {
  std::unique_lock lock(emptyLock_);
  return empty_.wait_for(lock, limit, [this] { return (state_.load() & countMask) == 0; });
}

void FinalisationGate::startGeneration() noexcept {
  const auto state = state_.load();
  const std::uint64_t generation = (generationOf(state) + 1) & generationMask;
  state_.store((state & closedBit) | (generation << 32));
}

} // namespace vorlinkit::python
