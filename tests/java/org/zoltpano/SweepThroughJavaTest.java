package org.zoltpano;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** A sweep through the binding is the sweep the C example stitches, byte for byte. */
class SweepThroughJavaTest {
  @BeforeAll
  static void quiet() {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
  }

  // The C example drives the C interface with the same frames and gyroscope events: the
  // binding packs an Image's planes, owns the canvas and asks the same calls, so the panorama's
  // bytes and the count of key frames must agree.
  @Test
  void givesTheCExamplesPanorama() throws Exception {
    Sweep sweep = Sweep.make("c_example", "--preset", "steady", "--size", "1280x720", "--frames",
        "40");
    Path cJpeg = Sweep.work().resolve("c_example.jpg");
    String printed = Sweep.run(Arrays.asList(Sweep.property("zoltpano.stitchSweep"),
        sweep.dir.toString(), cJpeg.toString()));
    Matcher m = Pattern.compile("stitch_sweep: 40 frames, ([0-9]+) key frames").matcher(printed);
    assertTrue(m.find(), printed);
    byte[] expected = Files.readAllBytes(cJpeg);

    int keyFrames = 0;
    int direction = FrameResult.MOVE_NONE;
    HostGyroscope.setPresent(true); // before create, which starts the engine's sensor
    try (PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 90)) {
      for (int k = 0; k < sweep.frames.size(); ++k) {
        sweep.feedGyroscopeUntil(k);
        FrameResult r = sweep.nv21Planes(k).addTo(engine, -1);
        keyFrames += r.isKeyFrame() ? 1 : 0;
        direction = r.direction();
      }
      assertEquals(FrameResult.MOVE_RIGHT, direction);
      Verdict verdict = engine.verdict();
      assertTrue(verdict.isPanorama(), verdict.toString());
      assertEquals(Integer.parseInt(m.group(1)), keyFrames);
      assertArrayEquals(expected, engine.encodeJpeg(0));
      Path saved = Sweep.work().resolve("c_example_java.jpg");
      engine.saveJpeg(saved.toString(), 0);
      assertArrayEquals(expected, Files.readAllBytes(saved));
    } finally {
      HostGyroscope.setPresent(false);
    }
  }

  // A sweep of a whole turn fills the canvas the binding allocated: the frame that reaches its
  // end says so, as the C example's does, later frames are not merged and refuse nothing, and
  // the panorama kept is the C example's.
  @Test
  void aWholeTurnFillsTheCanvasAndThePanoramaIsKept() throws Exception {
    Sweep sweep = Sweep.make("whole_turn", "--preset", "steady", "--speed-px", "70",
        "--photo-scale", "6", "--size", "1280x720", "--frames", "115");
    Path cJpeg = Sweep.work().resolve("whole_turn_c.jpg");
    String printed = Sweep.run(Arrays.asList(Sweep.property("zoltpano.stitchSweep"),
        sweep.dir.toString(), cJpeg.toString()));
    Matcher m = Pattern.compile("frame ([0-9]+): ERR_CANVAS_FULL").matcher(printed);
    assertTrue(m.find(), printed);
    int full = Integer.parseInt(m.group(1));

    HostGyroscope.setPresent(true);
    try (PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 90)) {
      int progress = 0;
      for (int k = 0; k < sweep.frames.size(); ++k) {
        sweep.feedGyroscopeUntil(k);
        FrameResult r = sweep.nv21Planes(k).addTo(engine, -1);
        assertEquals(k >= full, r.isCanvasFull(), "frame " + k + ": " + r);
        assertTrue(r.progress() >= progress, "progress went back at frame " + k);
        progress = r.progress();
      }
      assertTrue(progress >= 90, "progress " + progress + "% at the end of a whole turn");
      assertArrayEquals(Files.readAllBytes(cJpeg), engine.encodeJpeg(0));
    } finally {
      HostGyroscope.setPresent(false);
    }
  }

  // Frame times on the gyroscope's clock are taken; a time that steps back is refused by the
  // engine, the frame still tracked, and the refusal logged once.
  @Test
  void frameTimesAreTakenAndARefusedOneIsLoggedOnce() throws Exception {
    Sweep sweep = Sweep.make("times", "--preset", "steady", "--size", "1280x720", "--frames",
        "12");
    LogRecorder log = LogRecorder.start();
    HostGyroscope.setPresent(true);
    try (PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 0)) {
      for (int k = 0; k < 8; ++k) {
        sweep.feedGyroscopeUntil(k);
        FrameResult r = sweep.nv21Planes(k).addTo(engine, sweep.frameTimeNs(k) + 1_000_000);
        assertTrue(r.isTimeUsed(), "frame " + k);
      }
      for (int k = 8; k < 12; ++k) { // the first frame's time again: a step back
        sweep.feedGyroscopeUntil(k);
        FrameResult r = sweep.nv21Planes(k).addTo(engine, 1_000_000);
        assertTrue(!r.isTimeUsed(), "frame " + k);
        assertEquals(FrameResult.MOVE_RIGHT, r.direction());
      }
      assertTrue(!sweep.nv21Planes(0).addTo(engine, -1).isTimeUsed());
    } finally {
      HostGyroscope.setPresent(false);
      log.stop();
    }
    assertEquals(1, log.lines().size(), log.lines().toString());
    assertTrue(log.lines().get(0).startsWith("PanoramaEngine.addFrame: frame time 1000000 ns refused"),
        log.lines().get(0));
    assertTrue(log.lines().get(0).contains("ZOLT_PANO_SetFrameTime"), log.lines().get(0));
  }
}
