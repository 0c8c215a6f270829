// What the Java binding adds to a frame: org.zoltpano.PanoramaEngine.addFrame called through
// JNI against the C calls a native app makes with the same camera planes, on the 1920 x 1080
// sweep of bench_zolt_pano_engine, in one process. Both paths run the same libzoltpano (the C
// path's calls are looked up in the copy the binding loaded), so the difference is the binding.
// Time is wall-clock per frame of a whole sweep on a fresh engine; engine creation and release
// are outside it on both sides. For the difference take both medians of one run:
//   bench_java_binding --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <jni.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "bench/support/hd_sweep.h"
#include "sim/sweep_simulator.h"
#include "zolt_pano_ext.h"

namespace {

// One frame as a camera hands it in YUV_420_888 (Android's NV21-backed Image): Y rows padded to
// rowStride bytes; V and U interleaved in one plane of the same row stride, V first, each at
// pixel stride 2. Direct memory, read in place by both paths.
struct CameraFrame {
  std::vector<uint8_t> y;   // height rows of rowStride bytes
  std::vector<uint8_t> vu;  // height / 2 rows of rowStride bytes: V U V U ...
};

// The sweep of BM_FrameOptions (300 handheld frames, 11.5 px a frame), rendered once and kept
// as camera planes.
struct Sweep {
  int w = 1920, h = 1080;
  int rowStride = 1920 + 64;  // bytes; padded as many camera HALs pad preview rows
  std::vector<CameraFrame> frames;
};

const Sweep& sweep() {
  static const std::unique_ptr<Sweep> s = [] {
    auto out = std::make_unique<Sweep>();
    zolt::sim::SweepSimulator sim(zolt::bench::hdHandheldSweep());
    zolt::sim::SimFrame f;
    const size_t stride = static_cast<size_t>(out->rowStride);
    const size_t w = static_cast<size_t>(out->w), h = static_cast<size_t>(out->h);
    while (sim.next(f)) {
      CameraFrame c;
      c.y.assign(stride * h, 0);
      c.vu.assign(stride * h / 2, 0);
      for (size_t r = 0; r < h; ++r) std::memcpy(&c.y[r * stride], &f.nv21[r * w], w);
      const uint8_t* vu = f.nv21.data() + w * h;  // NV21: V U pairs, w bytes a row
      for (size_t r = 0; r < h / 2; ++r) std::memcpy(&c.vu[r * stride], &vu[r * w], w);
      out->frames.push_back(std::move(c));
    }
    return out;
  }();
  return *s;
}

// ---------------------------------------------------------------------------------------------
// The C path: libzoltpano's calls, taken from the library the binding loaded.

struct CApi {
  decltype(&ZOLT_PANO_Initial) initial;
  decltype(&ZOLT_PANO_Release) release;
  decltype(&ZOLT_PANO_PackNV21) packNV21;
  decltype(&ZOLT_PANO_SelectFrames) selectFrames;
  decltype(&ZOLT_PANO_AddImage) addImage;
  decltype(&ZOLT_PANO_GetLastError) getLastError;
  decltype(&ZOLT_PANO_CanvasSize) canvasSize;
  decltype(&ZOLT_PANO_EncodeJpeg) encodeJpeg;
  decltype(&ZOLT_PANO_FreeBuffer) freeBuffer;
  decltype(&ZOLT_PANO_SetLogLevel) setLogLevel;
};

// The JVM and what the Java path calls; made once per process (a process gets one JVM).
struct Java {
  JavaVM* vm = nullptr;
  jclass engineClass = nullptr;  // global refs
  jmethodID create = nullptr, addFrame = nullptr, encodeJpeg = nullptr, close = nullptr;
  std::vector<jobject> y, u, v;  // each frame's planes as direct ByteBuffers, global refs
  std::string error;             // why the JVM or the binding is unusable; "" when ready
};

Java& java();

// Loaded after the JVM, so that dlopen finds the libzoltpano the binding already pulled in.
const CApi* cApi() {
  static const CApi* api = []() -> const CApi* {
    if (!java().error.empty()) return nullptr;
    void* lib = dlopen(ZOLTPANO_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD);
    if (lib == nullptr) return nullptr;  // not the binding's copy: no fair comparison
    static CApi a;
    bool ok = true;
    auto get = [&](auto& fn, const char* name) {
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(lib, name));
      ok = ok && fn != nullptr;
    };
    get(a.initial, "ZOLT_PANO_Initial");
    get(a.release, "ZOLT_PANO_Release");
    get(a.packNV21, "ZOLT_PANO_PackNV21");
    get(a.selectFrames, "ZOLT_PANO_SelectFrames");
    get(a.addImage, "ZOLT_PANO_AddImage");
    get(a.getLastError, "ZOLT_PANO_GetLastError");
    get(a.canvasSize, "ZOLT_PANO_CanvasSize");
    get(a.encodeJpeg, "ZOLT_PANO_EncodeJpeg");
    get(a.freeBuffer, "ZOLT_PANO_FreeBuffer");
    get(a.setLogLevel, "ZOLT_PANO_SetLogLevel");
    return ok ? &a : nullptr;
  }();
  return api;
}

