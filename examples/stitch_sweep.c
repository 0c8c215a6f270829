/* stitch_sweep: a panorama from a sweep folder (`zoltpano simulate`), driving the engine through
 * its C interface the way a camera application does: a gyroscope whose events reach the engine
 * before each frame, one preview frame after another through ZOLT_PANO_SelectFrames and
 * ZOLT_PANO_AddImage, the canvas allocated once the sweep's direction is known, and the JPEG at
 * the end. Every call is checked; a refusal is named by its code and the engine's message.
 *
 *   stitch_sweep SWEEP_DIR OUT.jpg
 *
 * Exit status 0 with the panorama written, 1 with one line on standard error saying why.
 * Plain C99; links libzoltpano and, for the gyroscope, libzoltpano_host_sensor. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zolt_host_sensor.h>
#include <zolt_pano_ext.h>

#include "sweep_folder.h"

/* The last refusal on `handle` (NULL: a call without a live engine) as one line on stderr,
 * "stitch_sweep: CODE_NAME: message". `code` stands in when the engine recorded none. */
static void print_refusal(void* handle, int code) {
  char message[256];
  const int last = ZOLT_PANO_GetLastError(handle, message, (int)sizeof message);
  if (last != 0) code = last;
  fprintf(stderr, "stitch_sweep: %s: %s\n", ZOLT_PANO_CodeName(code),
          last != 0 ? message : "(no message)");
}

/* After a call on the engine for frame k that returned rc: 0 to go on, 1 when the sweep has
 * reached the canvas's end (the panorama so far is kept), -1 on a refusal (printed). */
static int check_frame_call(void* handle, int k, int rc) {
  char message[256];
  const int code = ZOLT_PANO_GetLastError(handle, message, (int)sizeof message);
  if (code == ZOLT_PANO_ERR_CANVAS_FULL) {
    printf("frame %d: %s: %s\n", k, ZOLT_PANO_CodeName(code), ZOLT_PANO_CodeHint(code));
    return 1;
  }
  if (code == 0 && rc == 0) return 0;
  fprintf(stderr, "stitch_sweep: frame %d: %s: %s\n", k, ZOLT_PANO_CodeName(code ? code : rc),
          code ? message : "(no message)");
  return -1;
}

/* Whether the file at `path` holds exactly `size` bytes equal to `data`. */
static int same_as_file(const char* path, const unsigned char* data, size_t size) {
  unsigned char buf[4096];
  size_t at = 0, n;
  int same = 1;
  FILE* f = fopen(path, "rb");
  if (f == NULL) return 0;
  while (same && (n = fread(buf, 1, sizeof buf, f)) > 0) {
    same = at + n <= size && memcmp(buf, data + at, n) == 0;
    at += n;
  }
  fclose(f);
  return same && at == size;
}

/* Nanoseconds, rounded to the nearest (without libm). */
static long long to_ns(double ms) {
  const double ns = ms * 1e6;
  return ns >= 0 ? (long long)(ns + 0.5) : -(long long)(-ns + 0.5);
}

