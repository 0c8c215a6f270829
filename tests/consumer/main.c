/* The installed headers and library from a plain C99 program, as an application outside the
 * project uses them. Prints the engine's version, then provokes one refusal after another and
 * prints each as "CODE_NAME: message", checking what the call returned, the code and name that
 * ZOLT_PANO_GetLastError gives, and that the message starts with the call's name. With the host
 * sensor service it also checks that a host without a gyroscope syncs at once. The log is
 * silent: the only output on stderr is the reason for exit status 1. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* An application's own headers may define names that zolt_pano.h declares bare; the extension
 * header reads zolt_pano.h with them set aside, and its ZOLT_PANO_ names serve instead. */
#define SUCCESS 0
#define MOVE_NONE 0
#include <zolt_pano_ext.h>
#ifdef ZOLT_CONSUMER_HOST_SENSOR
#include <zolt_host_sensor.h>
#endif

#define WIDTH 1280
#define HEIGHT 720
#define NOT_A_REFUSAL_CODE (-1) /* the call returns something else (a sweep code, nothing) */
#define NEVER_WRITTEN "zoltpano_consumer_never_written.jpg"

static void fail(const char* what, const char* detail) {
  fprintf(stderr, "zoltpano_consumer: %s%s\n", what, detail);
  exit(1);
}

/* `call` was refused with `code`, named `name`; its message is read from `handle` (NULL: the
 * calling thread's record of calls without a live engine). `returned`: what the call returned,
 * NOT_A_REFUSAL_CODE where it returns no refusal code. */
static void expect_refusal(const char* call, int returned, void* handle, int code,
                           const char* name) {
  char message[256];
  const int last = ZOLT_PANO_GetLastError(handle, message, (int)sizeof message);
  const char* lastName = ZOLT_PANO_CodeName(last);
  printf("%s: %s\n", lastName, message);
  if (returned != NOT_A_REFUSAL_CODE && returned != code) fail(call, " returned another code");
  if (last != code) fail(call, ": ZOLT_PANO_GetLastError gave another code");
  if (strcmp(lastName, "UNKNOWN") == 0 || strcmp(lastName, name) != 0)
    fail(call, ": ZOLT_PANO_CodeName gave another name");
  if (strncmp(message, call, strlen(call)) != 0)
    fail(call, ": the message does not start with the call's name");
  if (ZOLT_PANO_GetLastError(handle, NULL, 0) != 0)
    fail(call, ": ZOLT_PANO_GetLastError did not clear the code");
}

int main(void) {
  static unsigned char nv21[WIDTH * HEIGHT * 3 / 2];
  tag_ZOLT_PANO_INIT_PARAM param;
  __tag_ZOLT_OFFSCREEN frame;
  tsPOINT offset;
  long isKeyFrame = 0;
  void* handle = &param; /* a refused ZOLT_PANO_Initial must leave it alone */
  unsigned char* jpeg = nv21;
  size_t jpegSize = 1;
  int direction = 0, sweepLength = 0, canvasWidth = 0, canvasHeight = 0, rc;
  FILE* written;
  const char* version;

  ZOLT_PANO_SetLogLevel(8); /* silent */
  version = ZOLT_PANO_GetVersion();
  if (version == NULL) fail("ZOLT_PANO_GetVersion returned NULL", "");
  printf("%s\n", version);

  memset(&param, 0, sizeof param);
  param.previewWidth = 640;
  param.previewHeight = 480;
  rc = ZOLT_PANO_Initial(&param, &handle);
  expect_refusal("ZOLT_PANO_Initial", rc, NULL, ZOLT_PANO_ERR_INVALID_DIMENSIONS,
                 "ERR_INVALID_DIMENSIONS");
  if (handle != &param) fail("a refused ZOLT_PANO_Initial wrote the handle", "");

  param.previewWidth = WIDTH;
  param.previewHeight = HEIGHT;
  if (ZOLT_PANO_Initial(&param, &handle) != ZOLT_PANO_SUCCESS || handle == &param)
    fail("ZOLT_PANO_Initial refused 1280x720", "");

  rc = ZOLT_PANO_SetOption(handle, ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 2);
  expect_refusal("ZOLT_PANO_SetOption", rc, handle, ZOLT_PANO_ERR_BAD_OPTION, "ERR_BAD_OPTION");

  remove(NEVER_WRITTEN);
  rc = ZOLT_PANO_SaveJpeg(handle, NEVER_WRITTEN, 0);
  expect_refusal("ZOLT_PANO_SaveJpeg", rc, handle, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
                 "ERR_NOTHING_TO_SAVE");
  written = fopen(NEVER_WRITTEN, "rb");
  if (written != NULL) {
    fclose(written);
    fail("a refused ZOLT_PANO_SaveJpeg left " NEVER_WRITTEN, "");
  }

  rc = ZOLT_PANO_EncodeJpeg(handle, 101, &jpeg, &jpegSize);
  expect_refusal("ZOLT_PANO_EncodeJpeg", rc, handle, ZOLT_PANO_ERR_BAD_ARGUMENT,
                 "ERR_BAD_ARGUMENT");
  if (jpeg != NULL || jpegSize != 0) fail("a refused ZOLT_PANO_EncodeJpeg left data or size", "");

  /* A frame of another size than the preview's (the buffer is large enough for it). */
  memset(&frame, 0, sizeof frame);
  frame.width = 642;
  frame.height = 642;
  frame.planeY = nv21;
  frame.planeVU = nv21 + 642 * 642;
  ZOLT_PANO_SelectFrames(handle, NULL, NULL, &frame, NULL, &offset, &isKeyFrame, NULL, &direction,
                         &sweepLength);
  expect_refusal("ZOLT_PANO_SelectFrames", NOT_A_REFUSAL_CODE, handle, ZOLT_PANO_ERR_FRAME_SIZE,
                 "ERR_FRAME_SIZE");

  if (ZOLT_PANO_Release(&handle) != 0) fail("ZOLT_PANO_Release failed", "");
  /* The released handle, with a frame of the right size: no engine answers to it any more. */
  frame.width = WIDTH;
  frame.height = HEIGHT;
  frame.planeVU = nv21 + WIDTH * HEIGHT;
  ZOLT_PANO_SelectFrames(handle, NULL, NULL, &frame, NULL, &offset, &isKeyFrame, NULL, &direction,
                         &sweepLength);
  expect_refusal("ZOLT_PANO_SelectFrames", NOT_A_REFUSAL_CODE, NULL, ZOLT_PANO_ERR_NOT_ENGINE,
                 "ERR_NOT_ENGINE");

  rc = ZOLT_PANO_CanvasSize(100, 100, 0, 0, &canvasWidth, &canvasHeight);
  expect_refusal("ZOLT_PANO_CanvasSize", rc, NULL, ZOLT_PANO_ERR_BAD_ARGUMENT, "ERR_BAD_ARGUMENT");

  rc = ZOLT_PANO_PackNV21(NULL, WIDTH, NULL, NULL, WIDTH, 2, WIDTH, HEIGHT, NULL);
  expect_refusal("ZOLT_PANO_PackNV21", rc, NULL, ZOLT_PANO_ERR_NULL_ARGUMENT,
                 "ERR_NULL_ARGUMENT");

#ifdef ZOLT_CONSUMER_HOST_SENSOR
  zolt_host_sensor_set_gyroscope(0);
  zolt_host_sensor_push_gyro(1, 0.0f, 0.0f, 0.0f); /* dropped: no queue */
  zolt_host_sensor_sync();
#endif
  return 0;
}
