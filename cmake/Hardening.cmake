# Makes flaws harder to exploit: checked copies, guarded stacks, tables that are read-only at run time, code at random
# addresses. The sanitizers check more than the fortified functions do, and do not see through them.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

set(MEDIAUTIL_SANITIZED OFF)
if(MEDIAUTIL_FUZZ OR CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(MEDIAUTIL_SANITIZED ON)
endif()

add_compile_options(-fstack-protector-strong)
if(NOT MEDIAUTIL_SANITIZED)
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