// A native app's engine: the packed frame and the canvas it owns, as the binding keeps them.
class CEngine {
 public:
  CEngine(const CApi& api, const Sweep& s)
      : api_(api), s_(s),
        nv21_(static_cast<uint8_t*>(std::malloc(static_cast<size_t>(s.w) * s.h * 3 / 2))) {
    tag_ZOLT_PANO_INIT_PARAM init;
    std::memset(&init, 0, sizeof init);
    init.previewWidth = s.w;
    init.previewHeight = s.h;
    api_.initial(&init, &engine_);
    // The direction-0 record until the direction is known; its planes are not read.
    api_.canvasSize(s.w, s.h, ZOLT_PANO_MOVE_NONE, 0, &canvas_.width, &canvas_.height);
  }
  ~CEngine() {
    api_.release(&engine_);
    std::free(canvasBytes_);
    std::free(nv21_);
  }
  CEngine(const CEngine&) = delete;
  CEngine& operator=(const CEngine&) = delete;

  // One frame as the binding handles it; false on a refusal (the binding would throw).
  bool addFrame(const CameraFrame& f) {
    if (engine_ == nullptr || nv21_ == nullptr) return false;
    const uint8_t* vu = f.vu.data();
    if (api_.packNV21(f.y.data(), s_.rowStride, vu + 1, vu, s_.rowStride, 2, s_.w, s_.h,
                      nv21_) != 0)
      return false;
    __tag_ZOLT_OFFSCREEN frame = {0, s_.w, s_.h, nv21_,
                                  nv21_ + static_cast<size_t>(s_.w) * s_.h};
    tsPOINT offset = {0, 0};
    long isKeyFrame = 0;
    int direction = 0, sweepLength = 0, progress = 0;
    api_.selectFrames(engine_, nullptr, nullptr, &frame, nullptr, &offset, &isKeyFrame, nullptr,
                      &direction, &sweepLength);
    bool refused = false;
    if (canvasFull(&refused) || refused) return !refused;
    if (canvasBytes_ == nullptr && direction >= ZOLT_PANO_MOVE_RIGHT &&
        direction <= ZOLT_PANO_MOVE_UP && !allocateCanvas(direction))
      return false;
    api_.addImage(engine_, nullptr, nullptr, nullptr, nullptr, &canvas_, &valid_, nullptr,
                  &progress);
    canvasFull(&refused);
    return !refused;
  }

  std::vector<uint8_t> jpeg() {
    unsigned char* data = nullptr;
    size_t size = 0;
    std::vector<uint8_t> out;
    if (api_.encodeJpeg(engine_, 0, &data, &size) == 0) out.assign(data, data + size);
    api_.freeBuffer(data);
    return out;
  }

