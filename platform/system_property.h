// Android system properties. On Android, __system_property_get comes from libc; on the host
// the project serves a property table of its own (system_property_host.cpp) that tests and
// tools can set, so that, for example, a run can say what "ro.board.platform" is.
#pragma once

#include <string>

// Longest value a property holds, terminator included (as on Android).
#define ZOLT_PROP_VALUE_MAX 92

#if defined(__ANDROID__)
#include <sys/system_properties.h>
#else
extern "C" {
// Copies the value of `name` into `value` (at least ZOLT_PROP_VALUE_MAX bytes) and returns its
// length; an unknown name gives the empty string and 0.
int __system_property_get(const char* name, char* value);
}
#endif

namespace zolt {

// The value of a system property, or "" when it is not set.
std::string systemProperty(const char* name);

#if !defined(__ANDROID__)
// Host only: set a property; it then hides any environment value (empty reads as unset). Initial values come from the
// environment: ZOLTPANO_PROP_<name with '.' as '_'>, e.g. ZOLTPANO_PROP_ro_board_platform.
void setSystemProperty(const std::string& name, const std::string& value);
#endif

}  // namespace zolt
