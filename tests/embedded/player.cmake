find_package(nlohmann_json REQUIRED)
zr_test(player_test
  SOURCES player_metadata.cpp player_receive.cpp
  LIBRARIES zr_platform_player zr_platform_common zr_platform_tw_system nlohmann_json::nlohmann_json
  LABELS embedded)

if(ZR_WITH_GSTREAMER)
  pkg_check_modules(GSTREAMER_TEST REQUIRED IMPORTED_TARGET gstreamer-app-1.0)
  zr_test(player_media_test
    SOURCES player_media.cpp player_recording.cpp ${CMAKE_SOURCE_DIR}/embedded/zr_player/gst/recorder.cpp
            ${CMAKE_SOURCE_DIR}/embedded/zr_player/gst/sender_clocks.cpp ${CMAKE_SOURCE_DIR}/embedded/zr_player/gst/writer.cpp
    LIBRARIES zr_platform_player zr_platform_common zr_platform_tw_system PkgConfig::GSTREAMER_TEST
    LABELS embedded)
  target_include_directories(player_media_test PRIVATE ${CMAKE_SOURCE_DIR}/embedded/zr_player/gst)
  target_link_options(player_media_test PRIVATE -Wl,--wrap=open)
  add_dependencies(player_media_test zr_platform_media)
endif()
