# Interface target with the warnings of all our code.
add_library(mediautil_warnings INTERFACE)
target_compile_options(mediautil_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wcast-align -Wformat=2 -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wundef $<$<BOOL:${MEDIAUTIL_WERROR}>:-Werror>)
