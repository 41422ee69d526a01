zr_test(codec_util SOURCES codec_digest.cpp codec_system.cpp codec_timers.cpp
        LIBRARIES zr_platform_tw_util zr_platform_kernel zr_platform_common zr_platform_tw_system LABELS embedded)
