package org.zoltpano;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Field;
import java.lang.reflect.Modifier;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** Every refusal is a ZoltPanoException with its code and a message naming the refused call. */
class RefusalTest {
  private static Sweep sweep;

  @BeforeAll
  static void quiet() throws Exception {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
    sweep = Sweep.make("refusals", "--preset", "steady", "--size", "1280x720", "--frames", "16");
  }

  private static void expect(int code, String messageStart, Executable call) {
    ZoltPanoException e = assertThrows(ZoltPanoException.class, call);
    assertEquals(PanoramaEngine.codeName(code), e.codeName(), e.getMessage());
    assertTrue(e.getMessage().startsWith(messageStart), e.getMessage());
  }

  // The Java constants are the C header's: each code's name, as the library gives it, is the
  // constant's own name.
  @Test
  void constantsAreTheLibrarysCodes() throws Exception {
    int checked = 0;
    for (Class<?> c : new Class<?>[] {FrameResult.class, ZoltPanoException.class, Verdict.class}) {
      for (Field f : c.getDeclaredFields()) {
        String name = f.getName();
        if (!Modifier.isStatic(f.getModifiers()) || f.getType() != int.class
            || !name.matches("(SUCCESS|INFO|ERR|WARN|VERDICT)(_.*)?")) {
          continue;
        }
        assertEquals(name, PanoramaEngine.codeName(f.getInt(null)), c.getSimpleName());
        ++checked;
      }
    }
    assertEquals(9 + 11 + 5, checked);
    assertEquals("SUCCESS", PanoramaEngine.codeName(Verdict.PANORAMA));
    assertEquals("Move slower", PanoramaEngine.codeHint(FrameResult.ERR_TRACE_TOO_QUICK));
    assertEquals("UNKNOWN", PanoramaEngine.codeName(0x12345));
    // Every option constant is an option the engine takes, with its default.
    try (PanoramaEngine engine = PanoramaEngine.create(1280, 720, 0)) {
      for (Field f : PanoramaEngine.class.getDeclaredFields()) {
        if (f.getName().startsWith("OPTION_")) {
          engine.setOption(f.getInt(null), 0);
        }
      }
    }
  }

