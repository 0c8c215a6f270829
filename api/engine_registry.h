// The engines this process has created and not yet released. The interface leaves the caller's
// handle uncleared after ZOLT_PANO_Release, so a stale handle can come back; every call looks
// its handle up here first and refuses what is not a live engine. One mutex guards the table;
// calls on one engine still come from one thread at a time.
#pragma once

class OrreryEngine;

namespace zolt::api {

// Takes a newly built engine into the table.
void enroll(OrreryEngine* engine);

// The live engine behind `handle`, or null (with an error line naming `where`).
OrreryEngine* liveEngine(void* handle, const char* where);

// Takes the engine behind *handle out of the table for its release; null (with an error line)
// when the slot is null or the handle is not a live engine. Of two racing releases one wins.
OrreryEngine* withdraw(void** handle, const char* where);

// Destroys a withdrawn engine. Its memory is held back for the next few engines' lifetimes, so
// that a new engine does not get the address of one just released and a stale handle stays
// recognisable as stale.
void retire(OrreryEngine* engine);

// Whether the engine's last ZOLT_PANO_SelectFrames was refused by the argument checks; the
// following ZOLT_PANO_AddImage then has nothing to merge.
void setFrameRefused(OrreryEngine* engine, bool refused);
bool frameRefused(OrreryEngine* engine);

// The last refusal or failure of a call on a live engine, for ZOLT_PANO_GetLastError. Keeping
// one for an engine that is no longer live does nothing.
void keepError(OrreryEngine* engine, int code, const char* message);
// Copies the kept message (truncated, terminated) and clears it. -1: not a live engine.
int takeError(OrreryEngine* engine, char* message, int messageSize);

}  // namespace zolt::api
