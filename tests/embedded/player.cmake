zr_test(player_test
  SOURCES player_receive.cpp
  LIBRARIES zr_platform_player zr_platform_common zr_platform_tw_system
  LABELS embedded)
