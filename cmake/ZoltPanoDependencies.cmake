# Dependencies of the engine, each behind a target of its own so that the three flavours
# (host, armhf, Android) differ only here.
find_package(Threads REQUIRED)

# OpenCV: Debian's packages on host and armhf; OpenCV's Android SDK on Android
# (-DOpenCV_DIR=<sdk>/sdk/native/jni).
find_package(OpenCV REQUIRED COMPONENTS core imgproc video calib3d features2d imgcodecs)

# Google Highway: its CMake package where installed (Debian's libhwy-dev, or a build for the
# NDK named with -Dhwy_DIR), else pkg-config.
find_package(hwy CONFIG QUIET)
add_library(zoltpano::hwy INTERFACE IMPORTED)
if(TARGET hwy::hwy)
  target_link_libraries(zoltpano::hwy INTERFACE hwy::hwy)
elseif(ANDROID)
  message(FATAL_ERROR "Highway built for the NDK not found: pass -Dhwy_DIR=<prefix>/lib/cmake/hwy")
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(ZP_HWY REQUIRED IMPORTED_TARGET libhwy)
  target_link_libraries(zoltpano::hwy INTERFACE PkgConfig::ZP_HWY)
endif()

# libyuv (Camera2 frames to packed NV21): Debian's libyuv-dev, which has no CMake or pkg-config
# file; for Android a libyuv built with the NDK, named with -DZOLTPANO_LIBYUV_ROOT=<prefix>.
find_path(ZP_LIBYUV_INCLUDE libyuv/planar_functions.h HINTS ${ZOLTPANO_LIBYUV_ROOT}/include REQUIRED)
find_library(ZP_LIBYUV_LIB NAMES yuv HINTS ${ZOLTPANO_LIBYUV_ROOT}/lib REQUIRED)
add_library(zoltpano::yuv INTERFACE IMPORTED)
target_include_directories(zoltpano::yuv INTERFACE ${ZP_LIBYUV_INCLUDE})
target_link_libraries(zoltpano::yuv INTERFACE ${ZP_LIBYUV_LIB})

# libexif (the saved panorama's EXIF): Debian's libexif-dev; for Android a libexif built with the
# NDK, named with -DZOLTPANO_LIBEXIF_ROOT=<prefix> (include/libexif/, lib/libexif.so or .a).
find_path(ZP_LIBEXIF_INCLUDE libexif/exif-data.h HINTS ${ZOLTPANO_LIBEXIF_ROOT}/include REQUIRED)
find_library(ZP_LIBEXIF_LIB NAMES exif HINTS ${ZOLTPANO_LIBEXIF_ROOT}/lib REQUIRED)
add_library(zoltpano::exif INTERFACE IMPORTED)
target_include_directories(zoltpano::exif INTERFACE ${ZP_LIBEXIF_INCLUDE})
target_link_libraries(zoltpano::exif INTERFACE ${ZP_LIBEXIF_LIB})

# Android's log: liblog from the NDK; on Linux, Debian's host liblog (android-liblog-dev), whose
# headers live under /usr/include/android.
add_library(zoltpano::log INTERFACE IMPORTED)
if(ANDROID)
  find_library(ZP_LOG_LIB log REQUIRED)
  target_link_libraries(zoltpano::log INTERFACE ${ZP_LOG_LIB})
else()
  find_path(ZP_ANDROID_INCLUDE android/log.h PATH_SUFFIXES android REQUIRED)
  find_library(ZP_LOG_LIB log PATH_SUFFIXES android REQUIRED)
  target_include_directories(zoltpano::log INTERFACE ${ZP_ANDROID_INCLUDE})
  target_link_libraries(zoltpano::log INTERFACE ${ZP_LOG_LIB})
  # liblog lives in a private folder; let the binaries find it without LD_LIBRARY_PATH. A cross
  # build installs with the folder as the target sees it (without the sysroot); its build tree
  # names the sysroot's copy as well, for qemu-arm, which does not map the loader's directory
  # checks into its -L prefix.
  get_filename_component(_zp_log_dir "${ZP_LOG_LIB}" DIRECTORY)
  set(_zp_log_target_dir "${_zp_log_dir}")
  if(CMAKE_SYSROOT)
    string(LENGTH "${CMAKE_SYSROOT}" _zp_len)
    string(FIND "${_zp_log_dir}" "${CMAKE_SYSROOT}/" _zp_at)
    if(_zp_at EQUAL 0)
      string(SUBSTRING "${_zp_log_dir}" ${_zp_len} -1 _zp_log_target_dir)
    endif()
  endif()
  list(APPEND CMAKE_BUILD_RPATH "${_zp_log_target_dir}")
  if(NOT _zp_log_target_dir STREQUAL _zp_log_dir)
    list(APPEND CMAKE_BUILD_RPATH "${_zp_log_dir}")
  endif()
  list(APPEND CMAKE_INSTALL_RPATH "${_zp_log_target_dir}")
endif()

# The tuned variants some vendor OpenCV builds carry with the standard signatures. Debian's
# OpenCV has neither; then the standard functions take their place.
include(CheckCXXSourceCompiles)
set(CMAKE_REQUIRED_INCLUDES ${OpenCV_INCLUDE_DIRS})
set(CMAKE_REQUIRED_LIBRARIES ${OpenCV_LIBS})
set(CMAKE_REQUIRED_QUIET ON)
check_cxx_source_compiles([[
#include <opencv2/imgproc.hpp>
int main() { cv::Mat a(8, 8, CV_8UC1), b; cv::parl::resize(a, b, cv::Size(4, 4), 0, 0, cv::INTER_NEAREST); }
]] ZOLTPANO_HAVE_PARL_RESIZE)
check_cxx_source_compiles([[
#include <opencv2/video/tracking.hpp>
#include <vector>
int main() {
  cv::Mat a(8, 8, CV_8UC1), b(8, 8, CV_8UC1);
  std::vector<cv::Point2f> p, q; std::vector<uchar> s; std::vector<float> e;
  cv::adsp::calcOpticalFlowPyrLK(a, b, p, q, s, e, cv::Size(21, 21), 3,
      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01), 0, 1e-4);
}
]] ZOLTPANO_HAVE_ADSP_OPTFLOW)
unset(CMAKE_REQUIRED_INCLUDES)
unset(CMAKE_REQUIRED_LIBRARIES)
set(ZOLTPANO_PLATFORM_DEFINITIONS "")
if(ZOLTPANO_HAVE_PARL_RESIZE)
  list(APPEND ZOLTPANO_PLATFORM_DEFINITIONS ZOLT_HAVE_PARL_RESIZE)
endif()
if(ZOLTPANO_HAVE_ADSP_OPTFLOW)
  list(APPEND ZOLTPANO_PLATFORM_DEFINITIONS ZOLT_HAVE_ADSP_OPTFLOW)
endif()
message(STATUS "zoltpano: tuned cv::parl::resize ${ZOLTPANO_HAVE_PARL_RESIZE}, "
               "cv::adsp::calcOpticalFlowPyrLK ${ZOLTPANO_HAVE_ADSP_OPTFLOW}")
