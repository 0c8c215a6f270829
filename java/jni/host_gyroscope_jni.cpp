// The native side of org.zoltpano.HostGyroscope: the host sensor service (zolt_host_sensor.h),
// built into the JNI library on hosts only.
#include <jni.h>

#include "zolt_host_sensor.h"

#define ZP_JNI(name) JNIEXPORT JNICALL Java_org_zoltpano_HostGyroscope_##name

extern "C" {

void ZP_JNI(nativeSetPresent)(JNIEnv*, jclass, jboolean present) {
  zolt_host_sensor_set_gyroscope(present ? 1 : 0);
}

void ZP_JNI(nativePush)(JNIEnv*, jclass, jlong timestampNs, jfloat x, jfloat y, jfloat z) {
  zolt_host_sensor_push_gyro(timestampNs, x, y, z);
}

void ZP_JNI(nativeSync)(JNIEnv*, jclass) { zolt_host_sensor_sync(); }

}  // extern "C"
