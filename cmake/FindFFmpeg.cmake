# FFmpeg::FFmpeg: the libraries named as COMPONENTS, found through pkg-config; FFmpeg 5.1 to 7.1.
find_package(PkgConfig REQUIRED)
set(_ffmpeg_modules)
foreach(component IN LISTS FFmpeg_FIND_COMPONENTS)
  list(APPEND _ffmpeg_modules lib${component})
endforeach()
pkg_check_modules(FFmpeg QUIET IMPORTED_TARGET ${_ffmpeg_modules})

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(FFmpeg
  REQUIRED_VARS FFmpeg_LINK_LIBRARIES
  REASON_FAILURE_MESSAGE "scripts/setup.sh installs the development packages")
if(FFmpeg_FOUND AND NOT TARGET FFmpeg::FFmpeg)
  add_library(FFmpeg::FFmpeg INTERFACE IMPORTED)
  target_link_libraries(FFmpeg::FFmpeg INTERFACE PkgConfig::FFmpeg)
endif()
