// Argument checks at the C interface. Each returns true when the call may go on and otherwise
// logs one error line naming `where` and keeps it as the engine's last error (api/refusal.h);
// the caller then leaves the call without effect. They
// catch what an app can really get wrong: null records and outputs, a frame of another size
// than the engine's, a canvas that cannot take the sweep.
#pragma once

#include "zolt_pano.h"

class OrreryEngine;

namespace zolt::api {

// A preview frame: both planes present, exactly the engine's preview size.
bool frameFits(OrreryEngine& engine, const __tag_ZOLT_OFFSCREEN* frame, const char* where);

// The canvas of ZOLT_PANO_AddImage. Always: a record with both sides positive (progress divides
// by one of them). When this call places the first key frame: both planes present, the VU plane
// directly behind the Y plane, even sides, no more than 2^31 - 1 bytes, as high as a frame and
// at least as wide for a horizontal sweep (as wide and at least as high for a vertical one).
bool canvasFits(OrreryEngine& engine, const __tag_ZOLT_OFFSCREEN* canvas, const char* where);

}  // namespace zolt::api
