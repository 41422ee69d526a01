# What is installed: headers, libraries with their SONAMEs, the programs, CMake and pkg-config files; each of the
# components "runtime", "development" and "programs" becomes a .deb (ZrPackages.cmake).
include(CMakePackageConfigHelpers)

set(ZR_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/zr_rtsp/platform)

install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/zr_rtsp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/ DESTINATION ${ZR_PLATFORM_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h")

set(targets zr_rtsp)
if(TARGET zr_platform)
  list(APPEND targets zr_platform)
  install(FILES ${CMAKE_SOURCE_DIR}/embedded/include/zr_platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zr_rtsp
          COMPONENT development)
endif()
if(ZR_PLATFORM_LIBRARY AND TARGET ${ZR_PLATFORM_LIBRARY})
  get_target_property(imported ${ZR_PLATFORM_LIBRARY} IMPORTED)
  if(NOT imported)
    list(APPEND targets ${ZR_PLATFORM_LIBRARY}) # built here, so it goes with the plug-in
  endif()
endif()
if(TARGET zr_platform_media)
  install(TARGETS zr_platform_media LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
endif()
install(TARGETS ${targets} EXPORT zr_rtspTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${ZR_PLATFORM_INCLUDEDIR} ${CMAKE_INSTALL_INCLUDEDIR}/zr_rtsp)

# where zsh looks under /usr, and under /usr/local
set(zsh_folder ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_folder ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
endif()
foreach(program zr_rtsp_host zr_rtsp_device)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
    set(made ${CMAKE_SOURCE_DIR}/packaging/programs)
    install(FILES ${made}/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT programs)
    install(FILES ${made}/${program}.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            COMPONENT programs RENAME ${program})
    install(FILES ${made}/${program}.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
            COMPONENT programs)
    install(FILES ${made}/_${program} DESTINATION ${zsh_folder} COMPONENT programs)
  endif()
endforeach()

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zr_rtsp)
install(EXPORT zr_rtspTargets NAMESPACE zr_rtsp:: DESTINATION ${config_dir} COMPONENT development)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/zr_rtspConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/zr_rtspConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/zr_rtspConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/zr_rtspConfig.cmake ${CMAKE_BINARY_DIR}/zr_rtspConfigVersion.cmake
        DESTINATION ${config_dir} COMPONENT development)

# relative to the file, so that an installation may be moved or staged
file(RELATIVE_PATH ZR_PREFIX_FROM_PC ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
list(TRANSFORM targets PREPEND "-l" OUTPUT_VARIABLE libraries)
list(JOIN libraries " " ZR_PC_LIBRARIES)
configure_file(${CMAKE_SOURCE_DIR}/packaging/zr_rtsp.pc.in ${CMAKE_BINARY_DIR}/zr_rtsp.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zr_rtsp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs ${CMAKE_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT development PATTERN own_platform/CMakeLists.txt EXCLUDE PATTERN Doxyfile EXCLUDE)
# packages have them in forms and places of their own (packaging/stage.cmake.in)
install(FILES ${CMAKE_SOURCE_DIR}/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT legal)
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT legal RENAME copyright)

include(ZrPackages)
