# The README's example is compiled as it stands.
file(READ ${CMAKE_SOURCE_DIR}/README.md readme)
string(REGEX MATCH "```cpp\n(.*)\n```\n\nLink" found "${readme}")
if(NOT found)
  message(FATAL_ERROR "README.md: the C++ example was not found")
endif()
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/readme_example.cpp CONTENT "${CMAKE_MATCH_1}\n")
add_executable(readme_example ${CMAKE_CURRENT_BINARY_DIR}/readme_example.cpp)
target_link_libraries(readme_example PRIVATE zr_rtsp zr_platform zr_options)
