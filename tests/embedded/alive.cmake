find_package(OpenSSL REQUIRED)
zr_test(alive_test
  SOURCES engine_fixture.cpp tls_identity.cpp alive_connection_test.cpp alive_session_test.cpp
  LIBRARIES zr_platform_engine zr_platform_rtsp zr_platform_aoi zr_platform_velk_mdp zr_platform_tw_system
            zr_platform_cc_rt zr_platform_common OpenSSL::SSL
  LABELS embedded)
