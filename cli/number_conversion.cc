#include "cli/number_conversion.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace zorv::cli {
namespace {

uint64_t convert(const std::string& word, int base, const char* what) {
  try {
    const char* begin = word.c_str();
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(begin, &end, base);
    if (end == begin) throw std::invalid_argument(what);
    if (errno == ERANGE) throw std::out_of_range(what);
    if (*end != '\0') {
      throw std::invalid_argument("Conversion failed due to invalid characters in the string.");
    }
    return value;
  } catch (const std::invalid_argument& e) {
    std::cerr << "Invalid argument: " << e.what() << std::endl;
    throw;
  } catch (const std::out_of_range& e) {
    std::cerr << "Out of Range error: " << e.what() << std::endl;
    throw;
  }
}

}  // namespace

uint32_t toUnsigned32(const std::string& word, int base) {
  return static_cast<uint32_t>(convert(word, base, "stoul"));
}

uint64_t toUnsigned64(const std::string& word, int base) { return convert(word, base, "stoull"); }

}  // namespace zorv::cli
