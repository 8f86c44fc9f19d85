# The platform layer under the library: "local", our stand-in, or the path of a library that offers the same interface.
set(MEDIAUTIL_PLATFORM "local" CACHE STRING "Platform layer: local, or the path of a platform library")

find_package(JPEG REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(jsoncpp REQUIRED IMPORTED_TARGET GLOBAL jsoncpp)
add_library(mediautil_platform_headers INTERFACE)
target_compile_features(mediautil_platform_headers INTERFACE cxx_std_17)
target_include_directories(mediautil_platform_headers INTERFACE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
target_link_libraries(mediautil_platform_headers INTERFACE
  $<BUILD_INTERFACE:JPEG::JPEG> $<BUILD_INTERFACE:PkgConfig::jsoncpp> $<BUILD_INTERFACE:Threads::Threads>)

if(MEDIAUTIL_PLATFORM STREQUAL "local")
  add_subdirectory(platform/local)
else()
  if(MEDIAUTIL_TESTS OR MEDIAUTIL_FUZZ)
    message(FATAL_ERROR "The tests need the stand-in platform: set MEDIAUTIL_TESTS and MEDIAUTIL_FUZZ to OFF")
  endif()
  # Not ours to install: the consumer brings it as well.
  add_library(mediautil_given_platform UNKNOWN IMPORTED)
  set_target_properties(mediautil_given_platform PROPERTIES IMPORTED_LOCATION ${MEDIAUTIL_PLATFORM})
  add_library(mediautil_platform INTERFACE)
  target_link_libraries(mediautil_platform INTERFACE
    mediautil_platform_headers $<BUILD_INTERFACE:mediautil_given_platform>)
endif()
