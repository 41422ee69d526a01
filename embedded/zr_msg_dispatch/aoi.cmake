zr_platform_part(aoi SOURCES aoi_element.cpp aoi_message.cpp aoi_range.cpp ie_tool.cpp
                 LIBRARIES zr_platform_velk_mdp zr_platform_tw_system)
target_compile_definitions(zr_platform_aoi PRIVATE ZR_VERSION="${PROJECT_VERSION}")
