# What `cmake --install` puts where. The components are those of the packages; "plain" is in none of them.
if(CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE STRING "Libraries, below the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(MEDIAUTIL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/mediautil)
set(MEDIAUTIL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/mediautil)
set(MEDIAUTIL_PCDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# ----------------------------------------------------------------------------------------------------------------------
# Libraries and program
# ----------------------------------------------------------------------------------------------------------------------

set_target_properties(mediautil PROPERTIES INSTALL_RPATH $ORIGIN)
file(RELATIVE_PATH to_libraries /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(mediautil_tool PROPERTIES INSTALL_RPATH $ORIGIN/${to_libraries})
set_target_properties(mediautil_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(mediautil_platform_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS mediautil mediautil_platform mediautil_platform_headers EXPORT mediautilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${MEDIAUTIL_INCLUDEDIR})
install(TARGETS mediautil_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# Below /usr the system finds the libraries by itself.
function(forget_runpath file component)
  install(CODE "if(\"\${CMAKE_INSTALL_PREFIX}\" STREQUAL \"/usr\")
    file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}/usr/${file}\")
  endif()" COMPONENT ${component})
endfunction()
forget_runpath(${CMAKE_INSTALL_LIBDIR}/libmediautil.so.${PROJECT_VERSION} runtime)
forget_runpath(${CMAKE_INSTALL_BINDIR}/mediautil tools)

# ----------------------------------------------------------------------------------------------------------------------
# What a consumer builds with
# ----------------------------------------------------------------------------------------------------------------------

install(DIRECTORY utils archiving platform DESTINATION ${MEDIAUTIL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE PATTERN local EXCLUDE)

install(EXPORT mediautilTargets NAMESPACE mediautil:: DESTINATION ${MEDIAUTIL_CMAKEDIR} COMPONENT development)
configure_package_config_file(cmake/mediautilConfig.cmake.in ${PROJECT_BINARY_DIR}/package/mediautilConfig.cmake
  INSTALL_DESTINATION ${MEDIAUTIL_CMAKEDIR} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/mediautilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/mediautilConfig.cmake
  ${PROJECT_BINARY_DIR}/package/mediautilConfigVersion.cmake
  DESTINATION ${MEDIAUTIL_CMAKEDIR} COMPONENT development)

string(REGEX REPLACE "[^/]+" ".." MEDIAUTIL_PC_TO_PREFIX ${MEDIAUTIL_PCDIR})
set(MEDIAUTIL_PC_LIBS -lmediautil)
if(MEDIAUTIL_PLATFORM STREQUAL "local")
  string(APPEND MEDIAUTIL_PC_LIBS " -lmediautil_platform")
endif()
configure_file(cmake/mediautil.pc.in ${PROJECT_BINARY_DIR}/package/mediautil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/mediautil.pc DESTINATION ${MEDIAUTIL_PCDIR} COMPONENT development)

# ----------------------------------------------------------------------------------------------------------------------
# What people read
# ----------------------------------------------------------------------------------------------------------------------

install(FILES ${MEDIAUTIL_MANUAL_DIR}/mediautil.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT plain)
install(FILES ${MEDIAUTIL_MANUAL_DIR}/mediautil.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT plain)
install(FILES ${MEDIAUTIL_MANUAL_DIR}/mediautil.bash RENAME mediautil
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development OPTIONAL)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  FILES_MATCHING REGEX "\\.(md|jpg|png|svg)$")
