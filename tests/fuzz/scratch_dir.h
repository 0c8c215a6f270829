// A folder of this process's own under /tmp that a fuzz target refills for every input.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace zolt::fuzz {

inline std::string scratchDir(const char* name) {
  namespace fs = std::filesystem;
  const fs::path dir =
      fs::temp_directory_path() / (std::string(name) + "_" + std::to_string(getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir.string();
}

inline void writeFile(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

}  // namespace zolt::fuzz
