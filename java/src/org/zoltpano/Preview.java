package org.zoltpano;

import java.nio.ByteBuffer;

/**
 * The panorama so far as a picture for the app's strip view: {@link #width()} x
 * {@link #height()} pixels, bytes R, G, B, A in rows of {@code width * 4} bytes with no padding,
 * as {@code Bitmap.copyPixelsFromBuffer} takes them for an {@code ARGB_8888} bitmap of that size.
 */
public final class Preview {
  private final int width;
  private final int height;
  private final ByteBuffer rgba;

  Preview(int width, int height, ByteBuffer rgba) {
    this.width = width;
    this.height = height;
    this.rgba = rgba;
  }

  /** Pixels across. */
  public int width() {
    return width;
  }

  /** Pixels down. */
  public int height() {
    return height;
  }

  /**
   * The pixels: a view of the buffer they were written into, from its first byte to
   * {@code width * height * 4}. The buffer is reused by the next {@code preview} call given it.
   */
  public ByteBuffer rgba() {
    return rgba.duplicate();
  }
}
