// The native side of org.zoltpano.PanoramaEngine, over the C interface (zolt_pano_ext.h) only.
// The Java class checks what it can see (nulls, heap buffers, plane sizes, one thread at a
// time); here each C call's refusal becomes a ZoltPanoException with the engine's code and
// message.
#include <jni.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "jni_support.h"
#include "zolt_pano_ext.h"

namespace {

using zolt::jni::directAddress;
using zolt::jni::javaString;
using zolt::jni::throwLastRefusal;
using zolt::jni::throwRefusal;

// One engine and what the binding owns for it. Freed by nativeRelease only.
struct Bridge {
  void* engine = nullptr;
  int width = 0;
  int height = 0;
  unsigned char* nv21 = nullptr;         // the packed frame, width * height * 3 / 2 bytes
  unsigned char* canvasBytes = nullptr;  // allocated on the frame that fixes the direction
  __tag_ZOLT_OFFSCREEN canvas{};         // the direction-0 record until then
  tsRECT valid{0, 0, 0, 0};
  int progress = 0;                      // AddImage's last: kept over frames it is not called
  char timeRefusal[256] = "";            // the message of the last frame time refused
};

Bridge* bridgeAt(jlong address) {
  return reinterpret_cast<Bridge*>(static_cast<intptr_t>(address));
}

// Reads the refusal a call left on the engine: CANVAS_FULL (the end of a sweep, not an error)
// gives true; another is thrown.
bool canvasFullOrThrow(JNIEnv* env, Bridge* b, bool* thrown) {
  char message[512];
  const int code = ZOLT_PANO_GetLastError(b->engine, message, sizeof message);
  if (code == ZOLT_PANO_ERR_CANVAS_FULL) return true;
  if (code != 0) {
    throwRefusal(env, code, message);
    *thrown = true;
  }
  return false;
}

// The canvas for a sweep in `direction`, up to a whole turn: Y black, VU without colour.
bool allocateCanvas(JNIEnv* env, Bridge* b, int direction) {
  int width = 0;
  int height = 0;
  if (ZOLT_PANO_CanvasSize(b->width, b->height, direction, 0, &width, &height) != 0) {
    throwLastRefusal(env, nullptr, ZOLT_PANO_ERR_INTERNAL, "ZOLT_PANO_CanvasSize");
    return false;
  }
  const size_t ySize = static_cast<size_t>(width) * static_cast<size_t>(height);
  auto* bytes = static_cast<unsigned char*>(std::malloc(ySize * 3 / 2));
  if (bytes == nullptr) {
    throwRefusal(env, ZOLT_PANO_ERR_INTERNAL, "PanoramaEngine.addFrame: out of memory for the canvas");
    return false;
  }
  std::memset(bytes, 0, ySize);
  std::memset(bytes + ySize, 128, ySize / 2);
  b->canvasBytes = bytes;
  b->canvas = __tag_ZOLT_OFFSCREEN{0, width, height, bytes, bytes + ySize};
  return true;
}

// A byte[] holding NUL-terminated UTF-8 (or null) as a C string in `storage`.
const char* cText(JNIEnv* env, jbyteArray text, std::vector<char>* storage) {
  if (text == nullptr) return nullptr;
  storage->resize(static_cast<size_t>(env->GetArrayLength(text)));
  env->GetByteArrayRegion(text, 0, static_cast<jsize>(storage->size()),
                          reinterpret_cast<jbyte*>(storage->data()));
  return storage->data();
}

}  // namespace

#define ZP_JNI(name) JNIEXPORT JNICALL Java_org_zoltpano_PanoramaEngine_##name

extern "C" {

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void*) {
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) return JNI_ERR;
  return zolt::jni::loadExceptionClass(env) ? JNI_VERSION_1_6 : JNI_ERR;
}

jlong ZP_JNI(nativeCreate)(JNIEnv* env, jclass, jint width, jint height, jint orientation) {
  tag_ZOLT_PANO_INIT_PARAM init;
  std::memset(&init, 0, sizeof init);
  init.previewWidth = width;
  init.previewHeight = height;
  init.camOrientation = orientation;
  void* engine = nullptr;
  if (ZOLT_PANO_Initial(&init, &engine) != ZOLT_PANO_SUCCESS) {
    throwLastRefusal(env, nullptr, ZOLT_PANO_ERR_INVALID_DIMENSIONS, "ZOLT_PANO_Initial");
    return 0;
  }
  auto* b = new (std::nothrow) Bridge;
  auto* nv21 = static_cast<unsigned char*>(
      std::malloc(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2));
  if (b == nullptr || nv21 == nullptr) {
    delete b;
    std::free(nv21);
    ZOLT_PANO_Release(&engine);
    throwRefusal(env, ZOLT_PANO_ERR_INTERNAL, "PanoramaEngine.create: out of memory");
    return 0;
  }
  b->engine = engine;
  b->width = width;
  b->height = height;
  b->nv21 = nv21;
  // The record AddImage takes while the direction is unknown; its planes are not read.
  ZOLT_PANO_CanvasSize(width, height, ZOLT_PANO_MOVE_NONE, 0, &b->canvas.width,
                       &b->canvas.height);
  return static_cast<jlong>(reinterpret_cast<intptr_t>(b));
}

