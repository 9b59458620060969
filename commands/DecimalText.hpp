// Unsigned numbers as decimal text, stored where the caller has room for the longest.
#pragma once

#include <cstdint>
#include <cstring>

namespace vorlinkit::commands {

/// Digits that the largest number of a type has.
template <typename Number>
constexpr unsigned maxDigits = sizeof(Number) == 1   ? 3
                               : sizeof(Number) == 2 ? 5
                               : sizeof(Number) == 4 ? 10
                                                     : 20;

/// "00" to "99", one behind the other.
struct DigitPairs {
  char text[200];
  constexpr DigitPairs() : text{} {
    for (int i = 0; i < 100; ++i) {
      text[2 * i] = static_cast<char>('0' + i / 10);
      text[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
  }
};
inline constexpr DigitPairs digitPairs;

/// "0" to "255", each in four bytes: three characters and how many of them count.
struct ByteTexts {
  char text[256][4];
  constexpr ByteTexts() : text{} {
    for (int i = 0; i < 256; ++i) {
      int length = 0;
      if (i >= 100) text[i][length++] = static_cast<char>('0' + i / 100);
      if (i >= 10) text[i][length++] = static_cast<char>('0' + i / 10 % 10);
      text[i][length++] = static_cast<char>('0' + i % 10);
      text[i][3] = static_cast<char>(length);
    }
  }
};
inline constexpr ByteTexts byteTexts;

/// Stores the number at `to`, which has room for four characters, and returns the end of the text.
inline char* writeDecimal(char* to, std::uint8_t value) noexcept {
  const char* entry = byteTexts.text[value];
  std::memcpy(to, entry, 4);
  return to + entry[3];
}

inline char* writeDecimal(char* to, std::uint16_t value) noexcept {
  if (value < 100) {
    std::memcpy(to, byteTexts.text[value], 4);
    return to + byteTexts.text[value][3];
  }
  unsigned rest = value;
  if (rest >= 10000) {
    *to++ = static_cast<char>('0' + rest / 10000);
    rest %= 10000;
  } else if (rest < 1000) {
    *to++ = static_cast<char>('0' + rest / 100);
    std::memcpy(to, digitPairs.text + 2 * (rest % 100), 2);
    return to + 2;
  }
  std::memcpy(to, digitPairs.text + 2 * (rest / 100), 2);
  std::memcpy(to + 2, digitPairs.text + 2 * (rest % 100), 2);
  return to + 4;
}

char* writeDecimal(char* to, std::uint32_t value) noexcept;
char* writeDecimal(char* to, std::uint64_t value) noexcept;

} // namespace vorlinkit::commands
