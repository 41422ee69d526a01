# The packages: libzr-rtsp<SOVERSION>, libzr-rtsp-dev and zr-rtsp-tools, by `cmake --workflow --preset package`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "zr_rtsp")
set(CPACK_PACKAGE_CONTACT "zr_rtsp maintainers <maintainers@zr-rtsp.invalid>")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development programs)
if(NOT TARGET zr_rtsp_host)
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL programs)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_PROGRAMS_DEPENDS runtime)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE zr-rtsp)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzr-rtsp${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
file(WRITE ${CMAKE_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ca-certificates) # rtsps servers are verified by them
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "RTSP media control for video surveillance clients
The plug-in that drives RTSP sessions towards cameras and recorders, and the
embedded platform below it: live view, playback, seeking and downloads. The
GStreamer plug-ins are for recordings and pictures alone.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzr-rtsp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "RTSP media control for video surveillance clients - development files
Headers, link libraries, CMake and pkg-config files of the plug-in and its
embedded platform, with guides and examples.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME zr-rtsp-tools)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION video)
set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION "RTSP sessions from the command line, and a demo device
zr_rtsp_host describes, checks, plays, downloads and watches the streams of
cameras and recorders; zr_rtsp_device is something to play from.")

if(ZR_WITH_GSTREAMER)
  string(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS
      ", gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
  set(CPACK_DEBIAN_PROGRAMS_PACKAGE_RECOMMENDS
      "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-x, glib-networking")
endif()

# documents, compressed pages: after the components were staged
configure_file(${CMAKE_SOURCE_DIR}/packaging/stage.cmake.in ${CMAKE_BINARY_DIR}/stage.cmake @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_BINARY_DIR}/stage.cmake)
include(CPack)
