#include "platform/system_property.h"

namespace zolt {

std::string systemProperty(const char* name) {
  char value[ZOLT_PROP_VALUE_MAX] = {0};
  int n = __system_property_get(name, value);
  return n > 0 ? std::string(value, static_cast<size_t>(n)) : std::string();
}

}  // namespace zolt
