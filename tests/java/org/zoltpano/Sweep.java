package org.zoltpano;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * A sweep made by the tool's simulator ({@code zoltpano simulate}) and read back as the C
 * example reads it: meta.json, frames.nv21 one NV21 frame after another, gyro.csv. The tool,
 * the C example and a work folder come as system properties from CTest.
 */
final class Sweep {
  final Path dir;
  final int width;
  final int height;
  final double fps;
  final double gyroOffsetMs;
  final List<byte[]> frames = new ArrayList<>();
  final List<long[]> events = new ArrayList<>(); // t_ns, then the three rates' float bits
  private int nextEvent;

  private Sweep(Path dir) throws IOException {
    this.dir = dir;
    String meta = new String(Files.readAllBytes(dir.resolve("meta.json")), StandardCharsets.UTF_8);
    width = (int) number(meta, "width");
    height = (int) number(meta, "height");
    fps = number(meta, "fps");
    Matcher offset = Pattern.compile("\"time_offset_ms\"\\s*:\\s*(-?[0-9.eE+-]+)").matcher(meta);
    gyroOffsetMs = offset.find() ? Double.parseDouble(offset.group(1)) : 0.0;
    int count = (int) number(meta, "frames");
    byte[] all = Files.readAllBytes(dir.resolve("frames.nv21"));
    int size = width * height * 3 / 2;
    for (int k = 0; k < count; ++k) {
      byte[] frame = new byte[size];
      System.arraycopy(all, k * size, frame, 0, size);
      frames.add(frame);
    }
    for (String line : Files.readAllLines(dir.resolve("gyro.csv"), StandardCharsets.UTF_8)) {
      if (line.isEmpty() || line.startsWith("#") || line.startsWith("t_ns")) {
        continue;
      }
      String[] f = line.trim().split(",");
      events.add(new long[] {Long.parseLong(f[0]), Float.floatToIntBits(Float.parseFloat(f[1])),
          Float.floatToIntBits(Float.parseFloat(f[2])), Float.floatToIntBits(Float.parseFloat(f[3]))});
    }
    events.sort((a, b) -> Long.compare(a[0], b[0]));
  }

  /** Simulates a sweep into the work folder's {@code name} and reads it. */
  static Sweep make(String name, String... simulateArgs) throws IOException, InterruptedException {
    Path dir = work().resolve(name);
    List<String> command = new ArrayList<>();
    command.add(property("zoltpano.cli"));
    command.add("simulate");
    for (String a : simulateArgs) {
      command.add(a);
    }
    command.add("--out");
    command.add(dir.toString());
    command.add("--force");
    command.add("-q");
    run(command);
    return new Sweep(dir);
  }

  static Path work() throws IOException {
    Path dir = Paths.get(property("zoltpano.work"));
    Files.createDirectories(dir);
    return dir;
  }

  static String property(String name) {
    String value = System.getProperty(name);
    if (value == null || value.isEmpty()) {
      throw new IllegalStateException("system property " + name + " not set (run through ctest)");
    }
    return value;
  }

  /** Runs a program; its output when it exits with 0, else an exception with it. */
  static String run(List<String> command) throws IOException, InterruptedException {
    Process p = new ProcessBuilder(command).redirectErrorStream(true).start();
    byte[] out = readAll(p);
    int status = p.waitFor();
    String text = new String(out, StandardCharsets.UTF_8);
    if (status != 0) {
      throw new IllegalStateException(command + " exited with " + status + ":\n" + text);
    }
    return text;
  }

  private static byte[] readAll(Process p) throws IOException {
    java.io.ByteArrayOutputStream out = new java.io.ByteArrayOutputStream();
    byte[] chunk = new byte[8192];
    for (int n; (n = p.getInputStream().read(chunk)) > 0; ) {
      out.write(chunk, 0, n);
    }
    return out.toByteArray();
  }

  /** Frame k's time on the frames' clock, ns. */
  long frameTimeNs(int k) {
    return Math.round(k * 1e9 / fps);
  }

  /** Pushes the gyroscope events up to frame k's time (on the gyroscope's clock) and syncs. */
  void feedGyroscopeUntil(int k) {
    long until = Math.round((k * 1000.0 / fps + gyroOffsetMs) * 1e6);
    for (; nextEvent < events.size() && events.get(nextEvent)[0] <= until; ++nextEvent) {
      long[] e = events.get(nextEvent);
      HostGyroscope.push(e[0], Float.intBitsToFloat((int) e[1]), Float.intBitsToFloat((int) e[2]),
          Float.intBitsToFloat((int) e[3]));
    }
    HostGyroscope.sync();
  }

  /** Frame k as an Android camera with an NV21-backed image hands it: V and U interleaved. */
  Planes nv21Planes(int k) {
    ByteBuffer all = ByteBuffer.allocateDirect(frames.get(k).length);
    all.put(frames.get(k)).clear();
    ByteBuffer y = all.duplicate();
    y.limit(width * height);
    ByteBuffer v = all.duplicate();
    v.position(width * height);
    ByteBuffer u = all.duplicate();
    u.position(width * height + 1);
    return new Planes(y.slice(), width, u.slice(), v.slice(), width, 2);
  }

  /** One YUV_420_888 frame's planes as an Image gives them. */
  static final class Planes {
    final ByteBuffer y;
    final int yRowStride;
    final ByteBuffer u;
    final ByteBuffer v;
    final int uvRowStride;
    final int uvPixelStride;

    Planes(ByteBuffer y, int yRowStride, ByteBuffer u, ByteBuffer v, int uvRowStride,
        int uvPixelStride) {
      this.y = y;
      this.yRowStride = yRowStride;
      this.u = u;
      this.v = v;
      this.uvRowStride = uvRowStride;
      this.uvPixelStride = uvPixelStride;
    }

    FrameResult addTo(PanoramaEngine engine, long timestampNs) {
      return engine.addFrame(y, yRowStride, u, v, uvRowStride, uvPixelStride, timestampNs);
    }
  }

  // A member of the document's top object (the tool writes it indented by two spaces).
  private static double number(String json, String key) {
    Matcher m = Pattern.compile("(?m)^  \"" + key + "\"\\s*:\\s*(-?[0-9.eE+-]+)").matcher(json);
    if (!m.find()) {
      throw new IllegalStateException("meta.json has no " + key);
    }
    return Double.parseDouble(m.group(1));
  }
}
