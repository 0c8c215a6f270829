// PanoramaLoop: the frame loop of a camera app, in Kotlin over the org.zoltpano binding, fed
// from a sweep folder (`zoltpano simulate`) instead of a camera. Each frame arrives as a phone
// delivers YUV_420_888: a Y plane and U and V views of one interleaved VU block (pixel stride
// 2, V first), with its capture time. The gyroscope is the host's (HostGyroscope); on a phone
// the engine reads the device's own.
//
//   PanoramaLoop [--no-frame-times] SWEEP_DIR OUT.jpg
//
// --no-frame-times passes -1 as every frame's time, as an app does whose camera clock is not
// the gyroscope's. Exit status 0 with the panorama written, 1 with one line on standard error.
package org.zoltpano.examples

import java.io.File
import java.io.IOException
import java.nio.ByteBuffer
import java.nio.channels.FileChannel
import java.nio.file.StandardOpenOption
import java.util.TimeZone
import kotlin.system.exitProcess
import org.zoltpano.FrameResult
import org.zoltpano.HostGyroscope
import org.zoltpano.PanoramaEngine
import org.zoltpano.ZoltPanoException

/** A bad sweep folder or command line: the message is the whole report. */
private class InputException(message: String) : Exception(message)

private class GyroEvent(val tNs: Long, val x: Float, val y: Float, val z: Float)

/** What meta.json and gyro.csv of a sweep folder say; the frames are read as the loop goes. */
private class Sweep(val dir: File) {
  val width: Int
  val height: Int
  val frames: Int
  val fps: Double
  val gyroOffsetMs: Double // how late the gyroscope's clock runs against the frames'
  val gyro: List<GyroEvent>

  init {
    val metaFile = File(dir, "meta.json")
    val meta = readText(metaFile)
    val root = meta.indexOf('{')
    if (root < 0) throw InputException("no JSON object in '$metaFile'")
    fun whole(key: String, low: Int, high: Int): Int {
      val v = jsonNumber(meta, root, key)
      if (v == null || v < low || v > high || v != Math.floor(v)) {
        throw InputException("'$metaFile' gives no $key from $low to $high")
      }
      return v.toInt()
    }
    width = whole("width", 2, 1 shl 15)
    height = whole("height", 2, 1 shl 15)
    frames = whole("frames", 1, 1 shl 30)
    fps = jsonNumber(meta, root, "fps")?.takeIf { it > 0 && it <= 1000 }
        ?: throw InputException("no frame rate (fps above 0, at most 1000) in '$metaFile'")
    if ((width or height) and 1 != 0) {
      throw InputException("odd frame sides (NV21 needs even) in '$metaFile'")
    }
    // No gyro.time_offset_ms: the two clocks agree.
    gyroOffsetMs = jsonMember(meta, root, "gyro")
        ?.takeIf { meta[it] == '{' }
        ?.let { jsonNumber(meta, it, "time_offset_ms") } ?: 0.0
    gyro = readGyro(File(dir, "gyro.csv"))
  }

  val frameBytes: Int
    get() = width * height * 3 / 2

  /** Frame k's time in ms on the frames' clock. */
  fun frameMs(k: Int): Double = k * 1000.0 / fps
}

private fun readText(file: File): String =
    try {
      file.readText()
    } catch (e: IOException) {
      throw InputException("cannot read '$file'")
    }

/**
 * Where the value of [key] starts among the members of the object whose '{' is at [start], not
 * those of objects or arrays inside it; null when it has none.
 */
private fun jsonMember(text: String, start: Int, key: String): Int? {
  var depth = 0
  var i = start
  while (i < text.length) {
    when (text[i]) {
      '{', '[' -> depth++
      '}', ']' -> if (--depth <= 0) return null
      '"' -> {
        val name = StringBuilder()
        i++
        while (i < text.length && text[i] != '"') {
          if (text[i] == '\\' && i + 1 < text.length) i++
          name.append(text[i++])
        }
        var value = i + 1
        while (value < text.length && text[value].isWhitespace()) value++
        // A string value that happens to match has no ':' behind it.
        if (depth == 1 && name.toString() == key && value < text.length && text[value] == ':') {
          value++
          while (value < text.length && text[value].isWhitespace()) value++
          return value
        }
      }
    }
    i++
  }
  return null
}

