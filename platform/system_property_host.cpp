// Host stand-in for Android's property service: a process-wide table behind a mutex.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/system_property.h"

namespace {

std::mutex& tableMutex() {
  static std::mutex m;
  return m;
}

// Properties set through setSystemProperty; looked up before the environment.
std::map<std::string, std::string>& table() {
  static std::map<std::string, std::string> t;
  return t;
}

std::string envName(const std::string& name) {
  std::string env = "ZOLTPANO_PROP_" + name;
  for (char& c : env)
    if (c == '.') c = '_';
  return env;
}

}  // namespace

extern "C" int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  if (name == nullptr) return 0;
  std::string v;
  {
    std::lock_guard<std::mutex> lock(tableMutex());
    auto it = table().find(name);
    if (it != table().end()) {
      v = it->second;
    } else if (const char* env = std::getenv(envName(name).c_str())) {
      v = env;
    }
  }
  size_t n = std::min(v.size(), static_cast<size_t>(ZOLT_PROP_VALUE_MAX - 1));
  std::memcpy(value, v.data(), n);
  value[n] = '\0';
  return static_cast<int>(n);
}

namespace zolt {

void setSystemProperty(const std::string& name, const std::string& value) {
  std::lock_guard<std::mutex> lock(tableMutex());
  table()[name] = value;
}

}  // namespace zolt
