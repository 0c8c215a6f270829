package org.zoltpano;

/**
 * Whether the capture so far is a panorama, and why not: the engine's judgement from how its
 * key frames agree where they overlap and how the camera travelled. Immutable. A refused picture
 * can still be saved, but it is not a panorama: tell the user and offer to sweep again.
 */
public final class Verdict {
  /** A panorama. */
  public static final int PANORAMA = 0;
  /** The camera moved across the sweep more than along it. */
  public static final int VERDICT_ACROSS = 0xA001;
  /** The key frames span less than a tenth of the frame. */
  public static final int VERDICT_SINGLE_VIEW = 0xA002;
  /** Unrelated views meet at a seam: a piece is missing or laid twice. */
  public static final int VERDICT_BROKEN_SEAM = 0xA003;
  /** The key frames do not agree where they overlap. */
  public static final int VERDICT_DISAGREE = 0xA004;
  /** Key frames the gyroscope placed disagree with the images. */
  public static final int VERDICT_GYRO_DISAGREES = 0xA005;

  private final int code;
  private final String message;

  Verdict(int code, String message) {
    this.code = code;
    this.message = message;
  }

  /** {@link #PANORAMA}, or the reason, one of the constants above. */
  public int code() {
    return code;
  }

  /** Whether the capture is a panorama. */
  public boolean isPanorama() {
    return code == PANORAMA;
  }

  /** The reason's name ("VERDICT_BROKEN_SEAM"); "SUCCESS" for a panorama. */
  public String codeName() {
    return PanoramaEngine.codeName(code);
  }

  /** A short hint for the user ("Sweep further"); "" for a panorama. English. */
  public String hint() {
    return PanoramaEngine.codeHint(code);
  }

  /** The engine's figures in one line, for the log or a bug report. */
  public String message() {
    return message;
  }

  @Override
  public String toString() {
    return codeName() + ": " + message;
  }
}
