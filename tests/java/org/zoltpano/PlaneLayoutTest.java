package org.zoltpano;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * The YUV_420_888 layouts cameras deliver, read in place: each gives the frame results and the
 * panorama of the same frames handed over as NV21.
 */
class PlaneLayoutTest {
  private static final byte PADDING = 0x5A; // what lies between rows: never a sample
  private static Sweep sweep;
  private static List<String> expectedResults;
  private static byte[] expectedJpeg;

  @BeforeAll
  static void reference() throws Exception {
    PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT);
    sweep = Sweep.make("layouts", "--preset", "steady", "--size", "1280x720", "--frames", "24");
    expectedResults = new ArrayList<>();
    expectedJpeg = stitch(-1, -1, -1, "nv21", 0, expectedResults);
  }

  @Test
  void planarChroma() {
    expectSame(sweep.width, sweep.width / 2, 1, "separate", 0);
  }

  @Test
  void planarChromaWithPaddedRowsAndBuffersNotAtTheirStart() {
    expectSame(sweep.width + 32, sweep.width / 2 + 24, 1, "separate", 7);
  }

  @Test
  void interleavedVBeforeUWithPaddedRows() {
    expectSame(sweep.width + 64, sweep.width + 64, 2, "vu", 0);
  }

  @Test
  void interleavedUBeforeV() {
    expectSame(sweep.width, sweep.width, 2, "uv", 3);
  }

  @Test
  void interleavedChromaInSeparateBuffers() {
    expectSame(sweep.width, sweep.width + 16, 2, "separate", 0);
  }

  private static void expectSame(int yStride, int uvStride, int pixelStride, String chroma,
      int lead) {
    List<String> results = new ArrayList<>();
    byte[] jpeg = stitch(yStride, uvStride, pixelStride, chroma, lead, results);
    assertEquals(expectedResults, results);
    assertArrayEquals(expectedJpeg, jpeg);
  }

  // The sweep in one layout (yStride -1: the NV21 views of Sweep.nv21Planes); the frame results
  // as text and the panorama.
  private static byte[] stitch(int yStride, int uvStride, int pixelStride, String chroma,
      int lead, List<String> results) {
    try (PanoramaEngine engine = PanoramaEngine.create(sweep.width, sweep.height, 0)) {
      for (int k = 0; k < sweep.frames.size(); ++k) {
        Sweep.Planes planes = yStride < 0 ? sweep.nv21Planes(k)
            : layout(sweep.frames.get(k), yStride, uvStride, pixelStride, chroma, lead);
        results.add(planes.addTo(engine, -1).toString());
      }
      return engine.encodeJpeg(0);
    }
  }

  // One NV21 frame rearranged: rows `yStride` and `uvStride` bytes apart, chroma samples
  // `pixelStride` apart, interleaved in one buffer V first ("vu") or U first ("uv"), or in two
  // buffers ("separate"); each buffer's position at `lead`, the bytes between filled with
  // PADDING. As on Android, a buffer ends with its last sample, not with a whole row.
  private static Sweep.Planes layout(byte[] nv21, int yStride, int uvStride, int pixelStride,
      String chroma, int lead) {
    int w = sweep.width;
    int h = sweep.height;
    ByteBuffer y = padded(lead + (h - 1) * yStride + w);
    for (int r = 0; r < h; ++r) {
      y.position(lead + r * yStride);
      y.put(nv21, r * w, w);
    }
    y.position(lead);
    int cw = w / 2;
    int ch = h / 2;
    ByteBuffer u;
    ByteBuffer v;
    if (chroma.equals("separate")) {
      int size = lead + (ch - 1) * uvStride + (cw - 1) * pixelStride + 1;
      u = padded(size);
      v = padded(size);
    } else {
      u = padded(lead + (ch - 1) * uvStride + cw * 2);
      v = u.duplicate();
      (chroma.equals("vu") ? u : v).position(1); // the second sample of each pair
    }
    int uBase = u.position() + lead;
    int vBase = v.position() + lead;
    for (int r = 0; r < ch; ++r) {
      for (int c = 0; c < cw; ++c) {
        int at = w * h + r * w + 2 * c; // NV21: V then U
        v.put(vBase + r * uvStride + c * pixelStride, nv21[at]);
        u.put(uBase + r * uvStride + c * pixelStride, nv21[at + 1]);
      }
    }
    u.position(uBase);
    v.position(vBase);
    return new Sweep.Planes(y, yStride, u, v, uvStride, pixelStride);
  }

  private static ByteBuffer padded(int size) {
    ByteBuffer b = ByteBuffer.allocateDirect(size);
    while (b.hasRemaining()) {
      b.put(PADDING);
    }
    b.clear();
    return b;
  }
}
