#include "Measure.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <sched.h>

namespace vorlinkit::benchmarks {

namespace {

void report(const char* judged, std::string_view name, std::string_view unit, double ours, double peer, Bar bar) {
  std::printf("%s\t%.*s\t%.*s\t%.9g\t%.9g\t%g\t%g\n", judged, static_cast<int>(name.size()), name.data(),
              static_cast<int>(unit.size()), unit.data(), ours, peer, bar.limit, bar.aim);
  std::fflush(stdout);
}

} // namespace

void reportRatio(std::string_view name, std::string_view unit, double ours, double peer, Bar bar) {
  report("ratio", name, unit, ours, peer, bar);
}

void reportValue(std::string_view name, std::string_view unit, double ours, double peer, Bar bar) {
  report("value", name, unit, ours, peer, bar);
}

double processorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

std::vector<double> leastOf(std::size_t rounds, const std::vector<std::function<double()>>& contenders) {
  std::vector<double> least(contenders.size(), std::numeric_limits<double>::max());
  for (std::size_t round = 0; round < rounds; ++round)
    for (std::size_t i = 0; i < contenders.size(); ++i)
      least[i] = std::min(least[i], contenders[i]());
  return least;
}

void stayOnOneProcessor() {
  cpu_set_t allowed;
  sched_getaffinity(0, sizeof allowed, &allowed);
  for (int processor = CPU_SETSIZE - 1; processor >= 0; --processor) {
    if (!CPU_ISSET(processor, &allowed)) continue;
    CPU_ZERO(&allowed);
    CPU_SET(processor, &allowed);
    sched_setaffinity(0, sizeof allowed, &allowed);
    return;
  }
}

void keepFreedMemory() {
  constexpr int mapped = 32 << 20; // the most that every glibc takes, and beyond what is measured here
  if (mallopt(M_MMAP_THRESHOLD, mapped) != 0 && mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max()) != 0) return;
  std::fputs("the allocator cannot be told to keep memory\n", stderr);
  std::_Exit(2);
}

} // namespace vorlinkit::benchmarks
