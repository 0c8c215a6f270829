package org.zoltpano;

/**
 * Loads {@code libzoltpano_jni}, which pulls in the engine. The system property
 * {@code org.zoltpano.library} names the file to load instead (an absolute path); otherwise
 * the platform's search: an app's {@code jniLibs} on Android, {@code java.library.path} on a JVM.
 */
final class NativeLibrary {
  static final String PATH_PROPERTY = "org.zoltpano.library";

  static {
    String path = System.getProperty(PATH_PROPERTY);
    if (path != null && !path.isEmpty()) {
      System.load(path);
    } else {
      System.loadLibrary("zoltpano_jni");
    }
  }

  private NativeLibrary() {}

  /** Loads the library once; every class with native methods calls it first. */
  static void load() {}
}