  @Test
  void createAndStaticsRefuse() {
    expect(ZoltPanoException.ERR_INVALID_DIMENSIONS, "ZOLT_PANO_Initial",
        () -> PanoramaEngine.create(640, 720, 0));
    expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.create",
        () -> PanoramaEngine.create(1281, 720, 0));
    expect(ZoltPanoException.ERR_BAD_ARGUMENT, "ZOLT_PANO_SetLogLevel",
        () -> PanoramaEngine.setLogLevel(9));
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT); // the refused level left it so
  }

  @Test
  void framesRefused() {
    int w = sweep.width;
    int h = sweep.height;
    try (PanoramaEngine engine = PanoramaEngine.create(w, h, 0)) {
      Sweep.Planes p = sweep.nv21Planes(0);
      expect(ZoltPanoException.ERR_NULL_ARGUMENT, "PanoramaEngine.addFrame: the u plane",
          () -> engine.addFrame(p.y, w, null, p.v, w, 2, -1));
      ByteBuffer heap = ByteBuffer.allocate(w * h);
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.addFrame: the y plane is a heap",
          () -> engine.addFrame(heap, w, p.u, p.v, w, 2, -1));
      ByteBuffer shortY = p.y.duplicate();
      shortY.limit(w * h - 1);
      expect(ZoltPanoException.ERR_FRAME_SIZE, "PanoramaEngine.addFrame: the y plane holds",
          () -> engine.addFrame(shortY, w, p.u, p.v, w, 2, -1));
      ByteBuffer lateV = p.v.duplicate();
      lateV.position(2);
      expect(ZoltPanoException.ERR_FRAME_SIZE, "PanoramaEngine.addFrame: the v plane holds",
          () -> engine.addFrame(p.y, w, p.u, lateV, w, 2, -1));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.addFrame: the y plane's row stride",
          () -> engine.addFrame(p.y, w - 2, p.u, p.v, w, 2, -1));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.addFrame: the u plane's row stride",
          () -> engine.addFrame(p.y, w, p.u, p.v, w, 3, -1));
      // Nothing refused reached the engine: its first frame is still to come.
      assertEquals(FrameResult.INFO_TRACE_FIRST_FRAME, p.addTo(engine, -1).code());
      expect(ZoltPanoException.ERR_BAD_OPTION, "ZOLT_PANO_SetOption",
          () -> engine.setOption(PanoramaEngine.OPTION_SUBPIXEL_PLACEMENT, 1));
    }
  }

  @Test
  void outputsRefusedBeforeAKeyFrameAndForBadArguments() throws Exception {
    try (PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 0)) {
      expect(ZoltPanoException.ERR_BAD_OPTION, "ZOLT_PANO_SetOption", () -> engine.setOption(99, 0));
      expect(ZoltPanoException.ERR_NOTHING_TO_SAVE, "ZOLT_PANO_EncodeJpeg", () -> engine.encodeJpeg(0));
      expect(ZoltPanoException.ERR_NOTHING_TO_SAVE, "ZOLT_PANO_GetVerdict", engine::verdict);
      expect(ZoltPanoException.ERR_NOTHING_TO_SAVE, "ZOLT_PANO_RenderPreview",
          () -> engine.preview(100, 100, null));
      for (int k = 0; k < sweep.frames.size(); ++k) {
        sweep.nv21Planes(k).addTo(engine, -1);
      }
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "ZOLT_PANO_EncodeJpeg", () -> engine.encodeJpeg(101));
      expect(ZoltPanoException.ERR_NULL_ARGUMENT, "PanoramaEngine.saveJpeg: the path",
          () -> engine.saveJpeg(null, 0));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.saveJpeg: the path holds a NUL",
          () -> engine.saveJpeg("a\0b.jpg", 0));
      Path missing = Sweep.work().resolve("no such folder").resolve("pano.jpg");
      expect(ZoltPanoException.ERR_WRITE_FAILED, "ZOLT_PANO_SaveJpeg",
          () -> engine.saveJpeg(missing.toString(), 0));
      assertFalse(Files.exists(missing));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.preview: a box",
          () -> engine.preview(0, 10, null));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.preview: the rgba buffer is on",
          () -> engine.preview(10, 10, ByteBuffer.allocate(400)));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "PanoramaEngine.preview: the rgba buffer holds",
          () -> engine.preview(10, 10, ByteBuffer.allocateDirect(399)));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "ZOLT_PANO_SetPhotoInfo",
          () -> engine.setPhotoInfo(0, 0, new String(new char[64]).replace('\0', 'x'), null, null));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "ZOLT_PANO_SetPhotoInfo",
          () -> engine.setPhotoInfo(0, 0, "line\nbreak", null, null));
      expect(ZoltPanoException.ERR_BAD_ARGUMENT, "ZOLT_PANO_SetPhotoInfo",
          () -> engine.setPhotoInfo(0, 15 * 60, null, null, null));
      // Refused calls changed nothing: the panorama is still there.
      assertTrue(engine.encodeJpeg(0).length > 1000);
    }
  }

  @Test
  void everyCallAfterCloseRefused() {
    PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 0);
    engine.close();
    engine.close(); // again: nothing happens
    assertTrue(engine.isClosed());
    Sweep.Planes p = sweep.nv21Planes(0);
    Executable[] calls = {
        () -> engine.setOption(PanoramaEngine.OPTION_UPRIGHT, 1),
        () -> p.addTo(engine, -1),
        () -> engine.encodeJpeg(0),
        () -> engine.saveJpeg("never.jpg", 0),
        engine::verdict,
        () -> engine.setPhotoInfo(0, 0, null, null, null),
        () -> engine.preview(10, 10, null)};
    for (Executable call : calls) {
      expect(ZoltPanoException.ERR_NOT_ENGINE, "PanoramaEngine.", call);
    }
  }
}
