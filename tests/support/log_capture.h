// Captures what the engine logs, through the engine's log sink, for tests that check log lines.
#pragma once

#include <android/log.h>

#include <string>
#include <vector>

namespace zolt::test {

struct LogLine {
  int priority;
  std::string tag;
  std::string message;
};

// While alive, every line the engine logs is recorded (and not printed). One at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  bool contains(const std::string& message) const;
  bool contains(int priority, const std::string& message) const;
  void clear();
};

}  // namespace zolt::test
