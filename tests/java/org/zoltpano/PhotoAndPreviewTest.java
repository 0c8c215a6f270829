package org.zoltpano;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The preview strip, the verdict and the photo's metadata through the binding. */
class PhotoAndPreviewTest {
  private static Sweep sweep;
  private static PanoramaEngine engine;

  @BeforeAll
  static void stitch() throws Exception {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
    sweep = Sweep.make("photo", "--preset", "steady", "--size", "1280x720", "--frames", "30");
    engine = PanoramaEngine.create(sweep.width, sweep.height, 90);
    for (int k = 0; k < sweep.frames.size(); ++k) {
      sweep.nv21Planes(k).addTo(engine, -1);
    }
  }

  @AfterAll
  static void close() {
    engine.close();
  }

  private static byte[] bytes(Preview p) {
    ByteBuffer b = p.rgba();
    byte[] out = new byte[b.remaining()];
    b.get(out);
    return out;
  }

  // Rows come back packed at the picture's width whatever box they were fitted into: a box
  // far wider than the strip gives the bytes of a box exactly its width.
  @Test
  void previewRowsArePackedAndABufferIsReused() {
    Preview wide = engine.preview(4000, 60, null);
    assertEquals(60, wide.height());
    assertTrue(wide.width() > 100 && wide.width() < 4000, wide.width() + " wide");
    byte[] pixels = bytes(wide);
    assertEquals(wide.width() * 60 * 4, pixels.length);
    for (int i = 3; i < pixels.length; i += 4) {
      assertEquals((byte) 255, pixels[i], "alpha at " + i);
    }
    Preview exact = engine.preview(wide.width(), 60, null);
    assertEquals(wide.width(), exact.width());
    assertArrayEquals(bytes(exact), pixels);

    ByteBuffer reused = ByteBuffer.allocateDirect(5 + 4000 * 60 * 4 + 11);
    reused.position(5);
    Preview again = engine.preview(4000, 60, reused);
    assertArrayEquals(pixels, bytes(again));
    assertEquals(5, reused.position());
    assertEquals(reused.capacity(), reused.limit());
  }

  @Test
  void verdictOfAGoodSweep() {
    Verdict v = engine.verdict();
    assertTrue(v.isPanorama(), v.toString());
    assertEquals("", v.hint());
    assertTrue(!v.message().isEmpty());
  }

  // Texts reach the file as UTF-8 (JNI's own strings are not: they would write U+1F4F7 in six
  // bytes), and the photo comes out upright: a right sweep held at 90 degrees is taller than
  // wide.
  @Test
  void photoInfoIsWrittenAsUtf8AndTurnsThePanoramaUpright() {
    byte[] plain = engine.encodeJpeg(90);
    int[] plainSize = jpegSize(plain);
    assertTrue(plainSize[0] > plainSize[1]);
    String make = "Ünïcödé \uD83D\uDCF7";
    engine.setPhotoInfo(1_764_000_000_000L, 60, make, "Model Ω", null);
    byte[] photo = engine.encodeJpeg(90);
    assertTrue(contains(photo, make.getBytes(StandardCharsets.UTF_8)), "make not in UTF-8");
    assertTrue(contains(photo, "Model Ω".getBytes(StandardCharsets.UTF_8)));
    assertTrue(contains(photo, "GPano".getBytes(StandardCharsets.US_ASCII)));
    assertTrue(contains(photo, "+01:00".getBytes(StandardCharsets.US_ASCII)));
    assertArrayEquals(new int[] {plainSize[1], plainSize[0]}, jpegSize(photo));
  }

  private static boolean contains(byte[] haystack, byte[] needle) {
    outer:
    for (int i = 0; i + needle.length <= haystack.length; ++i) {
      for (int j = 0; j < needle.length; ++j) {
        if (haystack[i + j] != needle[j]) {
          continue outer;
        }
      }
      return true;
    }
    return false;
  }

  // Width and height from the JPEG's frame header (SOF0 or SOF2).
  private static int[] jpegSize(byte[] jpeg) {
    int at = 2;
    while (at + 9 < jpeg.length) {
      int marker = jpeg[at + 1] & 0xFF;
      int length = ((jpeg[at + 2] & 0xFF) << 8) | (jpeg[at + 3] & 0xFF);
      if (marker == 0xC0 || marker == 0xC2) {
        int height = ((jpeg[at + 5] & 0xFF) << 8) | (jpeg[at + 6] & 0xFF);
        int width = ((jpeg[at + 7] & 0xFF) << 8) | (jpeg[at + 8] & 0xFF);
        return new int[] {width, height};
      }
      at += 2 + length;
    }
    throw new IllegalStateException("no frame header");
  }
}
