package org.zoltpano;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import java.util.logging.Level;
import java.util.logging.Logger;

/**
 * One panorama sweep: preview frames in, the panorama out. Create it with the preview's size
 * once the camera runs, hand it every preview frame as the camera delivers it ({@link
 * #addFrame}: an {@code Image}'s or {@code ImageProxy}'s planes as they are), show the user each
 * {@link FrameResult}'s hint and the {@link #preview} strip, and at the end ask the {@link
 * #verdict()} and keep the panorama ({@link #saveJpeg}, {@link #encodeJpeg}). Then {@link
 * #close()}; an engine never closed is freed when it is collected, with a warning in the log.
 *
 * <p>The binding owns the canvas the panorama grows in (allocated natively once the sweep's
 * direction is known, up to a whole turn) and the packed frame. Calls come from one thread at a
 * time: a call while another thread is inside one on the same engine is refused with {@link
 * ZoltPanoException#ERR_BUSY}. Every refusal is a {@link ZoltPanoException} with the engine's
 * code and message.
 */
public final class PanoramaEngine implements AutoCloseable {
  /** 0 off (default), 1: key frames are placed to a fraction of a pixel. */
  public static final int OPTION_SUBPIXEL_PLACEMENT = 1;
  /** 0 off (default), 1: key frames' brightness is matched where they overlap. */
  public static final int OPTION_EXPOSURE_COMPENSATION = 2;
  /** The camera's horizontal field of view across the frames, in hundredths of a degree. */
  public static final int OPTION_CAMERA_HFOV = 3;
  /** Microseconds from the frames' clock to the gyroscope's (what {@code gyro-check} measures). */
  public static final int OPTION_GYRO_DELAY_US = 4;
  /** 0 off (default), 1: the panorama is turned upright by the orientation given to create. */
  public static final int OPTION_UPRIGHT = 5;

  /** Log levels for {@link #setLogLevel}: Android's priorities. */
  public static final int LOG_VERBOSE = 2;
  public static final int LOG_DEBUG = 3;
  public static final int LOG_INFO = 4;
  public static final int LOG_WARN = 5;
  public static final int LOG_ERROR = 6;
  public static final int LOG_FATAL = 7;
  public static final int LOG_SILENT = 8;

  static final Logger LOG = Logger.getLogger("org.zoltpano");
  // Engines whose native side is alive: made and neither closed nor collected.
  static final AtomicInteger LIVE = new AtomicInteger();

  // Indices into the int[] the native frame call fills.
  private static final int OUT_CODE = 0;
  private static final int OUT_KEY_FRAME = 1;
  private static final int OUT_DIRECTION = 2;
  private static final int OUT_OFFSET_X = 3;
  private static final int OUT_OFFSET_Y = 4;
  private static final int OUT_SWEEP_LENGTH = 5;
  private static final int OUT_PROGRESS = 6;
  private static final int OUT_CANVAS_FULL = 7;
  private static final int OUT_TIME_REFUSED = 8;
  private static final int OUT_SIZE = 9;

  static {
    NativeLibrary.load();
  }

  private final int width;
  private final int height;
  private final NativeEngine engine;
  private final EngineCleaner.Cleanable cleanable;
  private final AtomicReference<Thread> caller = new AtomicReference<>();
  private final int[] out = new int[OUT_SIZE]; // written by the thread inside addFrame only
  private boolean timeRefusalLogged;

  /** The native side: freed by close(), or by the cleaner when the engine was never closed. */
  private static final class NativeEngine implements Runnable {
    final long address;
    final String description;
    volatile boolean closed;

    NativeEngine(long address, String description) {
      this.address = address;
      this.description = description;
    }

    // The cleaner's action: the PanoramaEngine is gone without close().
    @Override
    public void run() {
      LOG.warning("PanoramaEngine: " + description
          + " was never closed; freed when collected. Close engines when a sweep ends.");
      free();
    }

    void free() {
      closed = true;
      nativeRelease(address);
      LIVE.decrementAndGet();
    }
  }

