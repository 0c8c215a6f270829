/* The platform C library's <sys/cdefs.h> also brings the API-level annotations that its own
 * headers (and the NDK's android/*.h) put on every declaration. */
#pragma once
#include_next <sys/cdefs.h>
#include <android/versioning.h>
