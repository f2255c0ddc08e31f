# The Linux build: the driver as a library, the runtime it runs on, and the programs for people. Each library is a
# folder and links only what that folder may include.
find_package(Threads REQUIRED)
find_package(PNG REQUIRED)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)

add_compile_options(${UVC_WARNINGS})
include_directories(${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)

# The platform headers for x86-64 Linux, with layouts identical to Windows.
add_library(platform_headers INTERFACE)
target_compile_definitions(platform_headers INTERFACE ${UVC_WINDOWS_VERSION})
target_compile_options(platform_headers INTERFACE
  -fms-extensions -mms-bitfields -fshort-wchar
  "SHELL:-isystem ${PROJECT_SOURCE_DIR}/platform/linux"
  "SHELL:-idirafter ${UVC_MINGW_INCLUDE}/ddk" "SHELL:-idirafter ${UVC_MINGW_INCLUDE}")

# uvc_library(NAME FOLDERS folder... LINK library...)
function(uvc_library name)
  cmake_parse_arguments(arg "" "" "FOLDERS;LINK" ${ARGN})
  list(TRANSFORM arg_FOLDERS APPEND /*.cpp OUTPUT_VARIABLE patterns)
  file(GLOB sources CONFIGURE_DEPENDS ${patterns})
  if(NOT sources)
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC ${arg_LINK})
endfunction()

# The driver. It has no code of its own before DriverEntry and uses neither exceptions nor run-time types.
uvc_library(platform FOLDERS platform LINK platform_headers)
uvc_library(imaging FOLDERS imaging)
uvc_library(uvc_drv FOLDERS driver usb camera LINK imaging platform)
foreach(library IN ITEMS platform imaging uvc_drv)
  if(TARGET ${library})
    target_compile_options(${library} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics
      -Werror=global-constructors -Werror=exit-time-destructors)
  endif()
endforeach()

# The runtime.
uvc_library(host_executive FOLDERS host/executive LINK platform Threads::Threads nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})
uvc_library(host_streaming FOLDERS host/streaming LINK host_executive)
uvc_library(host_cameras FOLDERS host/cameras LINK PNG::PNG)
uvc_library(host_usb FOLDERS host/usb LINK host_executive)
uvc_library(host_client FOLDERS host/client LINK host_streaming host_usb host_cameras host_executive)

# uvc_program(NAME FOLDERS folder... LINK library...)
function(uvc_program name)
  cmake_parse_arguments(arg "" "" "FOLDERS;LINK" ${ARGN})
  list(TRANSFORM arg_FOLDERS APPEND /*.cpp OUTPUT_VARIABLE patterns)
  file(GLOB sources CONFIGURE_DEPENDS ${patterns})
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE ${arg_LINK})
  # So that the runtime can name the places it reports.
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
endfunction()

uvc_program(uvcam FOLDERS apps/uvcam LINK uvc_drv host_client CLI11::CLI11 nlohmann_json::nlohmann_json PNG::PNG)
uvc_program(uvc_bench FOLDERS bench LINK uvc_drv host_client benchmark::benchmark PNG::PNG)
include(cmake/bench_peers.cmake)

enable_testing()
include(GoogleTest)
function(uvc_tests name)
  uvc_program(${name} ${ARGN})
  if(TARGET ${name})
    target_link_libraries(${name} PRIVATE GTest::gtest GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE UVC_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
  endif()
endfunction()

uvc_tests(platform_tests FOLDERS tests/platform LINK platform)
uvc_tests(imaging_tests FOLDERS tests/imaging LINK imaging)
uvc_tests(executive_tests FOLDERS tests/host/executive LINK host_executive)
uvc_tests(streaming_tests FOLDERS tests/host/streaming LINK host_client)
uvc_tests(cameras_tests FOLDERS tests/host/cameras LINK host_cameras)
uvc_tests(bus_tests FOLDERS tests/host/usb LINK host_usb)
uvc_tests(driver_tests FOLDERS tests/usb tests/camera tests/driver LINK uvc_drv host_client)
if(TARGET driver_tests)
  target_compile_options(driver_tests PRIVATE -fno-rtti) # its classes derive from the driver's, which have no run-time types
endif()
uvc_tests(uvcam_tests FOLDERS tests/apps LINK nlohmann_json::nlohmann_json PNG::PNG)
if(TARGET uvcam_tests)
  add_dependencies(uvcam_tests uvcam)
  target_compile_definitions(uvcam_tests PRIVATE UVC_UVCAM="$<TARGET_FILE:uvcam>")
endif()

# What application writers are given compiles for Windows, as C and as C++.
find_program(UVC_MINGW_GCC x86_64-w64-mingw32-gcc REQUIRED)
foreach(dialect IN ITEMS "c;-std=c99" "c++;-std=c++17")
  list(GET dialect 0 language)
  list(GET dialect 1 standard)
  add_test(NAME application_example_${language} COMMAND ${UVC_MINGW_GCC} -x ${language} ${standard} -Wall -Wextra -Werror
    -I ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/docs/example.c -o application_example_${language}.exe -lsetupapi)
endforeach()
