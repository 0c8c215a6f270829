#include "support/log_capture.h"

#include <android/log.h>

#include <mutex>

namespace zolt::test {
namespace {

std::mutex gMutex;
std::vector<LogLine> gLines;

// Debian's liblog takes the older logger signature, with the record carrying tag and priority.
void capture(const struct __android_logger_data* data, const char* msg) {
  std::lock_guard<std::mutex> lock(gMutex);
  gLines.push_back({data->priority, data->tag ? data->tag : "", msg ? msg : ""});
}

}  // namespace

LogCapture::LogCapture() {
  clear();
  __android_log_set_logger(capture);
}

LogCapture::~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(gMutex);
  return gLines;
}

bool LogCapture::contains(const std::string& message) const {
  for (const auto& l : lines())
    if (l.message == message) return true;
  return false;
}

bool LogCapture::contains(int priority, const std::string& message) const {
  for (const auto& l : lines())
    if (l.priority == priority && l.message == message) return true;
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(gMutex);
  std::vector<LogLine>().swap(gLines);  // the capacity goes too: tests weigh memory in use
}

}  // namespace zolt::test