  private PanoramaEngine(int width, int height, long address, int orientationDegrees) {
    this.width = width;
    this.height = height;
    this.engine = new NativeEngine(address,
        "an engine for " + width + "x" + height + " frames (orientation " + orientationDegrees
            + ")");
    LIVE.incrementAndGet();
    this.cleanable = EngineCleaner.register(this, engine);
  }

  /**
   * An engine for preview frames of {@code previewWidth x previewHeight} pixels, both sides
   * above 640 and even, as the camera delivers them (not turned). {@code orientationDegrees}:
   * the clockwise turn that shows a frame upright (CameraX's {@code rotationDegrees}, Camera2's
   * {@code JPEG_ORIENTATION}); it turns the panorama upright once {@link #OPTION_UPRIGHT} or
   * {@link #setPhotoInfo} is set. Starts the gyroscope where the device has one.
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_INVALID_DIMENSIONS} for a side of
   *     640 or less, {@link ZoltPanoException#ERR_BAD_ARGUMENT} for an odd one
   */
  public static PanoramaEngine create(int previewWidth, int previewHeight,
      int orientationDegrees) {
    if (previewWidth > 640 && previewHeight > 640 && ((previewWidth | previewHeight) & 1) != 0) {
      throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "create", "a preview of " + previewWidth
          + "x" + previewHeight + " pixels; NV21 frames have even sides");
    }
    long address = nativeCreate(previewWidth, previewHeight, orientationDegrees);
    return new PanoramaEngine(previewWidth, previewHeight, address, orientationDegrees);
  }

  /** The preview frames' width in pixels. */
  public int width() {
    return width;
  }

  /** The preview frames' height in pixels. */
  public int height() {
    return height;
  }

  /**
   * Sets one of the {@code OPTION_} switches, after create and before the first frame. An engine
   * with no option set makes exactly the panorama of the original interface.
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_BAD_OPTION}: an unknown option, a
   *     value out of its range, or a call after the first frame (the engine is unchanged)
   */
  public void setOption(int option, int value) {
    enter("setOption");
    try {
      nativeSetOption(engine.address, option, value);
    } finally {
      leave();
    }
  }

  /**
   * Tracks one preview frame and merges it when it becomes a key frame. The planes are those of
   * a YUV_420_888 {@code Image} ({@code getPlanes()}: Y, U, V), read in place from each buffer's
   * position: direct buffers, Y at {@code yRowStride} bytes a row, U and V sharing {@code
   * uvRowStride} and {@code uvPixelStride} (1: planar, 2: interleaved, either order in memory).
   * They are packed into NV21 once; nothing is kept after the call returns.
   *
   * @param timestampNs the frame's capture time on the gyroscope's clock ({@code
   *     Image.getTimestamp()}, CameraX's {@code imageInfo.timestamp} where the camera's timestamp
   *     source is REALTIME), or -1 for none: the gyroscope's newest attitude is used
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_NULL_ARGUMENT}, {@link
   *     ZoltPanoException#ERR_BAD_ARGUMENT} (a heap buffer, a stride out of range), {@link
   *     ZoltPanoException#ERR_FRAME_SIZE} (a plane too small for the preview size), {@link
   *     ZoltPanoException#ERR_NOT_ENGINE} (closed), {@link ZoltPanoException#ERR_BUSY}
   */
  public FrameResult addFrame(ByteBuffer y, int yRowStride, ByteBuffer u, ByteBuffer v,
      int uvRowStride, int uvPixelStride, long timestampNs) {
    enter("addFrame");
    try {
      checkPlane("y", y, yRowStride, 1, width, height);
      checkPlane("u", u, uvRowStride, uvPixelStride, width / 2, height / 2);
      checkPlane("v", v, uvRowStride, uvPixelStride, width / 2, height / 2);
      nativeAddFrame(engine.address, y, y.position(), yRowStride, u, u.position(), v,
          v.position(), uvRowStride, uvPixelStride, timestampNs, out);
      if (out[OUT_TIME_REFUSED] != 0 && !timeRefusalLogged) {
        timeRefusalLogged = true;
        LOG.warning("PanoramaEngine.addFrame: frame time " + timestampNs
            + " ns refused, the frame tracked on the gyroscope's newest attitude ("
            + nativeTimeRefusal(engine.address) + "); further refusals are not logged");
      }
      return new FrameResult(out[OUT_CODE], out[OUT_KEY_FRAME] != 0, out[OUT_DIRECTION],
          out[OUT_OFFSET_X], out[OUT_OFFSET_Y], out[OUT_SWEEP_LENGTH], out[OUT_PROGRESS],
          out[OUT_CANVAS_FULL] != 0, timestampNs >= 0 && out[OUT_TIME_REFUSED] == 0);
    } finally {
      leave();
    }
  }

  /**
   * The cropped panorama as JPEG bytes, the bytes {@link #saveJpeg} writes.
   *
   * @param quality 1 to 100, or 0 for the engine's default (95)
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_NOTHING_TO_SAVE} before the first
   *     key frame, {@link ZoltPanoException#ERR_BAD_ARGUMENT} for the quality
   */
  public byte[] encodeJpeg(int quality) {
    enter("encodeJpeg");
    try {
      return nativeEncodeJpeg(engine.address, quality);
    } finally {
      leave();
    }
  }

  /**
   * Writes the cropped panorama to {@code path} as given (no extension added). A file that
   * cannot be written completely is removed.
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_WRITE_FAILED}, {@link
   *     ZoltPanoException#ERR_NOTHING_TO_SAVE}, {@link ZoltPanoException#ERR_BAD_ARGUMENT}
   */
  public void saveJpeg(String path, int quality) {
    enter("saveJpeg");
    try {
      nativeSaveJpeg(engine.address, text("saveJpeg", "path", path, true), quality);
    } finally {
      leave();
    }
  }

  /**
   * The engine's judgement of the capture so far. Ask before keeping the panorama.
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_NOTHING_TO_SAVE} before the first
   *     key frame
   */
  public Verdict verdict() {
    enter("verdict");
    try {
      int[] code = new int[1];
      String message = nativeVerdict(engine.address, code);
      return new Verdict(code[0], message);
    } finally {
      leave();
    }
  }

  /**
   * The photo's metadata for every later save: EXIF (make, model, software, the capture time in
   * local time with its offset) and the photo-sphere tags that galleries and panorama viewers
   * read. Also turns the panorama upright, as {@link #OPTION_UPRIGHT} does. A later call
   * replaces it.
   *
   * @param captureTimeUtcMs when the sweep began, ms since 1970-01-01 UTC ({@code
   *     System.currentTimeMillis()})
   * @param zoneOffsetMinutes local time minus UTC then, -840 to 840 ({@code
   *     TimeZone.getDefault().getOffset(t) / 60000})
   * @param make the phone's maker ({@code Build.MANUFACTURER}), or null to leave it out
   * @param model the phone's model ({@code Build.MODEL}), or null
   * @param software the app, or null for the library's version
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_BAD_ARGUMENT}: a text over 63 UTF-8
   *     bytes or with a control character, a time or offset out of range
   */
  public void setPhotoInfo(long captureTimeUtcMs, int zoneOffsetMinutes, String make,
      String model, String software) {
    enter("setPhotoInfo");
    try {
      nativeSetPhotoInfo(engine.address, captureTimeUtcMs, zoneOffsetMinutes,
          text("setPhotoInfo", "make", make, false), text("setPhotoInfo", "model", model, false),
          text("setPhotoInfo", "software", software, false));
    } finally {
      leave();
    }
  }

  /**
   * The panorama so far, fitted into {@code maxWidth x maxHeight} (its aspect kept, never
   * enlarged), as RGBA for the app's strip view. Call it after a key frame, between frames.
   *
   * @param rgba a direct buffer to write into, reused from call to call, with at least {@code
   *     maxWidth * maxHeight * 4} bytes from its position (its position and limit stay); or null
   *     for a new one
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_NOTHING_TO_SAVE} before the first
   *     key frame, {@link ZoltPanoException#ERR_BAD_ARGUMENT} (a side under 1, a buffer too
   *     small or on the heap)
   */
  public Preview preview(int maxWidth, int maxHeight, ByteBuffer rgba) {
    enter("preview");
    try {
      if (maxWidth < 1 || maxHeight < 1) {
        throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "preview",
            "a box of " + maxWidth + "x" + maxHeight + " pixels; both sides at least 1");
      }
      long bytes = (long) maxWidth * maxHeight * 4;
      if (bytes > Integer.MAX_VALUE) {
        throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "preview",
            "a box of " + maxWidth + "x" + maxHeight + " pixels needs over 2^31 - 1 bytes");
      }
      if (rgba == null) {
        rgba = ByteBuffer.allocateDirect((int) bytes);
      } else if (rgba.isReadOnly()) {
        throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "preview", "the rgba buffer is read-only");
      } else if (!rgba.isDirect()) {
        throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "preview",
            "the rgba buffer is on the heap; pass a direct buffer (ByteBuffer.allocateDirect)");
      } else if (rgba.remaining() < bytes) {
        throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "preview", "the rgba buffer holds "
            + rgba.remaining() + " bytes; a box of " + maxWidth + "x" + maxHeight + " needs "
            + bytes);
      }
      int[] size = new int[2];
      nativePreview(engine.address, maxWidth, maxHeight, rgba, rgba.position(), size);
      ByteBuffer view = rgba.duplicate();
      view.limit(rgba.position() + size[0] * size[1] * 4);
      return new Preview(size[0], size[1], view.slice());
    } finally {
      leave();
    }
  }

  /**
   * Stops the gyroscope and frees the engine, its canvas and its frame. Safe to call again;
   * every other call afterwards throws {@link ZoltPanoException#ERR_NOT_ENGINE}.
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_BUSY} while another thread is
   *     inside a call
   */
  @Override
  public void close() {
    Thread me = Thread.currentThread();
    if (!caller.compareAndSet(null, me)) {
      throw busy("close");
    }
    try {
      if (cleanable.drop()) { // the cleaner's action, which warns, will not run
        engine.free();
      }
    } finally {
      caller.set(null);
    }
  }

  /** Whether {@link #close()} has run. */
  public boolean isClosed() {
    return engine.closed;
  }

  /** The library's version, "ZOLT_PANO_v3.7". */
  public static String version() {
    return nativeVersion();
  }

  /** A code's name ("ERR_TRACE_TOO_QUICK", "VERDICT_ACROSS"); "UNKNOWN" for other values. */
  public static String codeName(int code) {
    return nativeCodeName(code);
  }

  /** A code's short hint for the user (or, for refusals, for the developer); English. */
  public static String codeHint(int code) {
    return nativeCodeHint(code);
  }

  /**
   * The engine's log level for the whole process, {@link #LOG_VERBOSE} (the default: every
   * line) to {@link #LOG_SILENT}. The engine logs under the tag "PanoEngine" (logcat on
   * Android, standard error elsewhere).
   *
   * @throws ZoltPanoException {@link ZoltPanoException#ERR_BAD_ARGUMENT} outside 2 to 8
   */
  public static void setLogLevel(int level) {
    nativeSetLogLevel(level);
  }

  // Called by the frame tests and benchmarks of this package: engines alive in the process.
  static int liveEngines() {
    return LIVE.get();
  }

  private void enter(String call) {
    Thread me = Thread.currentThread();
    if (!caller.compareAndSet(null, me)) {
      throw busy(call);
    }
    if (engine.closed) {
      caller.set(null);
      throw refusal(ZoltPanoException.ERR_NOT_ENGINE, call, "the engine is closed");
    }
  }

  // Every call ends here, after its native call: reading `caller` keeps this engine reachable
  // until then, so the cleaner cannot free the native side under a running call.
  private void leave() {
    caller.set(null);
  }

  private ZoltPanoException busy(String call) {
    Thread other = caller.get();
    return refusal(ZoltPanoException.ERR_BUSY, call, "another thread ("
        + (other != null ? other.getName() : "gone") + ") is inside a call on this engine; "
        + "call an engine from one thread at a time");
  }

  private static ZoltPanoException refusal(int code, String call, String why) {
    return new ZoltPanoException(code, "PanoramaEngine." + call + ": " + why);
  }

  // A plane of rows x cols samples at the strides given must lie within the buffer's remaining
  // bytes: the native side reads it in place.
  private void checkPlane(String name, ByteBuffer plane, int rowStride, int pixelStride,
      int cols, int rows) {
    if (plane == null) {
      throw refusal(ZoltPanoException.ERR_NULL_ARGUMENT, "addFrame",
          "the " + name + " plane is null");
    }
    if (!plane.isDirect()) {
      throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "addFrame", "the " + name
          + " plane is a heap buffer; pass direct buffers (an Image's planes are)");
    }
    // YUV_420_888 chroma samples are 1 or 2 bytes apart; a row must hold its samples.
    if ((pixelStride != 1 && pixelStride != 2)
        || rowStride < (long) (cols - 1) * pixelStride + 1) {
      throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, "addFrame", "the " + name
          + " plane's row stride " + rowStride + " and pixel stride " + pixelStride + " for "
          + cols + " samples a row; pixel stride 1 or 2, a row stride covering a row");
    }
    long needed = (long) (rows - 1) * rowStride + (long) (cols - 1) * pixelStride + 1;
    if (plane.remaining() < needed) {
      throw refusal(ZoltPanoException.ERR_FRAME_SIZE, "addFrame", "the " + name + " plane holds "
          + plane.remaining() + " bytes; a " + width + "x" + height + " frame at row stride "
          + rowStride + " and pixel stride " + pixelStride + " needs " + needed);
    }
  }

  // A text as NUL-terminated UTF-8 for the C calls (JNI's own strings are modified UTF-8); null
  // stays null unless the text is required.
  private static byte[] text(String call, String what, String value, boolean required) {
    if (value == null) {
      if (required) {
        throw refusal(ZoltPanoException.ERR_NULL_ARGUMENT, call, "the " + what + " is null");
      }
      return null;
    }
    if (value.indexOf('\0') >= 0) {
      throw refusal(ZoltPanoException.ERR_BAD_ARGUMENT, call,
          "the " + what + " holds a NUL character");
    }
    byte[] utf8 = value.getBytes(StandardCharsets.UTF_8);
    byte[] terminated = new byte[utf8.length + 1];
    System.arraycopy(utf8, 0, terminated, 0, utf8.length);
    return terminated;
  }

  private static native long nativeCreate(int width, int height, int orientationDegrees);

  private static native void nativeRelease(long address);

  private static native void nativeSetOption(long address, int option, int value);

  private static native void nativeAddFrame(long address, ByteBuffer y, int yOffset,
      int yRowStride, ByteBuffer u, int uOffset, ByteBuffer v, int vOffset, int uvRowStride,
      int uvPixelStride, long timestampNs, int[] out);

  private static native String nativeTimeRefusal(long address);

  private static native byte[] nativeEncodeJpeg(long address, int quality);

  private static native void nativeSaveJpeg(long address, byte[] path, int quality);

  private static native String nativeVerdict(long address, int[] code);

  private static native void nativeSetPhotoInfo(long address, long captureTimeUtcMs,
      int zoneOffsetMinutes, byte[] make, byte[] model, byte[] software);

  private static native void nativePreview(long address, int maxWidth, int maxHeight,
      ByteBuffer rgba, int offset, int[] size);

  private static native String nativeVersion();

  private static native String nativeCodeName(int code);

  private static native String nativeCodeHint(int code);

  private static native void nativeSetLogLevel(int level);
}
