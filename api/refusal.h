// Refusals and failures of the C interface, kept for ZOLT_PANO_GetLastError: per engine for a
// call on a live engine, per thread for the rest (a stale or null handle, a refused Initial, the
// calls that take no handle). Each keeps the code and its one-line message, which starts with
// the function's name.
#pragma once

#include "zolt_pano_ext.h"

class OrreryEngine;

namespace zolt::api {

// Logs the message as one error line and keeps it with `code`; engine null: for this thread.
void refuse(OrreryEngine* engine, int code, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
// Keeps it without logging: for what the engine has already logged in its own words, and for
// refusals that are new to the interface (the default log stays as it was).
void note(OrreryEngine* engine, int code, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// This thread's kept refusal, copied and cleared (as ZOLT_PANO_GetLastError(NULL, ...)).
int takeThreadError(char* message, int messageSize);

// Copies `text` into message[messageSize], truncated and terminated; nothing when message is
// null or messageSize is not positive.
void copyMessage(const char* text, char* message, int messageSize);

}  // namespace zolt::api
