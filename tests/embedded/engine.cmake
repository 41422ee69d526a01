find_package(OpenSSL REQUIRED)
zr_test(engine_test
  SOURCES engine_fixture.cpp engine_session_test.cpp engine_connection_test.cpp engine_failure_test.cpp
          engine_lifecycle_test.cpp engine_orders_test.cpp engine_trace_test.cpp engine_tunnel_test.cpp
  LIBRARIES OpenSSL::SSL zr_platform_engine zr_platform_rtsp zr_platform_aoi zr_platform_velk_mdp zr_platform_tw_system
            zr_platform_tw_util zr_platform_cc_rt zr_platform_common
  LABELS embedded)