void ZP_JNI(nativeRelease)(JNIEnv*, jclass, jlong address) {
  Bridge* b = bridgeAt(address);
  ZOLT_PANO_Release(&b->engine);  // joins the gyroscope thread
  std::free(b->canvasBytes);
  std::free(b->nv21);
  delete b;
}

void ZP_JNI(nativeSetOption)(JNIEnv* env, jclass, jlong address, jint option, jint value) {
  Bridge* b = bridgeAt(address);
  if (ZOLT_PANO_SetOption(b->engine, option, value) != 0)
    throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_BAD_OPTION, "ZOLT_PANO_SetOption");
}

// out: code, key frame, direction, offset x, y, sweep length, progress, canvas full, the frame
// time's refusal code (0: used or none given).
void ZP_JNI(nativeAddFrame)(JNIEnv* env, jclass, jlong address, jobject y, jint yOffset,
                            jint yRowStride, jobject u, jint uOffset, jobject v, jint vOffset,
                            jint uvRowStride, jint uvPixelStride, jlong timestampNs,
                            jintArray out) {
  Bridge* b = bridgeAt(address);
  const unsigned char* yPlane = directAddress(env, y, yOffset);
  const unsigned char* uPlane = directAddress(env, u, uOffset);
  const unsigned char* vPlane = directAddress(env, v, vOffset);
  if (yPlane == nullptr || uPlane == nullptr || vPlane == nullptr)
    return throwRefusal(env, ZOLT_PANO_ERR_BAD_ARGUMENT,
                        "PanoramaEngine.addFrame: a plane's memory cannot be read in place");
  if (ZOLT_PANO_PackNV21(yPlane, yRowStride, uPlane, vPlane, uvRowStride, uvPixelStride,
                         b->width, b->height, b->nv21) != 0)
    return throwLastRefusal(env, nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT, "ZOLT_PANO_PackNV21");

  // A time the engine refuses leaves the frame tracked without one; its message is kept for
  // the Java side to log.
  int timeRefused = 0;
  if (timestampNs >= 0 && ZOLT_PANO_SetFrameTime(b->engine, timestampNs) != 0) {
    timeRefused = ZOLT_PANO_GetLastError(b->engine, b->timeRefusal, sizeof b->timeRefusal);
    if (timeRefused == 0) timeRefused = ZOLT_PANO_ERR_BAD_ARGUMENT;
  }

  __tag_ZOLT_OFFSCREEN frame = {0, b->width, b->height, b->nv21,
                                b->nv21 + static_cast<size_t>(b->width) * b->height};
  tsPOINT offset = {0, 0};
  long isKeyFrame = 0;
  int direction = 0;
  int sweepLength = 0;
  const int code = ZOLT_PANO_SelectFrames(b->engine, nullptr, nullptr, &frame, nullptr, &offset,
                                          &isKeyFrame, nullptr, &direction, &sweepLength);
  bool thrown = false;
  bool canvasFull = canvasFullOrThrow(env, b, &thrown);
  if (thrown) return;
  if (!canvasFull) {
    if (b->canvasBytes == nullptr && direction >= ZOLT_PANO_MOVE_RIGHT &&
        direction <= ZOLT_PANO_MOVE_UP && !allocateCanvas(env, b, direction))
      return;
    ZOLT_PANO_AddImage(b->engine, nullptr, nullptr, nullptr, nullptr, &b->canvas, &b->valid,
                       nullptr, &b->progress);
    canvasFull = canvasFullOrThrow(env, b, &thrown);
    if (thrown) return;
  }
  const jint result[] = {code,   isKeyFrame != 0 ? 1 : 0, direction,
                         offset.x, offset.y, sweepLength, b->progress, canvasFull ? 1 : 0,
                         timeRefused};
  env->SetIntArrayRegion(out, 0, sizeof result / sizeof result[0], result);
}

jstring ZP_JNI(nativeTimeRefusal)(JNIEnv* env, jclass, jlong address) {
  return javaString(env, bridgeAt(address)->timeRefusal);
}

