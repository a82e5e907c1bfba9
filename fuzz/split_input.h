// Splits one fuzz input into two strings: the first byte gives the length of
// the first (cut to what is there), the rest is the second.
#ifndef ZORV_FUZZ_SPLIT_INPUT_H_
#define ZORV_FUZZ_SPLIT_INPUT_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace zorv_fuzz {

inline std::pair<std::string, std::string> splitInput(const uint8_t* data, size_t size) {
  if (size == 0) return {};
  const char* rest = reinterpret_cast<const char*>(data) + 1;
  const size_t firstLength = std::min<size_t>(data[0], size - 1);
  return {std::string(rest, firstLength), std::string(rest + firstLength, size - 1 - firstLength)};
}

}  // namespace zorv_fuzz

#endif  // ZORV_FUZZ_SPLIT_INPUT_H_
