# Runs the Kotlin consumer (examples/kotlin/PanoramaLoop.kt) on a small steady sweep whose
# gyroscope clock runs 25 ms late, as a phone app runs it: through zoltpano.jar and
# libzoltpano_jni found by the system property org.zoltpano.library.
#   - with frame times: the frame lines, the verdict, every frame's time taken, key frames
#     merged, the strip fitted into its 1080 x 400 box, the JPEG (EXIF and GPano from
#     setPhotoInfo) the size printed, and nothing on stderr: the engine's log is silent, and
#     the binding warns there of a refused frame time or an engine that was never closed;
#   - with --no-frame-times: the same, no frame time taken;
#   - refusals: a folder that is not a sweep, and a JPEG path that cannot be written (the
#     engine's ERR_WRITE_FAILED thrown through the binding): status 1, one line on stderr.
#   cmake -DJAVA=... -DJNI_LIBRARY=... -DCLASSPATH=a.jar:b.jar... -DCLI=<zoltpano tool>
#         -DWORK_DIR=... -P check_kotlin_consumer.cmake
foreach(v JAVA JNI_LIBRARY CLASSPATH CLI WORK_DIR)
  if(NOT ${v})
    message(FATAL_ERROR "check_kotlin_consumer.cmake: ${v} not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(frames 24)
execute_process(COMMAND "${CLI}" simulate --preset steady --size 1280x720 --frames ${frames}
                        --gyro-offset-ms 25 --out "${WORK_DIR}/sweep" --force -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "making the sweep failed (${rc}):\n${err}")
endif()

# Runs the consumer with the arguments given; loop_rc, loop_out, loop_err: what it did.
function(run_loop)
  execute_process(
    COMMAND "${JAVA}" "-Dorg.zoltpano.library=${JNI_LIBRARY}" -cp "${CLASSPATH}"
            org.zoltpano.examples.PanoramaLoopKt ${ARGN}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err WORKING_DIRECTORY "${WORK_DIR}")
  set(loop_rc "${rc}" PARENT_SCOPE)
  set(loop_out "${out}" PARENT_SCOPE)
  set(loop_err "${err}" PARENT_SCOPE)
endfunction()

# A whole run on the sweep into `jpg`, `times_used` frame times taken.
function(expect_panorama jpg times_used)
  if(NOT loop_rc EQUAL 0 OR NOT loop_err STREQUAL "")
    message(FATAL_ERROR "PanoramaLoop exited with ${loop_rc}; stdout:\n${loop_out}\n"
                        "stderr (expected empty):\n${loop_err}")
  endif()
  set(expected
    "frame 0: INFO_TRACE_FIRST_FRAME: Start sweeping"
    "frame 1: SUCCESS"
    "verdict: SUCCESS"
    "PanoramaLoop: ${frames} frames, ([0-9]+) key frames, ${times_used} frame times used, progress ([0-9]+)%, strip ([0-9]+)x([0-9]+), panorama [^\n]*/${jpg} \\(([0-9]+) bytes, the same in memory\\)")
  list(JOIN expected "\n" pattern)
  if(NOT loop_out MATCHES "^${pattern}\n$")
    message(FATAL_ERROR "PanoramaLoop printed:\n${loop_out}\nexpected lines matching:\n${pattern}")
  endif()
  set(key_frames ${CMAKE_MATCH_1})
  set(progress ${CMAKE_MATCH_2})
  set(strip_w ${CMAKE_MATCH_3})
  set(strip_h ${CMAKE_MATCH_4})
  set(bytes ${CMAKE_MATCH_5})
  # The first frame is the reference; the steady sweep merges most of the others.
  if(key_frames LESS 2 OR NOT key_frames LESS frames)
    message(FATAL_ERROR "PanoramaLoop merged ${key_frames} key frames of ${frames}:\n${loop_out}")
  endif()
  if(progress LESS 1 OR progress GREATER 100)
    message(FATAL_ERROR "PanoramaLoop reported progress ${progress}%:\n${loop_out}")
  endif()
  # The panorama (at least 1280 x 600) is larger than the box: its limiting side fills it.
  if(strip_w GREATER 1080 OR strip_h GREATER 400 OR strip_w LESS 1 OR strip_h LESS 1
     OR NOT (strip_w EQUAL 1080 OR strip_h EQUAL 400))
    message(FATAL_ERROR "a strip of ${strip_w}x${strip_h} does not fit a 1080x400 box:\n${loop_out}")
  endif()
  file(SIZE "${WORK_DIR}/${jpg}" size)
  if(NOT size EQUAL bytes)
    message(FATAL_ERROR "${jpg} holds ${size} bytes, PanoramaLoop said ${bytes}")
  endif()
  file(READ "${WORK_DIR}/${jpg}" head LIMIT 16384 HEX)
  if(NOT head MATCHES "^ffd8ff")
    message(FATAL_ERROR "${jpg} is not a JPEG (it starts with '${head}')")
  endif()
  # "Exif" and "GPano" in the first segments: setPhotoInfo reached the JPEG.
  foreach(tag 45786966 4750616e6f)
    string(FIND "${head}" "${tag}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "${jpg} lacks the metadata setPhotoInfo gives (no hex ${tag} in its "
                          "first 16 KB)")
    endif()
  endforeach()
  # Upright: a sweep to the right of upright landscape frames is wider than high. The frame
  # header (SOF0, 17 bytes for three components) holds the height, then the width.
  string(FIND "${head}" "ffc00011" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${jpg}: no baseline frame header in its first 16 KB")
  endif()
  math(EXPR h_at "${at} + 10")
  math(EXPR w_at "${at} + 14")
  string(SUBSTRING "${head}" ${h_at} 4 jpeg_h)
  string(SUBSTRING "${head}" ${w_at} 4 jpeg_w)
  math(EXPR jpeg_h "0x${jpeg_h}")
  math(EXPR jpeg_w "0x${jpeg_w}")
  if(NOT jpeg_w GREATER jpeg_h OR jpeg_h GREATER 720 OR jpeg_h LESS 600)
    message(FATAL_ERROR "${jpg} is ${jpeg_w}x${jpeg_h}: not the upright strip of a sweep to the "
                        "right over 1280x720 frames")
  endif()
endfunction()

# A refused run: status 1, one line on stderr matching `pattern`.
function(expect_refusal what pattern)
  if(NOT loop_rc EQUAL 1 OR NOT loop_err MATCHES "^PanoramaLoop: ${pattern}\n$")
    message(FATAL_ERROR "${what}: PanoramaLoop exited with ${loop_rc}, expected 1 and one line "
                        "on stderr matching 'PanoramaLoop: ${pattern}'; stderr:\n${loop_err}\n"
                        "stdout:\n${loop_out}")
  endif()
endfunction()

run_loop("${WORK_DIR}/sweep" "${WORK_DIR}/times.jpg")
expect_panorama(times.jpg ${frames})
run_loop(--no-frame-times "${WORK_DIR}/sweep" "${WORK_DIR}/no_times.jpg")
expect_panorama(no_times.jpg 0)

run_loop("${WORK_DIR}" "${WORK_DIR}/none.jpg")
expect_refusal("a folder without meta.json" "cannot read '[^\n]*/meta\\.json'")
if(NOT loop_out STREQUAL "")
  message(FATAL_ERROR "PanoramaLoop printed for a folder without a sweep:\n${loop_out}")
endif()
run_loop("${WORK_DIR}/sweep" "${WORK_DIR}/missing/pano.jpg")
expect_refusal("a JPEG path in a missing folder" "ERR_WRITE_FAILED: [^\n]*")
if(EXISTS "${WORK_DIR}/missing")
  message(FATAL_ERROR "PanoramaLoop made the folder ${WORK_DIR}/missing")
endif()
message(STATUS "Kotlin consumer ok: ${frames} frames with and without frame times, refusals")
