// Built with -std=c++17: labs build against the public headers with older
// compilers, so the whole public interface must stay C++17.
#include <chronotick/Chronotick.h>

#if __cplusplus > 201703L
#error "this unit must be compiled as C++17"
#endif

namespace {
[[maybe_unused]] std::size_t tagSize() {
  return sizeof(chronotick::Tag);
}
} // namespace