private val NUMBER = Regex("""-?\d+(\.\d+)?([eE][+-]?\d+)?""")

/** A number member of the object at [start]; null when it is missing or not a number. */
private fun jsonNumber(text: String, start: Int, key: String): Double? {
  val at = jsonMember(text, start, key) ?: return null
  val match = NUMBER.find(text, at)?.takeIf { it.range.first == at } ?: return null
  return match.value.toDouble()
}

/** gyro.csv: '#' comment lines, the header t_ns,wx,wy,wz, one event a line; sorted by time. */
private fun readGyro(file: File): List<GyroEvent> {
  val lines = try {
    file.readLines()
  } catch (e: IOException) {
    throw InputException("cannot read '$file'")
  }
  val events = ArrayList<GyroEvent>()
  var header = false
  for ((index, line) in lines.withIndex()) {
    if (line.startsWith("#") || line.isBlank()) continue
    if (!header) {
      if (!line.startsWith("t_ns,wx,wy,wz")) {
        throw InputException("'$file' line ${index + 1}: expected the header t_ns,wx,wy,wz")
      }
      header = true
      continue
    }
    val fields = line.trim().split(',')
    val t = fields.getOrNull(0)?.toLongOrNull()
    val w = fields.drop(1).map { it.toFloatOrNull() }
    if (fields.size != 4 || t == null || w.any { it == null }) {
      throw InputException("'$file' line ${index + 1}: expected t_ns,wx,wy,wz numbers")
    }
    events.add(GyroEvent(t, w[0]!!, w[1]!!, w[2]!!))
  }
  if (events.isEmpty()) throw InputException("no gyroscope events in '$file'")
  return events.sortedBy { it.tNs } // stable: equal times keep their order
}

/** A view of [length] bytes of [buffer] from [offset], as an Image's plane is. */
private fun slice(buffer: ByteBuffer, offset: Int, length: Int): ByteBuffer {
  val view = buffer.duplicate()
  view.position(offset)
  view.limit(offset + length)
  return view.slice()
}

/** One frame read after another from frames.nv21 into one direct buffer, the camera's. */
private class FrameReader(sweep: Sweep) : AutoCloseable {
  private val channel = FileChannel.open(File(sweep.dir, "frames.nv21").toPath(),
      StandardOpenOption.READ)
  val nv21: ByteBuffer = ByteBuffer.allocateDirect(sweep.frameBytes)

  /** Reads the next frame; false when the file ends first. */
  fun next(): Boolean {
    nv21.clear()
    while (nv21.hasRemaining()) {
      if (channel.read(nv21) < 0) return false
    }
    nv21.flip()
    return true
  }

  override fun close() = channel.close()
}

// Both clocks start here rather than at 0: the engine refuses a frame time of 0.
private const val CLOCK_BASE_NS = 1_000_000_000L
private const val STRIP_WIDTH = 1080 // the app's strip view, pixels
private const val STRIP_HEIGHT = 400