 private:
  // The refusal the last call left: CANVAS_FULL ends the sweep; any other sets *refused.
  bool canvasFull(bool* refused) {
    char message[512];
    const int code = api_.getLastError(engine_, message, sizeof message);
    *refused = code != 0 && code != ZOLT_PANO_ERR_CANVAS_FULL;
    return code == ZOLT_PANO_ERR_CANVAS_FULL;
  }
  // Up to a whole turn: Y black, VU without colour.
  bool allocateCanvas(int direction) {
    int width = 0, height = 0;
    if (api_.canvasSize(s_.w, s_.h, direction, 0, &width, &height) != 0) return false;
    const size_t ySize = static_cast<size_t>(width) * static_cast<size_t>(height);
    canvasBytes_ = static_cast<uint8_t*>(std::malloc(ySize * 3 / 2));
    if (canvasBytes_ == nullptr) return false;
    std::memset(canvasBytes_, 0, ySize);
    std::memset(canvasBytes_ + ySize, 128, ySize / 2);
    canvas_ = __tag_ZOLT_OFFSCREEN{0, width, height, canvasBytes_, canvasBytes_ + ySize};
    return true;
  }

  const CApi& api_;
  const Sweep& s_;
  void* engine_ = nullptr;
  uint8_t* nv21_;                   // the packed frame, malloc'd as the binding's (first touched
                                    // by the first frame on both paths)
  uint8_t* canvasBytes_ = nullptr;  // malloc'd on the frame that fixes the direction
  __tag_ZOLT_OFFSCREEN canvas_{};
  tsRECT valid_{0, 0, 0, 0};
};

// ---------------------------------------------------------------------------------------------
// The Java path.

JNIEnv* env() {
  JNIEnv* e = nullptr;
  JavaVM* vm = java().vm;
  if (vm->GetEnv(reinterpret_cast<void**>(&e), JNI_VERSION_1_8) == JNI_EDETACHED)
    vm->AttachCurrentThread(reinterpret_cast<void**>(&e), nullptr);
  return e;
}

// A pending Java exception as text (cleared), or "".
std::string takeException(JNIEnv* e) {
  if (!e->ExceptionCheck()) return "";
  jthrowable t = e->ExceptionOccurred();
  e->ExceptionClear();
  jclass object = e->FindClass("java/lang/Object");
  jmethodID toString = e->GetMethodID(object, "toString", "()Ljava/lang/String;");
  auto text = static_cast<jstring>(e->CallObjectMethod(t, toString));
  std::string out = "a Java exception";
  if (text != nullptr) {
    const char* chars = e->GetStringUTFChars(text, nullptr);
    out = chars;
    e->ReleaseStringUTFChars(text, chars);
  }
  e->ExceptionClear();
  return out;
}

