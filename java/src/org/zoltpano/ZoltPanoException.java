package org.zoltpano;

/**
 * A call the engine or this binding refused: its code (one of the constants below, the values of
 * {@code zolt_pano_ext.h}) and the one-line message that names the refused call and the reason.
 * Unchecked: a refusal is a fault in the calling code or a state the app must handle where it
 * can (a closed engine, a full disk), not a step of every call.
 */
public class ZoltPanoException extends RuntimeException {
  private static final long serialVersionUID = 1L;

  /** A required argument is null. */
  public static final int ERR_NULL_ARGUMENT = 0x9001;
  /** The engine is closed. */
  public static final int ERR_NOT_ENGINE = 0x9002;
  /** A plane too small for a frame of the engine's preview size at the strides given. */
  public static final int ERR_FRAME_SIZE = 0x9003;
  /** The sweep reached the end of the canvas (a whole turn): stop feeding and save. */
  public static final int ERR_CANVAS_FULL = 0x9005;
  /** No key frame merged yet: the sweep was too short, or never moved. */
  public static final int ERR_NOTHING_TO_SAVE = 0x9006;
  /** The JPEG could not be made or written (the folder, permissions, free space). */
  public static final int ERR_WRITE_FAILED = 0x9007;
  /** An unknown option, a value out of its range, or an option set after the first frame. */
  public static final int ERR_BAD_OPTION = 0x9008;
  /** A stride, size, quality, level, text or time out of its range, or a heap buffer. */
  public static final int ERR_BAD_ARGUMENT = 0x9009;
  /** The engine failed (out of memory, ...). */
  public static final int ERR_INTERNAL = 0x900B;
  /** Another thread is inside a call on this engine. */
  public static final int ERR_BUSY = 0x900C;
  /** {@link PanoramaEngine#create}: a preview side of 640 pixels or less. */
  public static final int ERR_INVALID_DIMENSIONS = 0x7000;

  private final int code;

  /** Made by the binding and its native side; {@code message} starts with the refused call. */
  public ZoltPanoException(int code, String message) {
    super(message);
    this.code = code;
  }

  /** The refusal's code. */
  public int code() {
    return code;
  }

  /** The code's name, as {@link PanoramaEngine#codeName} gives it ("ERR_BAD_ARGUMENT"). */
  public String codeName() {
    return PanoramaEngine.codeName(code);
  }
}
