/* Stand-in for the platform's API-level annotations: a function introduced after the minimum
 * API level (__ANDROID_API__, from the target triple) is flagged by -Wunguarded-availability
 * when called without a run-time check, as with the NDK. */
#pragma once

#define __ANDROID_AVAILABILITY(what) __attribute__((__availability__(android, what)))
#define __INTRODUCED_IN(api_level) __ANDROID_AVAILABILITY(introduced = api_level)
#define __DEPRECATED_IN(api_level) __ANDROID_AVAILABILITY(deprecated = api_level)
#define __REMOVED_IN(api_level) __ANDROID_AVAILABILITY(obsoleted = api_level)
/* Annotations that hold for one word size only. */
#if defined(__LP64__)
#define __INTRODUCED_IN_32(api_level)
#define __INTRODUCED_IN_64(api_level) __INTRODUCED_IN(api_level)
#else
#define __INTRODUCED_IN_32(api_level) __INTRODUCED_IN(api_level)
#define __INTRODUCED_IN_64(api_level)
#endif
