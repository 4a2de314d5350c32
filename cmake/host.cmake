# The host world: the same sources as a library, the firmware simulator,
# and the programs and tests built on them.
file(GLOB MORVANE_HOST_PLATFORM_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/platform/host/*.cpp)

set(MORVANE_HOST_WARNINGS -Wall -Wextra)
if(MORVANE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

add_library(morvane_host STATIC ${MORVANE_SYSTEM_SOURCES} ${MORVANE_CLIB_SOURCES} ${MORVANE_HOST_PLATFORM_SOURCES})
target_include_directories(morvane_host PUBLIC ${CMAKE_SOURCE_DIR} ${EFI_INCLUDES})
target_compile_definitions(morvane_host PUBLIC ${MORVANE_DEFINES})
target_compile_options(morvane_host PRIVATE ${MORVANE_HOST_WARNINGS})

find_package(GTest REQUIRED)
include(GoogleTest)

file(GLOB MORVANE_UNIT_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/unit/*.cpp)
add_executable(morvane_unit_tests ${MORVANE_UNIT_TEST_SOURCES})
target_link_libraries(morvane_unit_tests PRIVATE morvane_host GTest::gtest GTest::gtest_main)
target_compile_options(morvane_unit_tests PRIVATE ${MORVANE_HOST_WARNINGS})
gtest_discover_tests(morvane_unit_tests DISCOVERY_TIMEOUT 60)

if(EXISTS ${CMAKE_SOURCE_DIR}/tools/CMakeLists.txt)
  add_subdirectory(tools)
endif()

# The power-cut harness: every writing driver's scenarios cut after each
# number of sector writes. The short run samples 12 cut points per scenario
# (6 under the sanitizers) on the rows that tolerate no torn block;
# `make powercut` runs the full one.
file(GLOB MORVANE_POWERCUT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/powercut/*.cpp)
add_executable(powercut ${MORVANE_POWERCUT_SOURCES})
# The journaled HFS+ rows leave their pending transaction with this tool.
add_dependencies(powercut hfs_journal_writer)
target_link_libraries(powercut PRIVATE morvane_host)
target_compile_options(powercut PRIVATE ${MORVANE_HOST_WARNINGS})
# Under the sanitizers the driver's run and walk at each cut are several
# times slower: half the cut points keep the short run within its time.
if(MORVANE_SANITIZE)
    set(MORVANE_POWERCUT_SHORT_SAMPLE 6)
else()
    set(MORVANE_POWERCUT_SHORT_SAMPLE 12)
endif()
add_test(NAME PowerCutShort COMMAND powercut --sample ${MORVANE_POWERCUT_SHORT_SAMPLE} --strict)
set_tests_properties(PowerCutShort PROPERTIES TIMEOUT 900)
