zr_platform_part(rtsp SOURCES rtsp_message.cpp rtsp_text.cpp play_position.cpp mapping_request.cpp mapping_url.cpp
                              mapping_answer.cpp mapping_transport.cpp mapping_challenge.cpp mapping_description.cpp
                              mapping_notice.cpp mapping_multicast.cpp challenge.cpp)
