#include "platform/system_property.h"

#if defined(__ANDROID__)
// The platform writes up to PROP_VALUE_MAX bytes into the caller's buffer.
static_assert(ZOLT_PROP_VALUE_MAX >= PROP_VALUE_MAX, "property buffer smaller than the platform's");
#endif

namespace zolt {

std::string systemProperty(const char* name) {
  char value[ZOLT_PROP_VALUE_MAX] = {0};
  int n = __system_property_get(name, value);
  return n > 0 ? std::string(value, static_cast<size_t>(n)) : std::string();
}

}  // namespace zolt
