// Holds every decoder of a catalogue against payloads made apart from it: each must give its text, each cut
// of it one of the six errors, and noise anything but a crash.
#pragma once

#include "Bytes.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>

using Decoder = std::string (*)(std::span<const std::byte>);
using Decoders = std::map<std::string, Decoder>;

inline constexpr std::string_view decode_errors[] = {"Not enough bytes for uint8",  "Not enough bytes for uint16",
                                                     "Not enough bytes for uint32", "Not enough bytes for uuid",
                                                     "String not null-terminated",  "Unknown variant"};

/// The JSON text of a payload, or the error's text.
template <auto Decode, auto Render> std::string run(std::span<const std::byte> payload) {
  const auto message = Decode(payload);
  return message ? Render(*message) : message.error().message;
}

inline bool is_error(const std::string& text) {
  return std::ranges::find(decode_errors, text) != std::ranges::end(decode_errors);
}

/// Runs on a copy of exactly the payload's size, so that reading past its end is noticed.
inline std::string run_tight(Decoder decoder, std::span<const std::byte> payload) {
  const auto copy = std::make_unique<std::byte[]>(payload.size());
  std::ranges::copy(payload, copy.get());
  return decoder({copy.get(), payload.size()});
}

inline void check_sample(Decoder decoder, const std::vector<std::byte>& payload, const std::string& text) {
  EXPECT_EQ(run_tight(decoder, payload), text);
  for (std::size_t size = 0; size < payload.size(); ++size)
    ASSERT_TRUE(is_error(run_tight(decoder, std::span(payload).first(size)))) << "cut to " << size << " bytes";
  auto longer = payload;
  longer.resize(payload.size() + 3, std::byte{0x55});
  EXPECT_EQ(run_tight(decoder, longer), text) << "bytes behind the last field";
}

/// Every sample of the file; each decoder of the table has at least one.
inline void check_samples(const Decoders& decoders, const std::string& file) {
  std::ifstream in(std::string(SAMPLES_FOLDER) + "/" + file);
  std::map<std::string, int> seen;
  for (std::string name, payload, text; std::getline(in, name, '\t');) {
    ASSERT_TRUE(std::getline(in, payload, '\t') && std::getline(in, text));
    SCOPED_TRACE(name + " " + payload);
    ASSERT_NO_FATAL_FAILURE(check_sample(decoders.at(name), bytes(payload), text));
    ++seen[name];
  }
  EXPECT_EQ(seen.size(), decoders.size());
}

/// Noise: short and long, of small numbers (which keep lists short enough to go deep) and of any.
inline void check_noise(const Decoders& decoders) {
  std::mt19937 random(20260101);
  for (const auto& [name, decoder] : decoders)
    for (int round = 0; round < 200; ++round) {
      std::vector<std::byte> payload(random() % 120);
      const unsigned limit = round % 2 ? 4 : 256;
      for (auto& byte : payload)
        byte = static_cast<std::byte>(random() % limit);
      const auto text = run_tight(decoder, payload);
      ASSERT_TRUE(is_error(text) || (text.front() == '{' && text.back() == '}')) << name << " " << hex(payload);
    }
}
