#include "platform/simd_choice.h"

#include <cstdlib>
#include <cstring>

namespace zolt {

bool forceReferenceKernels() {
  static const bool force = [] {
    const char* v = std::getenv("ZOLTPANO_FORCE_REFERENCE");
    return v != nullptr && v[0] != '\0' && std::strcmp(v, "0") != 0;
  }();
  return force;
}

}  // namespace zolt
