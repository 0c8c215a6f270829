/* Prints the engine's version through the installed header and library. Plain C: the public
 * headers must serve C callers too. With the host sensor service it also checks that a host
 * without a gyroscope syncs at once. */
#include <stdio.h>

#include <zolt_pano.h>
#ifdef ZOLT_CONSUMER_HOST_SENSOR
#include <zolt_host_sensor.h>
#endif

int main(void) {
  const char* version = ZOLT_PANO_GetVersion();
  if (version == NULL) return 1;
#ifdef ZOLT_CONSUMER_HOST_SENSOR
  zolt_host_sensor_set_gyroscope(0);
  zolt_host_sensor_push_gyro(1, 0.0f, 0.0f, 0.0f); /* dropped: no queue */
  zolt_host_sensor_sync();
#endif
  printf("%s\n", version);
  return 0;
}
