import org.zoltpano.PanoramaEngine;
import org.zoltpano.ZoltPanoException;

/**
 * The installed jar and JNI library from a Java program outside the project, found as an
 * application on a JVM finds them: the jar on the class path, the library through
 * java.library.path. Prints the version, then one refusal a line, "CODE_NAME: message".
 */
public final class Consumer {
  public static void main(String[] args) {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
    System.out.println(PanoramaEngine.version());
    try {
      PanoramaEngine.create(640, 480, 0);
      throw new AssertionError("640x480 accepted");
    } catch (ZoltPanoException e) {
      System.out.println(e.codeName() + ": " + e.getMessage());
    }
    PanoramaEngine engine = PanoramaEngine.create(1280, 720, 0);
    engine.close();
    try {
      engine.encodeJpeg(0);
      throw new AssertionError("a closed engine encoded");
    } catch (ZoltPanoException e) {
      System.out.println(e.codeName() + ": " + e.getMessage());
    }
  }
}
