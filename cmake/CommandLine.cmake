# The parser of command lines is all templates: with sanitizers, optimised code that includes it takes half a minute a
# file to build. None of that code is worth it.
find_package(CLI11 REQUIRED)
add_library(mediautil_commandline INTERFACE)
target_link_libraries(mediautil_commandline INTERFACE CLI11::CLI11)
if(MEDIAUTIL_SANITIZED)
  target_compile_options(mediautil_commandline INTERFACE -O0)
else()
  target_compile_options(mediautil_commandline INTERFACE $<$<CONFIG:Release>:-O1>)
endif()