Java& java() {
  static Java j = [] {
    Java out;
    std::string classPath = std::string("-Djava.class.path=") + ZOLTPANO_JAR_FILE;
    std::string library = std::string("-Dorg.zoltpano.library=") + ZOLTPANO_JNI_FILE;
    JavaVMOption options[] = {{const_cast<char*>(classPath.c_str()), nullptr},
                              {const_cast<char*>(library.c_str()), nullptr}};
    JavaVMInitArgs args{};
    args.version = JNI_VERSION_1_8;
    args.nOptions = 2;
    args.options = options;
    args.ignoreUnrecognized = JNI_FALSE;
    JNIEnv* e = nullptr;
    if (JNI_CreateJavaVM(&out.vm, reinterpret_cast<void**>(&e), &args) != JNI_OK) {
      out.error = "JNI_CreateJavaVM failed";
      return out;
    }
    jclass local = e->FindClass("org/zoltpano/PanoramaEngine");  // loads libzoltpano_jni
    if (local == nullptr) {
      out.error = "org.zoltpano.PanoramaEngine: " + takeException(e);
      return out;
    }
    out.engineClass = static_cast<jclass>(e->NewGlobalRef(local));
    e->DeleteLocalRef(local);
    out.create = e->GetStaticMethodID(out.engineClass, "create", "(III)Lorg/zoltpano/PanoramaEngine;");
    out.addFrame = e->GetMethodID(
        out.engineClass, "addFrame",
        "(Ljava/nio/ByteBuffer;ILjava/nio/ByteBuffer;Ljava/nio/ByteBuffer;IIJ)"
        "Lorg/zoltpano/FrameResult;");
    out.encodeJpeg = e->GetMethodID(out.engineClass, "encodeJpeg", "(I)[B");
    out.close = e->GetMethodID(out.engineClass, "close", "()V");
    if (out.create == nullptr || out.addFrame == nullptr || out.encodeJpeg == nullptr ||
        out.close == nullptr) {
      out.error = "PanoramaEngine's methods: " + takeException(e);
      return out;
    }
    jmethodID setLogLevel = e->GetStaticMethodID(out.engineClass, "setLogLevel", "(I)V");
    e->CallStaticVoidMethod(out.engineClass, setLogLevel, ZOLT_PANO_LOG_SILENT);
    if (std::string why = takeException(e); !why.empty()) out.error = why;
    // The planes wrapped once: a camera app gets its buffers from the Image, not per call.
    const Sweep& s = sweep();
    for (const CameraFrame& f : s.frames) {
      auto wrap = [e](const uint8_t* p, size_t n) {
        jobject b = e->NewDirectByteBuffer(const_cast<uint8_t*>(p), static_cast<jlong>(n));
        jobject g = e->NewGlobalRef(b);
        e->DeleteLocalRef(b);
        return g;
      };
      out.y.push_back(wrap(f.y.data(), f.y.size()));
      out.v.push_back(wrap(f.vu.data(), f.vu.size()));
      out.u.push_back(wrap(f.vu.data() + 1, f.vu.size() - 1));
    }
    return out;
  }();
  return j;
}

// One PanoramaEngine, closed on destruction.
class JavaEngine {
 public:
  JavaEngine(const Java& j, const Sweep& s) : j_(j), s_(s), e_(env()) {
    jobject local = e_->CallStaticObjectMethod(j_.engineClass, j_.create, s.w, s.h, 0);
    error_ = takeException(e_);
    if (local != nullptr) {
      engine_ = e_->NewGlobalRef(local);
      e_->DeleteLocalRef(local);
    }
  }
  ~JavaEngine() {
    if (engine_ == nullptr) return;
    e_->CallVoidMethod(engine_, j_.close);
    takeException(e_);
    e_->DeleteGlobalRef(engine_);
  }
  JavaEngine(const JavaEngine&) = delete;
  JavaEngine& operator=(const JavaEngine&) = delete;
  const std::string& error() const { return error_; }

  // Frame k through addFrame; false on an exception (in error()).
  bool addFrame(size_t k) {
    if (engine_ == nullptr) return false;
    jobject result = e_->CallObjectMethod(engine_, j_.addFrame, j_.y[k], s_.rowStride, j_.u[k],
                                          j_.v[k], s_.rowStride, 2, jlong{-1});
    if (e_->ExceptionCheck()) {
      error_ = takeException(e_);
      return false;
    }
    e_->DeleteLocalRef(result);
    return true;
  }

  std::vector<uint8_t> jpeg() {
    auto bytes = static_cast<jbyteArray>(e_->CallObjectMethod(engine_, j_.encodeJpeg, 0));
    std::vector<uint8_t> out;
    if (bytes == nullptr) {
      error_ = takeException(e_);
      return out;
    }
    out.resize(static_cast<size_t>(e_->GetArrayLength(bytes)));
    e_->GetByteArrayRegion(bytes, 0, static_cast<jsize>(out.size()),
                           reinterpret_cast<jbyte*>(out.data()));
    e_->DeleteLocalRef(bytes);
    return out;
  }

 private:
  const Java& j_;
  const Sweep& s_;
  JNIEnv* e_;
  jobject engine_ = nullptr;  // global ref
  std::string error_;
};

