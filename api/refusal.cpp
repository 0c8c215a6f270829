#include "api/refusal.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "api/engine_registry.h"
#include "platform/log.h"

namespace zolt::api {
namespace {

constexpr size_t kMessageBytes = 512;

// Plain data: nothing to construct or destroy per thread.
thread_local int tCode = 0;
thread_local char tMessage[kMessageBytes];

void keep(OrreryEngine* engine, int code, const char* message) {
  if (engine != nullptr) {
    keepError(engine, code, message);
    return;
  }
  tCode = code;
  copyMessage(message, tMessage, sizeof tMessage);
}

// The message, formatted once: logged as one error line when `log`, and kept.
void keepFormatted(OrreryEngine* engine, int code, bool log, const char* fmt, va_list ap) {
  char message[kMessageBytes];
  std::vsnprintf(message, sizeof message, fmt, ap);
  if (log) ZLOGE("%s", message);
  keep(engine, code, message);
}

}  // namespace

void copyMessage(const char* text, char* message, int messageSize) {
  if (message == nullptr || messageSize <= 0) return;
  const size_t n = std::min(std::strlen(text), static_cast<size_t>(messageSize) - 1);
  std::memcpy(message, text, n);
  message[n] = '\0';
}

void refuse(OrreryEngine* engine, int code, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  keepFormatted(engine, code, true, fmt, ap);
  va_end(ap);
}

void note(OrreryEngine* engine, int code, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  keepFormatted(engine, code, false, fmt, ap);
  va_end(ap);
}

int takeThreadError(char* message, int messageSize) {
  copyMessage(tCode != 0 ? tMessage : "", message, messageSize);
  const int code = tCode;
  tCode = 0;
  return code;
}

}  // namespace zolt::api
