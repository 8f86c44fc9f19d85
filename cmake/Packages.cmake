# Debian packages of the installed files: `cpack --config <build>/CPackConfig.cmake` writes them to <build>/packages.
find_program(DPKG_ARCHITECTURE dpkg-architecture)
find_program(GZIP gzip)
if(NOT DPKG_ARCHITECTURE OR NOT GZIP OR NOT CMAKE_LIBRARY_ARCHITECTURE OR NOT MEDIAUTIL_PLATFORM STREQUAL "local")
  return()
endif()
set(version ${PROJECT_VERSION}-1)
set(package_runtime libmediautil${PROJECT_VERSION_MAJOR})
set(package_development libmediautil-dev)
set(package_tools mediautil-tools)

# ----------------------------------------------------------------------------------------------------------------------
# What only the packages hold: manuals compressed, changelog and copyright in each
# ----------------------------------------------------------------------------------------------------------------------

configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/package/changelog.Debian @ONLY)
set(compressed)
function(compress file)
  get_filename_component(name ${file} NAME)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/package/${name}.gz
    COMMAND ${GZIP} -9nc ${file} > ${PROJECT_BINARY_DIR}/package/${name}.gz DEPENDS ${file} VERBATIM)
  set(compressed ${compressed} ${PROJECT_BINARY_DIR}/package/${name}.gz PARENT_SCOPE)
endfunction()
compress(${PROJECT_BINARY_DIR}/package/changelog.Debian)
compress(${MEDIAUTIL_MANUAL_DIR}/mediautil.1)
compress(${MEDIAUTIL_MANUAL_DIR}/mediautil.3)
add_custom_target(package_documents ALL DEPENDS ${compressed})
add_dependencies(package_documents manual)

install(FILES ${PROJECT_BINARY_DIR}/package/mediautil.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_BINARY_DIR}/package/mediautil.3.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development EXCLUDE_FROM_ALL)
foreach(component IN ITEMS runtime development tools)
  install(FILES packaging/debian/copyright ${PROJECT_BINARY_DIR}/package/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package_${component}} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# ----------------------------------------------------------------------------------------------------------------------
# The packages
# ----------------------------------------------------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mediautil)
set(CPACK_PACKAGE_CONTACT "Media utility library maintainers <mediautil@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_COMPONENTS_ALL runtime development tools)

execute_process(COMMAND ${DPKG_ARCHITECTURE} -f -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${package_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "media utilities of a network video recorder - library
Pictures from coded video, sound for cameras, containers read and written, and
recordings sent to another recorder.
.
This package holds the shared libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${package_runtime} (= ${version}), libavcodec-dev, libavformat-dev, \
libavutil-dev, libjpeg-dev, libjsoncpp-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "media utilities of a network video recorder - development files
Headers, CMake and pkg-config files and documents for programs that use the
library of ${package_runtime}.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${package_tools})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${package_runtime} (= ${version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "media utilities of a network video recorder - program
The program mediautil takes pictures from recordings, exports them, prepares
sound for cameras and sends recordings to another recorder.")

include(CPack)
