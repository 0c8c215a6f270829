#include "support/log_capture.h"

#include <mutex>

#include "zolt_pano_ext.h"

namespace zolt::test {
namespace {

std::mutex gMutex;
std::vector<LogLine> gLines;

void capture(int priority, const char* tag, const char* line, void*) {
  std::lock_guard<std::mutex> lock(gMutex);
  gLines.push_back({priority, tag, line});
}

}  // namespace

LogCapture::LogCapture() {
  clear();
  ZOLT_PANO_SetLogSink(capture, nullptr);
}

LogCapture::~LogCapture() { ZOLT_PANO_SetLogSink(nullptr, nullptr); }

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
