// A folder of this process's own under /tmp that a fuzz target refills for every input; gone
// when the process exits normally (a crash leaves it for a look).
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zolt::fuzz {

inline std::string scratchDir(const char* name) {
  namespace fs = std::filesystem;
  static std::string made;  // one per process
  made = (fs::temp_directory_path() / (std::string(name) + "_" + std::to_string(getpid())))
             .string();
  fs::remove_all(made);
  fs::create_directories(made);
  std::atexit([] {
    std::error_code ec;
    fs::remove_all(made, ec);
  });
  return made;
}

inline void writeFile(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

}  // namespace zolt::fuzz
