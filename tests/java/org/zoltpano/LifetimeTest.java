package org.zoltpano;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** Engines are freed however they end, and one engine serves one thread at a time. */
class LifetimeTest {
  @BeforeAll
  static void quiet() {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
  }

  // Resident memory in kB and the process's threads, from the kernel.
  private static long residentKb() throws IOException {
    for (String line : Files.readAllLines(Paths.get("/proc/self/status"))) {
      if (line.startsWith("VmRSS:")) {
        return Long.parseLong(line.replaceAll("[^0-9]", ""));
      }
    }
    throw new IllegalStateException("no VmRSS in /proc/self/status");
  }

  private static int threads() {
    return new java.io.File("/proc/self/task").list().length;
  }

  // With a gyroscope each engine starts a sensor thread and allocates its frame: a thousand
  // engines made and closed leave neither threads nor memory behind. A leak of one frame
  // buffer (1.4 MB) an engine would show as over a gigabyte.
  @Test
  void aThousandEnginesLeaveNothingBehind() throws Exception {
    HostGyroscope.setPresent(true);
    try {
      for (int i = 0; i < 50; ++i) { // the JIT, the allocator's pools
        PanoramaEngine.create(1280, 720, 0).close();
      }
      int liveBefore = PanoramaEngine.liveEngines();
      int threadsBefore = threads();
      long residentBefore = residentKb();
      try (PanoramaEngine engine = PanoramaEngine.create(1280, 720, 0)) {
        assertTrue(!engine.isClosed() && threads() > threadsBefore,
            "no sensor thread: the test would prove nothing");
      }
      for (int i = 0; i < 1000; ++i) {
        PanoramaEngine.create(1280, 720, 0).close();
      }
      assertEquals(liveBefore, PanoramaEngine.liveEngines());
      // The JVM starts and ends threads of its own; a leak would be a thousand.
      assertTrue(threads() - threadsBefore < 10, (threads() - threadsBefore) + " more threads");
      long grown = residentKb() - residentBefore;
      assertTrue(grown < 64 * 1024, "resident memory grew by " + grown + " kB");
    } finally {
      HostGyroscope.setPresent(false);
    }
  }

  // An engine dropped without close() is freed once collected, and says so once.
  @Test
  void aForgottenEngineIsFreedWithOneWarning() throws Exception {
    LogRecorder log = LogRecorder.start();
    try {
      int before = PanoramaEngine.liveEngines();
      forget();
      assertEquals(before + 1, PanoramaEngine.liveEngines());
      long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(20);
      while (PanoramaEngine.liveEngines() > before && System.nanoTime() < deadline) {
        System.gc();
        Thread.sleep(20);
      }
      assertEquals(before, PanoramaEngine.liveEngines(), "not freed after 20 s of collections");
      assertEquals(Arrays.asList("PanoramaEngine: an engine for 1280x720 frames (orientation 270)"
          + " was never closed; freed when collected. Close engines when a sweep ends."),
          log.lines());
    } finally {
      log.stop();
    }
  }

  private static void forget() {
    PanoramaEngine.create(1280, 720, 270);
  }

  // A thread inside a call (here a save blocked opening a FIFO that nobody reads yet) keeps the
  // engine: another thread's calls, close() included, are refused; once the first call
  // returns, they are served.
  @Test
  void aSecondThreadIsRefusedWhileTheFirstIsInsideACall() throws Exception {
    Sweep sweep = Sweep.make("threads", "--preset", "steady", "--size", "1280x720", "--frames",
        "16");
    Path fifo = Sweep.work().resolve("threads.fifo");
    Files.deleteIfExists(fifo);
    Sweep.run(Arrays.asList("mkfifo", fifo.toString()));
    PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 0);
    for (int k = 0; k < sweep.frames.size(); ++k) {
      sweep.nv21Planes(k).addTo(engine, -1);
    }
    byte[] expected = engine.encodeJpeg(0);
    CompletableFuture<Void> save = CompletableFuture.runAsync(
        () -> engine.saveJpeg(fifo.toString(), 0));
    // The engine's own record of the thread inside a call tells when the save has begun.
    Field caller = PanoramaEngine.class.getDeclaredField("caller");
    caller.setAccessible(true);
    AtomicReference<?> inside = (AtomicReference<?>) caller.get(engine);
    for (int i = 0; i < 2000 && inside.get() == null && !save.isDone(); ++i) {
      Thread.sleep(5);
    }
    assertTrue(inside.get() != null && inside.get() != Thread.currentThread(), "the save never began");
    ZoltPanoException busy = assertThrows(ZoltPanoException.class, () -> engine.encodeJpeg(0));
    assertEquals(ZoltPanoException.ERR_BUSY, busy.code());
    assertTrue(busy.getMessage().startsWith("PanoramaEngine.encodeJpeg: another thread"),
        busy.getMessage());
    ZoltPanoException closing = assertThrows(ZoltPanoException.class, engine::close);
    assertEquals(ZoltPanoException.ERR_BUSY, closing.code());
    Sweep.Planes p = sweep.nv21Planes(0);
    assertEquals(ZoltPanoException.ERR_BUSY,
        assertThrows(ZoltPanoException.class, () -> p.addTo(engine, -1)).code());

    byte[] read;
    try (InputStream in = new FileInputStream(fifo.toFile())) {
      read = readAll(in);
    }
    save.get(20, TimeUnit.SECONDS);
    assertTrue(Arrays.equals(expected, read), "the FIFO carried other bytes");
    assertEquals(expected.length, engine.encodeJpeg(0).length);
    engine.close();
    assertTrue(engine.isClosed());
  }

  private static byte[] readAll(InputStream in) throws IOException {
    java.io.ByteArrayOutputStream out = new java.io.ByteArrayOutputStream();
    byte[] chunk = new byte[65536];
    for (int n; (n = in.read(chunk)) > 0; ) {
      out.write(chunk, 0, n);
    }
    return out.toByteArray();
  }
}
