// ZOLT_PANO_GetVerdict: whether the capture so far is a panorama, as the engine's own judgement
// at each merge has it (engine/capture_verdict.h).
#include <exception>
#include <string>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "zolt_pano_ext.h"

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_GetVerdict(void* handle, int* verdict, char* message,
                                          int messageSize) {
  constexpr const char* kWhere = "ZOLT_PANO_GetVerdict";
  using zolt::api::refuse;
  OrreryEngine* engine = zolt::api::liveEngine(handle, kWhere);
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  if (verdict == nullptr) {
    refuse(engine, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored", kWhere);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  try {
    std::string text;
    const int v = engine->judgeCapture(text);
    if (v < 0) {
      refuse(engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
             "%s :: nothing to judge : no key frame merged yet", kWhere);
      return ZOLT_PANO_ERR_NOTHING_TO_SAVE;
    }
    *verdict = v;
    zolt::api::copyMessage(text.c_str(), message, messageSize);
  } catch (const std::exception& e) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s : exception : %s", kWhere, e.what());
    return ZOLT_PANO_ERR_INTERNAL;
  }
  return 0;
}

}  // extern "C"
