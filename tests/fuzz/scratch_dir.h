// A folder of this process's own under /tmp that a fuzz target refills for every input; gone
// when the process exits normally (a crash leaves it for a look).
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zolt::fuzz {

// Made on the first call; one per process, so later calls get it whatever their name.
inline const std::string& scratchDir(const char* name) {
  namespace fs = std::filesystem;
  static const std::string made = [name] {
    const std::string d =
        (fs::temp_directory_path() / (std::string(name) + "_" + std::to_string(getpid())))
            .string();
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
  }();
  // Registered after `made` is built, so it runs before `made` is destroyed.
  static const bool removedAtExit = std::atexit([] {
    std::error_code ec;
    fs::remove_all(made, ec);
  }) == 0;
  (void)removedAtExit;
  return made;
}

inline void writeFile(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

}  // namespace zolt::fuzz
