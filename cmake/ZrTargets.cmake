# What all targets share: warnings, sanitizers, and the shape of a platform library's part.

add_library(zr_options INTERFACE)
target_compile_options(zr_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # C++17's noexcept in signatures; ACE's headers are older
  target_compile_options(zr_options INTERFACE -Wno-noexcept-type)
endif()

if(ZR_SANITIZE)
  add_compile_options(-fsanitize=${ZR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZR_SANITIZE})
endif()

# What hostile input finds in its way; the sanitizers' builds have their own means, and fortification needs optimization.
if(NOT ZR_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  include(CheckPIESupported)
  check_pie_supported()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    add_compile_options(-fcf-protection)
  endif()
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()

# zr_platform_part(name SOURCES a.cpp ... [LIBRARIES lib ...])
# One in-house library of the embedded platform as an object library zr_platform_<name>, so that a test can take all but
# one. Its headers are found by every other part.
set_property(GLOBAL PROPERTY ZR_PLATFORM_PARTS "")
function(zr_platform_part name)
  cmake_parse_arguments(PART "" "" "SOURCES;LIBRARIES" ${ARGN})
  set(target zr_platform_${name})
  add_library(${target} OBJECT ${PART_SOURCES})
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${target} PUBLIC zr_embedded_headers zr_platform_headers ${PART_LIBRARIES}
                                  PRIVATE zr_options)
  set_property(GLOBAL APPEND PROPERTY ZR_PLATFORM_PARTS ${target})
endfunction()

# zr_test(name SOURCES ... LIBRARIES ... [LABELS ...])
function(zr_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT TEST_LABELS)
    set(TEST_LABELS unit)
  endif()
  add_executable(${name} ${TEST_SOURCES})
  target_link_libraries(${name} PRIVATE ${TEST_LIBRARIES} zr_options GTest::gmock GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS "${TEST_LABELS}" TIMEOUT 120)
endfunction()
