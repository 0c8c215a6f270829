# What exiftool reads from a panorama zoltpano stitch saved: with -DNONE=1 (the exact mode) no
# EXIF and no XMP; otherwise a valid file whose EXIF and GPano tags say what the engine promises:
# the picture's own size, upright (Orientation 1), the capture time of FRAMES (the input's first
# frame file; its modification time) and, with FULL_WIDTH, the full panorama's width.
#   cmake -DEXIFTOOL=... -DJPEG=... [-DNONE=1 | -DFRAMES=... -DFULL_WIDTH=N] -P check_photo_tags.cmake
if(NOT EXIFTOOL)
  message(FATAL_ERROR "exiftool not found: scripts/setup.sh installs libimage-exiftool-perl")
endif()
execute_process(COMMAND ${EXIFTOOL} -s -a -G1 -All -validate -warning -d %s ${JPEG}
                OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "exiftool failed on ${JPEG}")
endif()
message("${out}")
# tag_GROUP_Name = value
string(REPLACE "\n" ";" lines "${out}")
foreach(line IN LISTS lines)
  if(line MATCHES "^\\[([A-Za-z0-9-]+)\\] +([A-Za-z0-9]+) *: (.*)$")
    set("tag_${CMAKE_MATCH_1}_${CMAKE_MATCH_2}" "${CMAKE_MATCH_3}")
  endif()
endforeach()

if(NONE)
  foreach(group IFD0 ExifIFD XMP-GPano)
    if(out MATCHES "\\[${group}\\]")
      message(FATAL_ERROR "the exact mode's panorama carries ${group} tags")
    endif()
  endforeach()
  return()
endif()

set(width "${tag_File_ImageWidth}")
set(height "${tag_File_ImageHeight}")
math(EXPR full_height "${FULL_WIDTH} / 2")
math(EXPR left "(${FULL_WIDTH} - ${width}) / 2")
math(EXPR top "(${full_height} - ${height}) / 2")
file(TIMESTAMP ${FRAMES} frames_time "%s" UTC)
set(expected
  "ExifTool:Validate=OK"
  "IFD0:Orientation=Horizontal (normal)"
  "IFD0:Software=ZOLT_PANO_v3.7"
  "ExifIFD:ExifVersion=0231"
  "ExifIFD:ColorSpace=sRGB"
  "ExifIFD:ExifImageWidth=${width}"
  "ExifIFD:ExifImageHeight=${height}"
  "XMP-GPano:ProjectionType=equirectangular"
  "XMP-GPano:UsePanoramaViewer=True"
  "XMP-GPano:CroppedAreaImageWidthPixels=${width}"
  "XMP-GPano:CroppedAreaImageHeightPixels=${height}"
  "XMP-GPano:FullPanoWidthPixels=${FULL_WIDTH}"
  "XMP-GPano:FullPanoHeightPixels=${full_height}"
  "XMP-GPano:CroppedAreaLeftPixels=${left}"
  "XMP-GPano:CroppedAreaTopPixels=${top}"
  "XMP-GPano:CaptureSoftware=ZOLT_PANO_v3.7"
  # -d %s: the local times with their offset, as seconds since 1970, the input file's.
  "Composite:SubSecDateTimeOriginal=${frames_time}"
  "Composite:SubSecCreateDate=${frames_time}")
set(bad "")
foreach(e IN LISTS expected)
  string(FIND "${e}" "=" at)
  string(SUBSTRING "${e}" 0 ${at} key)
  string(REPLACE ":" "_" key "${key}")
  math(EXPR at "${at} + 1")
  string(SUBSTRING "${e}" ${at} -1 want)
  if(NOT "${tag_${key}}" STREQUAL "${want}")
    list(APPEND bad "${key}: '${tag_${key}}', expected '${want}'")
  endif()
endforeach()
foreach(key ExifIFD_DateTimeOriginal ExifIFD_OffsetTimeOriginal ExifIFD_SubSecTimeOriginal
        IFD0_ModifyDate XMP-GPano_SourcePhotosCount)
  if("${tag_${key}}" STREQUAL "")
    list(APPEND bad "${key} missing")
  endif()
endforeach()
if(NOT "${tag_ExifIFD_OffsetTimeOriginal}" MATCHES "^[+-][0-9][0-9]:[0-9][0-9]$")
  list(APPEND bad "OffsetTimeOriginal '${tag_ExifIFD_OffsetTimeOriginal}'")
endif()
if(bad)
  list(JOIN bad "\n  " text)
  message(FATAL_ERROR "${JPEG}:\n  ${text}")
endif()
