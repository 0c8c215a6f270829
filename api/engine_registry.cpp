#include "api/engine_registry.h"

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "engine/orrery_engine.h"
#include "api/refusal.h"
#include "platform/log.h"

namespace zolt::api {

namespace {

// How many released engines' memory is held back: a stale handle is recognised as long as
// fewer than this many engines were released after it. A few kilobytes at most.
constexpr size_t kHeldBack = 32;

// What the interface keeps beside each live engine.
struct Side {
  bool frameRefused = false;  // its last frame was refused by the argument checks
  int errCode = 0;            // last refusal or failure since the last ZOLT_PANO_GetLastError
  std::string errMessage;
};

struct Registry {
  std::mutex mutex;
  std::map<OrreryEngine*, Side> live;
  std::deque<void*> heldBack;          // storage of destroyed engines, oldest first
};

// Never destroyed: engines may be released from other objects' destructors at exit.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

}  // namespace

void enroll(OrreryEngine* engine) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.live[engine] = Side();
}

OrreryEngine* liveEngine(void* handle, const char* where) {
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(static_cast<OrreryEngine*>(handle));
    if (it != r.live.end()) return it->first;
  }
  refuse(nullptr, ZOLT_PANO_ERR_NOT_ENGINE, "%s :: Invalid handle %p : not a live engine, call ignored",
         where, handle);
  return nullptr;
}

OrreryEngine* withdraw(void** handle, const char* where) {
  if (handle == nullptr) {
    refuse(nullptr, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL handle pointer : call ignored", where);
    return nullptr;
  }
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(static_cast<OrreryEngine*>(*handle));
    if (it != r.live.end()) {
      OrreryEngine* engine = it->first;
      r.live.erase(it);
      return engine;
    }
  }
  refuse(nullptr, ZOLT_PANO_ERR_NOT_ENGINE, "%s :: Invalid handle %p : not a live engine, call ignored",
         where, *handle);
  return nullptr;
}

void retire(OrreryEngine* engine) {
  if (engine == nullptr) return;
  engine->~OrreryEngine();
  void* oldest = nullptr;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.heldBack.push_back(engine);
    if (r.heldBack.size() > kHeldBack) {
      oldest = r.heldBack.front();
      r.heldBack.pop_front();
    }
  }
  ::operator delete(oldest);  // the engine came from a plain new-expression
}

void setFrameRefused(OrreryEngine* engine, bool refused) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.live.find(engine);
  if (it != r.live.end()) it->second.frameRefused = refused;
}

bool frameRefused(OrreryEngine* engine) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.live.find(engine);
  return it != r.live.end() && it->second.frameRefused;
}

void keepError(OrreryEngine* engine, int code, const char* message) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.live.find(engine);
  if (it == r.live.end()) return;
  it->second.errCode = code;
  it->second.errMessage = message;
}

int takeError(OrreryEngine* engine, char* message, int messageSize) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.live.find(engine);
  if (it == r.live.end()) return -1;
  Side& side = it->second;
  copyMessage(side.errCode != 0 ? side.errMessage.c_str() : "", message, messageSize);
  const int code = side.errCode;
  side.errCode = 0;
  std::string().swap(side.errMessage);
  return code;
}

}  // namespace zolt::api