private fun run(sweep: Sweep, out: String, frameTimes: Boolean) {
  val w = sweep.width
  val h = sweep.height
  // An image's planes over one NV21 frame: V's buffer starts one byte before U's, and each
  // ends at its plane's last sample, as on a phone.
  val reader = FrameReader(sweep)
  val y = slice(reader.nv21, 0, w * h)
  val v = slice(reader.nv21, w * h, w * h / 2 - 1)
  val u = slice(reader.nv21, w * h + 1, w * h / 2 - 1)
  val strip = ByteBuffer.allocateDirect(STRIP_WIDTH * STRIP_HEIGHT * 4) // reused by preview()
  val startMs = System.currentTimeMillis()

  PanoramaEngine.setLogLevel(PanoramaEngine.LOG_SILENT) // this program reports for itself
  HostGyroscope.setPresent(true) // before create, which starts the gyroscope
  var frames = 0
  var keyFrames = 0
  var timesUsed = 0
  var lastCode = FrameResult.SUCCESS
  var last: FrameResult? = null
  var stripSize = "none"
  try {
    reader.use {
      // The orientation: the clockwise turn that shows a frame upright (CameraX's
      // rotationDegrees). The simulator's frames are upright as they come: 0.
      PanoramaEngine.create(w, h, 0).use { engine ->
        // The frames' clock to the gyroscope's, as gyro-check would have measured it.
        val delayUs = Math.round(sweep.gyroOffsetMs * 1000).toInt()
        if (frameTimes && delayUs != 0) {
          engine.setOption(PanoramaEngine.OPTION_GYRO_DELAY_US, delayUs)
        }
        engine.setPhotoInfo(startMs, TimeZone.getDefault().getOffset(startMs) / 60000, null, null,
            "PanoramaLoop")
        var nextEvent = 0
        for (k in 0 until sweep.frames) {
          if (!reader.next()) {
            throw InputException("frames.nv21 ends before the ${sweep.frames} frames of meta.json")
          }
          // The gyroscope's events up to this frame's time have reached the engine.
          val untilNs = Math.round((sweep.frameMs(k) + sweep.gyroOffsetMs) * 1e6)
          while (nextEvent < sweep.gyro.size && sweep.gyro[nextEvent].tNs <= untilNs) {
            val e = sweep.gyro[nextEvent++]
            HostGyroscope.push(CLOCK_BASE_NS + e.tNs, e.x, e.y, e.z)
          }
          HostGyroscope.sync()

          val timeNs = if (frameTimes) CLOCK_BASE_NS + Math.round(sweep.frameMs(k) * 1e6) else -1L
          val result = engine.addFrame(y, w, u, v, w, 2, timeNs)
          frames++
          last = result
          if (result.isTimeUsed) timesUsed++
          if (result.code() != lastCode) {
            val hint = result.hint()
            println("frame $k: ${result.codeName()}" + if (hint.isNotEmpty()) ": $hint" else "")
            lastCode = result.code()
          }
          if (result.isKeyFrame) {
            keyFrames++
            val preview = engine.preview(STRIP_WIDTH, STRIP_HEIGHT, strip)
            stripSize = "${preview.width()}x${preview.height()}" // an app posts it to its view
          }
          if (result.isCanvasFull) {
            println("frame $k: canvas full")
            break
          }
        }

        // A refused picture can still be saved; the user is told why and asked to sweep again.
        val verdict = engine.verdict()
        if (verdict.isPanorama) {
          println("verdict: ${verdict.codeName()}")
        } else {
          println("verdict: ${verdict.codeName()}: ${verdict.hint()} (${verdict.message()})")
        }
        engine.saveJpeg(out, 0) // 0: the engine's default quality
        val jpeg = engine.encodeJpeg(0) // what an app hands to MediaStore
        if (!File(out).readBytes().contentEquals(jpeg)) {
          throw InputException("encodeJpeg gave other bytes than $out")
        }
        println("PanoramaLoop: $frames frames, $keyFrames key frames, $timesUsed frame times " +
            "used, progress ${last?.progress() ?: 0}%, strip $stripSize, panorama $out " +
            "(${jpeg.size} bytes, the same in memory)")
      }
    }
  } finally {
    HostGyroscope.setPresent(false) // engines made later have none
  }
}

fun main(args: Array<String>) {
  val frameTimes = args.firstOrNull() != "--no-frame-times"
  val paths = if (frameTimes) args.toList() else args.drop(1)
  if (paths.size != 2) {
    System.err.println("usage: PanoramaLoop [--no-frame-times] SWEEP_DIR OUT.jpg")
    exitProcess(1)
  }
  try {
    run(Sweep(File(paths[0])), paths[1], frameTimes)
  } catch (e: ZoltPanoException) {
    System.err.println("PanoramaLoop: ${e.codeName()}: ${e.message}")
    exitProcess(1)
  } catch (e: InputException) {
    System.err.println("PanoramaLoop: ${e.message}")
    exitProcess(1)
  } catch (e: IOException) {
    System.err.println("PanoramaLoop: $e")
    exitProcess(1)
  }
}
