#include "jni_support.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "zolt_pano_ext.h"

namespace zolt::jni {
namespace {
jclass gException = nullptr;
jmethodID gExceptionInit = nullptr;
}  // namespace

bool loadExceptionClass(JNIEnv* env) {
  jclass local = env->FindClass("org/zoltpano/ZoltPanoException");
  if (local == nullptr) return false;
  gException = static_cast<jclass>(env->NewGlobalRef(local));
  env->DeleteLocalRef(local);
  gExceptionInit = env->GetMethodID(gException, "<init>", "(ILjava/lang/String;)V");
  return gException != nullptr && gExceptionInit != nullptr;
}

void throwRefusal(JNIEnv* env, int code, const char* message) {
  if (env->ExceptionCheck()) return;  // one already pending (an OutOfMemoryError) goes first
  jstring text = javaString(env, message);
  if (text == nullptr) return;
  auto* exception =
      static_cast<jthrowable>(env->NewObject(gException, gExceptionInit, code, text));
  if (exception != nullptr) env->Throw(exception);
}

void throwLastRefusal(JNIEnv* env, void* handle, int fallback, const char* call) {
  char message[512];
  const int code = ZOLT_PANO_GetLastError(handle, message, sizeof message);
  if (code != 0) return throwRefusal(env, code, message);
  std::snprintf(message, sizeof message, "%s refused", call);
  throwRefusal(env, fallback, message);
}

jstring javaString(JNIEnv* env, const char* utf8) {
  std::u16string out;
  const auto* p = reinterpret_cast<const unsigned char*>(utf8);
  while (*p != 0) {
    const unsigned char lead = *p;
    int extra = lead < 0x80 ? 0 : (lead >> 5) == 0x6 ? 1 : (lead >> 4) == 0xE ? 2
              : (lead >> 3) == 0x1E ? 3 : -1;
    char32_t c = extra == 0 ? lead : extra == 1 ? (lead & 0x1F) : extra == 2 ? (lead & 0x0F)
                                                                              : (lead & 0x07);
    int taken = 1;
    for (int i = 1; i <= extra; ++i, ++taken) {
      if ((p[i] & 0xC0) != 0x80) {
        extra = -1;  // cut short
        break;
      }
      c = (c << 6) | (p[i] & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8 either.
    static constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (extra < 0 || c < kLeast[extra] || (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
      out.push_back(u'\uFFFD');
      p += extra < 0 ? taken : 1 + extra;
      continue;
    }
    p += 1 + extra;
    if (c >= 0x10000) {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c));
    }
  }
  return env->NewString(reinterpret_cast<const jchar*>(out.data()),
                        static_cast<jsize>(out.size()));
}

unsigned char* directAddress(JNIEnv* env, jobject buffer, jint offset) {
  void* base = env->GetDirectBufferAddress(buffer);
  return base == nullptr ? nullptr : static_cast<unsigned char*>(base) + offset;
}

}  // namespace zolt::jni
