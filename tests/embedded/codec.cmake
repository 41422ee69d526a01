zr_test(codec_message SOURCES codec_message.cpp
        LIBRARIES zr_platform_aoi zr_platform_velk_mdp zr_platform_common zr_platform_tw_system LABELS embedded)
zr_test(codec_common SOURCES codec_common.cpp
        LIBRARIES zr_platform_common zr_platform_tw_system LABELS embedded)
zr_test(codec_util SOURCES codec_util.cpp
        LIBRARIES zr_platform_tw_util zr_platform_kernel zr_platform_common zr_platform_tw_system LABELS embedded)
