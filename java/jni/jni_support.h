// What the JNI sources share: refusals thrown as org.zoltpano.ZoltPanoException, and C strings
// turned into Java strings.
#pragma once

#include <jni.h>

namespace zolt::jni {

// Caches the exception class and its constructor; from JNI_OnLoad. False when they are missing.
bool loadExceptionClass(JNIEnv* env);

// Throws ZoltPanoException(code, message). `message` is UTF-8.
void throwRefusal(JNIEnv* env, int code, const char* message);

// Throws the last refusal recorded on `handle` (nullptr: the calling thread's calls without an
// engine), or `fallback` with "`call` refused" when none was recorded. Always throws.
void throwLastRefusal(JNIEnv* env, void* handle, int fallback, const char* call);

// A Java string from UTF-8 (invalid bytes become U+FFFD): NewStringUTF takes modified UTF-8 and
// aborts under CheckJNI on anything else, and a message may quote an app's text.
jstring javaString(JNIEnv* env, const char* utf8);

// The address of a direct buffer plus `offset`; nullptr for a buffer that has none.
unsigned char* directAddress(JNIEnv* env, jobject buffer, jint offset);

}  // namespace zolt::jni
