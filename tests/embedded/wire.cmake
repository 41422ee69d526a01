zr_test(embedded_wire SOURCES wire_parser.cpp wire_requests.cpp wire_answers.cpp LIBRARIES zr_platform_rtsp
        zr_platform_common zr_platform_tw_system
        LABELS embedded)
