/* The host sensor service: what stands in for the phone's sensor service on a Linux build.
 * By default the host has no gyroscope and the engine tracks from the images alone. These
 * functions give it one and feed it, so that an offline run is deterministic: push the events
 * up to a frame's timestamp, sync, then hand the frame to ZOLT_PANO_SelectFrames.
 * Any thread may call them. */
#ifndef ZOLT_HOST_SENSOR_H
#define ZOLT_HOST_SENSOR_H

#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
#define ZOLT_HOST_SENSOR_EXPORT __attribute__((visibility("default")))
#else
#define ZOLT_HOST_SENSOR_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* 1: a gyroscope exists from the next ZOLT_PANO_Initial on; 0: none (default). */
ZOLT_HOST_SENSOR_EXPORT void zolt_host_sensor_set_gyroscope(int present);
/* One event, rad/s, phone sensor axes. Dropped while no event queue has the gyroscope enabled. */
ZOLT_HOST_SENSOR_EXPORT void zolt_host_sensor_push_gyro(int64_t timestamp_ns, float wx, float wy,
                                                        float wz);
/* Returns once every pushed event has gone through the fusion callback (at once when no queue
 * is enabled, or when the polling thread has ended). */
ZOLT_HOST_SENSOR_EXPORT void zolt_host_sensor_sync(void);

#ifdef __cplusplus
}
#endif

#endif /* ZOLT_HOST_SENSOR_H */
