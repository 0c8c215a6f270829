package org.zoltpano;

/**
 * The gyroscope of a host (Linux) build, where no sensor service exists: tests and offline runs
 * give the engine one and feed it its events, deterministically. Push the events up to a
 * frame's time, {@link #sync()}, then hand the frame to {@link PanoramaEngine#addFrame}. Any
 * thread may call these. Not in Android builds: there the phone's own gyroscope is read.
 */
public final class HostGyroscope {
  static {
    NativeLibrary.load();
  }

  private HostGyroscope() {}

  /** Whether a gyroscope exists for engines created from now on (none by default). */
  public static void setPresent(boolean present) {
    nativeSetPresent(present);
  }

  /**
   * One gyroscope event: its time in nanoseconds and the rates in rad/s about the phone's
   * sensor axes. Dropped while no engine has the gyroscope running.
   */
  public static void push(long timestampNs, float x, float y, float z) {
    nativePush(timestampNs, x, y, z);
  }

  /** Returns once every event pushed has reached the engines' gyroscope fusion. */
  public static void sync() {
    nativeSync();
  }

  private static native void nativeSetPresent(boolean present);

  private static native void nativePush(long timestampNs, float x, float y, float z);

  private static native void nativeSync();
}
