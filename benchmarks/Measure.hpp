// How the benchmarks measure: contenders take turns, so that noise of the machine meets all of them, and
// each is judged by its fastest round, which is the one with the least noise in it.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

namespace vorlinkit::benchmarks {

/// What a row may be at most, and what it is meant to be. Zero where nothing is asked.
struct Bar {
  double limit = 0;
  double aim = 0;
};

/// Prints a row that is judged by the ratio of ours to the peer's.
void reportRatio(std::string_view name, std::string_view unit, double ours, double peer, Bar bar = {});
/// Prints a row that is judged by its value; `peer` is for orientation, 0 for none.
void reportValue(std::string_view name, std::string_view unit, double ours, double peer, Bar bar = {});

/// Seconds that a piece of work took, by the wall clock.
template <typename Work> double secondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Processor seconds of this whole process, all threads, user and system.
double processorSeconds();

/// Runs every contender once per round, in turn, and returns the least that each has measured.
std::vector<double> leastOf(std::size_t rounds, const std::vector<std::function<double()>>& contenders);

/// Makes the compiler believe that somebody looks at the value.
template <typename Value> void use(const Value& value) { asm volatile("" : : "r"(&value) : "memory"); }

/// Nanoseconds per call, over enough calls for one round.
template <typename Call> double nanosecondsPer(std::size_t calls, Call&& call) {
  return secondsOf([&] {
           for (std::size_t i = 0; i < calls; ++i)
             call();
         }) *
         1e9 / static_cast<double>(calls);
}

/// From here on this process, with all threads it will have, stays on one processor: wakes across
/// processors are noise in latencies.
void stayOnOneProcessor();

/// From here on memory that is freed stays with this process: every contender allocates from pages that it has
/// touched before. Without it the allocator gives some contenders fresh pages of the system for each large buffer,
/// and their first touch costs ten times a copy.
void keepFreedMemory();

} // namespace vorlinkit::benchmarks