int main(int argc, char** argv) {
  SweepFolder sweep;
  tag_ZOLT_PANO_INIT_PARAM param;
  __tag_ZOLT_OFFSCREEN frame, canvas;
  void* handle = NULL;
  unsigned char* nv21 = NULL;
  unsigned char* canvasBytes = NULL;
  unsigned char* jpeg = NULL;
  size_t jpegSize = 0;
  size_t nextEvent = 0;
  int status = 1, rc, k, frames = 0, keyFrames = 0, lastCode = ZOLT_PANO_SUCCESS;
  int verdict = ZOLT_PANO_VERDICT_PANORAMA;
  char why[256];

  if (argc != 3) {
    fprintf(stderr, "usage: stitch_sweep SWEEP_DIR OUT.jpg\n");
    return 1;
  }
  if (sweep_open(&sweep, argv[1]) != 0 || sweep_read_gyro(&sweep, argv[1]) != 0) {
    fprintf(stderr, "stitch_sweep: %s\n", sweep.error);
    sweep_close(&sweep);
    return 1;
  }
  nv21 = (unsigned char*)malloc(sweep.frameBytes);
  if (nv21 == NULL) {
    fprintf(stderr, "stitch_sweep: out of memory for a %dx%d frame\n", sweep.width, sweep.height);
    sweep_close(&sweep);
    return 1;
  }

  ZOLT_PANO_SetLogLevel(8);           /* silent: this program reports for itself */
  zolt_host_sensor_set_gyroscope(1); /* before ZOLT_PANO_Initial, which starts the sensor */
  memset(&param, 0, sizeof param);
  param.previewWidth = sweep.width;
  param.previewHeight = sweep.height;
  param.camOrientation = 90;
  rc = ZOLT_PANO_Initial(&param, &handle);
  if (rc != ZOLT_PANO_SUCCESS) {
    print_refusal(NULL, rc);
    goto done;
  }

  /* Until the direction is known the canvas is the record for direction 0, without planes. */
  memset(&canvas, 0, sizeof canvas);
  rc = ZOLT_PANO_CanvasSize(sweep.width, sweep.height, ZOLT_PANO_MOVE_NONE, 0, &canvas.width,
                            &canvas.height);
  if (rc != 0) {
    print_refusal(NULL, rc);
    goto done;
  }
  memset(&frame, 0, sizeof frame);
  frame.width = sweep.width;
  frame.height = sweep.height;
  frame.planeY = nv21;
  frame.planeVU = nv21 + (size_t)sweep.width * (size_t)sweep.height;

  for (k = 0; k < sweep.frames; ++k) {
    tsPOINT offset;
    tsRECT validRect;
    long isKeyFrame = 0;
    int direction = 0, sweepLength = 0, progress = 0, code;
    /* The gyroscope's events up to this frame's time have gone through the engine's fusion. */
    const long long until = to_ns(k * 1000.0 / sweep.fps + sweep.gyroOffsetMs);

    if (sweep_read_frame(&sweep, nv21) != 0) {
      fprintf(stderr, "stitch_sweep: %s\n", sweep.error);
      goto done;
    }
    for (; nextEvent < sweep.gyroCount && sweep.gyro[nextEvent].tNs <= until; ++nextEvent) {
      const SweepGyroEvent* e = &sweep.gyro[nextEvent];
      zolt_host_sensor_push_gyro(e->tNs, e->w[0], e->w[1], e->w[2]);
    }
    zolt_host_sensor_sync();

    /* Returns the sweep's result code; a refusal is read with ZOLT_PANO_GetLastError. */
    code = ZOLT_PANO_SelectFrames(handle, NULL, NULL, &frame, NULL, &offset, &isKeyFrame, NULL,
                                  &direction, &sweepLength);
    rc = check_frame_call(handle, k, 0);
    if (rc < 0) goto done;
    if (rc > 0) break;
    if (code != lastCode) {
      const char* hint = ZOLT_PANO_CodeHint(code);
      printf("frame %d: %s%s%s\n", k, ZOLT_PANO_CodeName(code), hint[0] ? ": " : "", hint);
      lastCode = code;
    }

    /* The frame that fixes the direction is the first one merged: the canvas must exist now. */
    if (canvasBytes == NULL && direction >= ZOLT_PANO_MOVE_RIGHT && direction <= ZOLT_PANO_MOVE_UP) {
      size_t ySize;
      rc = ZOLT_PANO_CanvasSize(sweep.width, sweep.height, direction, 0, &canvas.width,
                                &canvas.height);
      if (rc != 0) {
        print_refusal(NULL, rc);
        goto done;
      }
      ySize = (size_t)canvas.width * (size_t)canvas.height;
      canvasBytes = (unsigned char*)malloc(ySize * 3 / 2);
      if (canvasBytes == NULL) {
        fprintf(stderr, "stitch_sweep: out of memory for a %dx%d canvas\n", canvas.width,
                canvas.height);
        goto done;
      }
      memset(canvasBytes, 0, ySize);                   /* Y: black */
      memset(canvasBytes + ySize, 128, ySize / 2);     /* VU: no colour */
      canvas.planeY = canvasBytes;
      canvas.planeVU = canvasBytes + ySize;            /* directly behind the Y plane */
    }

    rc = ZOLT_PANO_AddImage(handle, NULL, NULL, NULL, NULL, &canvas, &validRect, NULL, &progress);
    rc = check_frame_call(handle, k, rc);
    if (rc < 0) goto done;
    ++frames;
    if (isKeyFrame) ++keyFrames;
    if (rc > 0) break;
  }

  /* Before calling it a panorama: the engine's verdict on the capture. A refused picture can
   * still be saved; the user is told why and asked to sweep again. */
  rc = ZOLT_PANO_GetVerdict(handle, &verdict, why, sizeof why);
  if (rc != 0) {
    print_refusal(handle, rc);
    goto done;
  }
  if (verdict != ZOLT_PANO_VERDICT_PANORAMA)
    printf("stitch_sweep: not a panorama (%s): %s\n", ZOLT_PANO_CodeHint(verdict), why);

  rc = ZOLT_PANO_SaveJpeg(handle, argv[2], 0); /* 0: the engine's default quality */
  if (rc != 0) {
    print_refusal(handle, rc);
    goto done;
  }
  /* The same panorama in memory (an app that stores through its own API) is the file's bytes. */
  rc = ZOLT_PANO_EncodeJpeg(handle, 0, &jpeg, &jpegSize);
  if (rc != 0) {
    print_refusal(handle, rc);
    goto done;
  }
  if (!same_as_file(argv[2], jpeg, jpegSize)) {
    fprintf(stderr, "stitch_sweep: ZOLT_PANO_EncodeJpeg gave other bytes than %s\n", argv[2]);
    goto done;
  }
  status = 0;

done:
  /* Stops the engine's sensor thread; the handle is dead from here on. */
  if (handle != NULL && ZOLT_PANO_Release(&handle) != 0 && status == 0) {
    fprintf(stderr, "stitch_sweep: ZOLT_PANO_Release failed\n");
    status = 1;
  }
  zolt_host_sensor_set_gyroscope(0);
  ZOLT_PANO_FreeBuffer(jpeg);
  free(canvasBytes);
  free(nv21);
  sweep_close(&sweep);
  if (status == 0)
    printf("stitch_sweep: %d frames, %d key frames, panorama %s (%lu bytes, the same in memory)\n",
           frames, keyFrames, argv[2], (unsigned long)jpegSize);
  return status;
}
