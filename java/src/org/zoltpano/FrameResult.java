package org.zoltpano;

/**
 * What the engine made of one preview frame. Immutable. The offsets and the swept length are in
 * preview pixels; the direction is fixed by the first frames that move and never changes.
 */
public final class FrameResult {
  /** Tracking as it should be. */
  public static final int SUCCESS = 0x0000;
  /** The first frame: the panorama starts here. */
  public static final int INFO_TRACE_FIRST_FRAME = 0x5000;
  /** The camera moved against the sweep's direction. */
  public static final int ERR_TRACE_DIRECTION = 0x7001;
  /** Too little detail in view to follow. */
  public static final int ERR_TRACE_NO_FEATURE = 0x7002;
  /** The camera moved too far in one frame. */
  public static final int ERR_TRACE_TOO_QUICK = 0x7004;
  /** The camera went back over the panorama. */
  public static final int ERR_TRACE_DIRECTION_BACK = 0x7011;
  /** The camera drifts across the sweep (the phone tilts). */
  public static final int WARN_MOVE_SLOPE = 0x8001;
  /** The camera shakes. */
  public static final int WARN_SHAKE_TOO_BIG = 0x8020;
  /** Nearly too quick. */
  public static final int WARN_TRACE_LITTLE_QUICK = 0x8080;

  /** No direction yet. */
  public static final int MOVE_NONE = 0;
  /** Along the frame's width, towards its right edge. */
  public static final int MOVE_RIGHT = 1;
  /** Along the frame's width, towards its left edge. */
  public static final int MOVE_LEFT = 2;
  /** Along the frame's height, towards its bottom. */
  public static final int MOVE_DOWN = 3;
  /** Along the frame's height, towards its top. */
  public static final int MOVE_UP = 4;

  private final int code;
  private final boolean keyFrame;
  private final int direction;
  private final int offsetX;
  private final int offsetY;
  private final int sweepLength;
  private final int progress;
  private final boolean canvasFull;
  private final boolean timeUsed;

  FrameResult(int code, boolean keyFrame, int direction, int offsetX, int offsetY,
      int sweepLength, int progress, boolean canvasFull, boolean timeUsed) {
    this.code = code;
    this.keyFrame = keyFrame;
    this.direction = direction;
    this.offsetX = offsetX;
    this.offsetY = offsetY;
    this.sweepLength = sweepLength;
    this.progress = progress;
    this.canvasFull = canvasFull;
    this.timeUsed = timeUsed;
  }

  /** The result code: {@link #SUCCESS}, or one of the constants above for the UI's hint. */
  public int code() {
    return code;
  }

  /** The code's name ("ERR_TRACE_TOO_QUICK"). */
  public String codeName() {
    return PanoramaEngine.codeName(code);
  }

  /** A short hint for the user ("Move slower"); "" for {@link #SUCCESS}. English. */
  public String hint() {
    return PanoramaEngine.codeHint(code);
  }

  /** Whether the frame became a key frame, merged into the panorama. */
  public boolean isKeyFrame() {
    return keyFrame;
  }

  /** The sweep's direction, {@link #MOVE_NONE} to {@link #MOVE_UP}. */
  public int direction() {
    return direction;
  }

  /** The view's offset against the panorama so far, across the frame's width (pixels). */
  public int offsetX() {
    return offsetX;
  }

  /** The view's offset against the panorama so far, across the frame's height (pixels). */
  public int offsetY() {
    return offsetY;
  }

  /** How far the sweep has gone, in preview pixels along its direction. */
  public int sweepLength() {
    return sweepLength;
  }

  /** The panorama's progress in percent of the engine's canvas (a whole turn). */
  public int progress() {
    return progress;
  }

  /**
   * Whether the sweep reached the end of the canvas, a whole turn: the panorama so far is kept,
   * further frames are not merged. Stop and save.
   */
  public boolean isCanvasFull() {
    return canvasFull;
  }

  /**
   * Whether the engine took the frame's time for its gyroscope ({@code timestampNs >= 0} given
   * and accepted). A time it refused (another clock, a step back) leaves the frame tracked on the
   * newest gyroscope attitude; the first such refusal of an engine is logged.
   */
  public boolean isTimeUsed() {
    return timeUsed;
  }

  @Override
  public String toString() {
    return codeName() + (keyFrame ? " key frame" : "") + " direction " + direction + " offset ("
        + offsetX + ", " + offsetY + ") length " + sweepLength + " progress " + progress + "%"
        + (canvasFull ? " canvas full" : "");
  }
}