jbyteArray ZP_JNI(nativeEncodeJpeg)(JNIEnv* env, jclass, jlong address, jint quality) {
  Bridge* b = bridgeAt(address);
  unsigned char* data = nullptr;
  size_t size = 0;
  if (ZOLT_PANO_EncodeJpeg(b->engine, quality, &data, &size) != 0) {
    throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_WRITE_FAILED, "ZOLT_PANO_EncodeJpeg");
    return nullptr;
  }
  jbyteArray bytes = nullptr;
  if (size > static_cast<size_t>(INT32_MAX)) {
    throwRefusal(env, ZOLT_PANO_ERR_WRITE_FAILED,
                 "PanoramaEngine.encodeJpeg: the JPEG is over 2^31 - 1 bytes; save it to a file");
  } else {
    bytes = env->NewByteArray(static_cast<jsize>(size));  // null: OutOfMemoryError pending
    if (bytes != nullptr)
      env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(size),
                              reinterpret_cast<const jbyte*>(data));
  }
  ZOLT_PANO_FreeBuffer(data);
  return bytes;
}

void ZP_JNI(nativeSaveJpeg)(JNIEnv* env, jclass, jlong address, jbyteArray path, jint quality) {
  Bridge* b = bridgeAt(address);
  std::vector<char> storage;
  if (ZOLT_PANO_SaveJpeg(b->engine, cText(env, path, &storage), quality) != 0)
    throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_WRITE_FAILED, "ZOLT_PANO_SaveJpeg");
}

jstring ZP_JNI(nativeVerdict)(JNIEnv* env, jclass, jlong address, jintArray code) {
  Bridge* b = bridgeAt(address);
  int verdict = 0;
  char message[512];
  if (ZOLT_PANO_GetVerdict(b->engine, &verdict, message, sizeof message) != 0) {
    throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE, "ZOLT_PANO_GetVerdict");
    return nullptr;
  }
  const jint value = verdict;
  env->SetIntArrayRegion(code, 0, 1, &value);
  return javaString(env, message);
}

void ZP_JNI(nativeSetPhotoInfo)(JNIEnv* env, jclass, jlong address, jlong captureTimeUtcMs,
                                jint zoneOffsetMinutes, jbyteArray make, jbyteArray model,
                                jbyteArray software) {
  Bridge* b = bridgeAt(address);
  std::vector<char> makeText, modelText, softwareText;
  ZOLT_PANO_PhotoInfo info;
  std::memset(&info, 0, sizeof info);
  info.captureTimeUtcMs = captureTimeUtcMs;
  info.zoneOffsetMinutes = zoneOffsetMinutes;
  info.make = cText(env, make, &makeText);
  info.model = cText(env, model, &modelText);
  info.software = cText(env, software, &softwareText);
  if (ZOLT_PANO_SetPhotoInfo(b->engine, &info) != 0)
    throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_BAD_ARGUMENT, "ZOLT_PANO_SetPhotoInfo");
}

// Renders at rows of maxWidth * 4 bytes, then closes the rows up to width * 4 bytes each, the
// layout a Bitmap copies; size receives width and height.
void ZP_JNI(nativePreview)(JNIEnv* env, jclass, jlong address, jint maxWidth, jint maxHeight,
                           jobject rgba, jint offset, jintArray size) {
  Bridge* b = bridgeAt(address);
  unsigned char* pixels = directAddress(env, rgba, offset);
  if (pixels == nullptr)
    return throwRefusal(env, ZOLT_PANO_ERR_BAD_ARGUMENT,
                        "PanoramaEngine.preview: the buffer's memory cannot be written in place");
  int width = 0;
  int height = 0;
  const int stride = maxWidth * 4;
  if (ZOLT_PANO_RenderPreview(b->engine, maxWidth, maxHeight, pixels, stride, &width,
                              &height) != 0)
    return throwLastRefusal(env, b->engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
                            "ZOLT_PANO_RenderPreview");
  const size_t row = static_cast<size_t>(width) * 4;
  for (int r = 1; r < height; ++r)
    std::memmove(pixels + r * row, pixels + static_cast<size_t>(r) * stride, row);
  const jint result[] = {width, height};
  env->SetIntArrayRegion(size, 0, 2, result);
}

jstring ZP_JNI(nativeVersion)(JNIEnv* env, jclass) {
  return javaString(env, ZOLT_PANO_GetVersion());
}

jstring ZP_JNI(nativeCodeName)(JNIEnv* env, jclass, jint code) {
  return javaString(env, ZOLT_PANO_CodeName(code));
}

jstring ZP_JNI(nativeCodeHint)(JNIEnv* env, jclass, jint code) {
  return javaString(env, ZOLT_PANO_CodeHint(code));
}

void ZP_JNI(nativeSetLogLevel)(JNIEnv* env, jclass, jint level) {
  ZOLT_PANO_GetLastError(nullptr, nullptr, 0);  // this call's refusal, not an older one
  ZOLT_PANO_SetLogLevel(level);
  char message[256];
  const int code = ZOLT_PANO_GetLastError(nullptr, message, sizeof message);
  if (code != 0) throwRefusal(env, code, message);
}

}  // extern "C"