// ---------------------------------------------------------------------------------------------

// Both paths once, untimed, before the first measurement: they must give the same panorama.
// Also warms the JIT up. "" when they agree.
const std::string& pathsAgree() {
  static const std::string why = []() -> std::string {
    if (!java().error.empty()) return java().error;
    const CApi* api = cApi();
    if (api == nullptr) return "libzoltpano's calls not found in the copy the binding loaded";
    api->setLogLevel(ZOLT_PANO_LOG_SILENT);
    const Sweep& s = sweep();
    std::vector<uint8_t> cJpeg, javaJpeg;
    {
      CEngine c(*api, s);
      for (const CameraFrame& f : s.frames)
        if (!c.addFrame(f)) return "the C path refused a frame";
      cJpeg = c.jpeg();
    }
    {
      JavaEngine j(java(), s);
      if (!j.error().empty()) return j.error();
      for (size_t k = 0; k < s.frames.size(); ++k)
        if (!j.addFrame(k)) return j.error();
      javaJpeg = j.jpeg();
      if (!j.error().empty()) return j.error();
    }
    if (cJpeg.empty()) return "the C path made no JPEG";
    if (cJpeg != javaJpeg)
      return "the paths' JPEGs differ (" + std::to_string(cJpeg.size()) + " and " +
             std::to_string(javaJpeg.size()) + " bytes)";
    return "";
  }();
  return why;
}

using Clock = std::chrono::steady_clock;

double processCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Each iteration is one whole sweep on a fresh engine; its manual time is the sweep's wall
// time divided by its frames, so the reported time is per frame.
// The counter "cpu us/frame" is the process's CPU time over the same span (every thread: the
// JVM's compiler and collector count for the Java path), which other load on the machine
// stretches less than the wall time.
template <class Engine, class Feed>
void measure(benchmark::State& state, Engine makeEngine, Feed feed) {
  const Sweep& s = sweep();
  const double frames = static_cast<double>(s.frames.size());
  double cpuPerFrame = 0.0;  // us, summed over iterations
  for (auto _ : state) {
    auto engine = makeEngine();  // untimed: outside the manual span
    const double cpuStart = processCpuSeconds();
    const auto start = Clock::now();
    for (size_t k = 0; k < s.frames.size(); ++k) {
      if (!feed(*engine, k)) return;  // feed has set the error
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    cpuPerFrame += (processCpuSeconds() - cpuStart) / frames * 1e6;
    state.SetIterationTime(took.count() / frames);
  }
  state.SetItemsProcessed(state.iterations());  // one frame per manual time: frames/s
  state.counters["cpu us/frame"] = benchmark::Counter(cpuPerFrame, benchmark::Counter::kAvgIterations);
}

void BM_FrameCPath(benchmark::State& state) {
  if (const std::string& why = pathsAgree(); !why.empty()) return state.SkipWithError(why.c_str());
  const CApi& api = *cApi();
  const Sweep& s = sweep();
  measure(
      state, [&] { return std::make_unique<CEngine>(api, s); },
      [&](CEngine& c, size_t k) {
        if (c.addFrame(s.frames[k])) return true;
        state.SkipWithError("the C path refused a frame");
        return false;
      });
}

void BM_FrameJavaPath(benchmark::State& state) {
  if (const std::string& why = pathsAgree(); !why.empty()) return state.SkipWithError(why.c_str());
  const Sweep& s = sweep();
  measure(
      state, [&] { return std::make_unique<JavaEngine>(java(), s); },
      [&](JavaEngine& j, size_t k) {
        if (j.addFrame(k)) return true;
        state.SkipWithError(j.error().c_str());
        return false;
      });
}

// Two sweeps a repetition; about 1 to 3 s each at 1080p.
BENCHMARK(BM_FrameCPath)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_FrameJavaPath)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2)
    ->ReportAggregatesOnly(true);

}  // namespace
