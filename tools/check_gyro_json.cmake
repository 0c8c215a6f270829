# gyro-check's JSON holds every figure it promises, as numbers.
file(READ ${JSON} text)
foreach(key pairs time_offset_ms focal_scale hfov_deg correlation_x correlation_y median_error_px
        p95_error_px median_error_px_raw p95_error_px_raw)
  string(JSON value ERROR_VARIABLE error GET "${text}" ${key})
  if(error OR NOT value MATCHES "^-?[0-9.eE+-]+$")
    message(FATAL_ERROR "'${key}' missing or not a number in ${JSON}: ${error}")
  endif()
endforeach()
