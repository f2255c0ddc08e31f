# The Windows build: uvc_drv.sys with its PDB in <build>/package, linked against import libraries that hold only
# what platform/windows/*.def allow, and checked after every link.
foreach(tool IN ITEMS lld-link llvm-dlltool llvm-rc)
  string(TOUPPER UVC_${tool} variable)
  string(REPLACE "-" "_" variable ${variable})
  find_program(${variable} ${tool} REQUIRED)
endforeach()
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# The freestanding headers of the C++ library and the compiler, then the platform's; no other is seen.
set(UVC_LIBSTDCXX /usr/lib/gcc/x86_64-w64-mingw32/12-win32/include/c++
  CACHE PATH "The C++ headers of the mingw-w64 compiler")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-resource-dir
  OUTPUT_VARIABLE clang_resources OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(system_includes "")
foreach(folder IN ITEMS ${UVC_LIBSTDCXX} ${UVC_LIBSTDCXX}/x86_64-w64-mingw32 ${clang_resources}/include
    ${UVC_MINGW_INCLUDE}/ddk ${UVC_MINGW_INCLUDE})
  if(NOT IS_DIRECTORY ${folder})
    message(FATAL_ERROR "${folder} is missing; packages.txt lists what the build needs")
  endif()
  list(APPEND system_includes "SHELL:-isystem ${folder}")
endforeach()

list(APPEND CMAKE_CXX_COMPILE_OBJECT "\"${Python3_EXECUTABLE}\" \"${PROJECT_SOURCE_DIR}/cmake/tie_unwind_tables.py\" <OBJECT>")

file(GLOB windows_sources CONFIGURE_DEPENDS platform/windows/*.cpp)
add_library(uvc_drv_objects OBJECT ${UVC_DRIVER_SOURCES} ${windows_sources})
target_include_directories(uvc_drv_objects PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(uvc_drv_objects PRIVATE ${UVC_WINDOWS_VERSION} _AMD64_ _WIN64)
target_compile_options(uvc_drv_objects PRIVATE ${UVC_WARNINGS}
  -fms-extensions -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
  # Freestanding code has no unwind tables by default, and a structured exception that crosses a frame without one
  # corrupts its callers' registers.
  -fasynchronous-unwind-tables
  # An interrupt may use the stack below the stack pointer.
  -mno-red-zone
  -nostdinc -nostdinc++ ${system_includes}
  # Kernel stacks are 24 KB, and there is no one to run code before DriverEntry.
  -Wframe-larger-than=1024 -Werror=frame-larger-than -Werror=global-constructors -Werror=exit-time-destructors
  # Sources are named relative to the project in messages and PDB.
  -gcodeview -fno-ident -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# One import library for each system module.
set(import_libraries "")
foreach(module IN ITEMS ntoskrnl hal ks usbd)
  set(allow_list ${PROJECT_SOURCE_DIR}/platform/windows/${module}.def)
  set(import_library ${PROJECT_BINARY_DIR}/${module}.lib)
  add_custom_command(OUTPUT ${import_library}
    COMMAND ${UVC_LLVM_DLLTOOL} -m i386:x86-64 -d ${allow_list} -l ${import_library}
    DEPENDS ${allow_list} VERBATIM)
  list(APPEND import_libraries ${import_library})
endforeach()

# The input is named relative to its folder: llvm-rc takes an absolute path that begins like one of its options, as
# /check/... begins with /c, for that option.
set(version_resource ${PROJECT_BINARY_DIR}/version.res)
add_custom_command(OUTPUT ${version_resource}
  COMMAND ${UVC_LLVM_RC} /no-preprocess /fo ${version_resource} version.rc
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/platform/windows
  DEPENDS ${PROJECT_SOURCE_DIR}/platform/windows/version.rc VERBATIM)

# Linked under another name: uvc_drv.sys appears only when it has passed every check.
set(package ${PROJECT_BINARY_DIR}/package)
set(unchecked ${PROJECT_BINARY_DIR}/unchecked)
set(check_scripts ${PROJECT_SOURCE_DIR}/package/pe_image.py ${PROJECT_SOURCE_DIR}/package/check_driver.py
  ${PROJECT_SOURCE_DIR}/package/set_checksum.py)
file(MAKE_DIRECTORY ${package} ${unchecked})
add_custom_command(OUTPUT ${package}/uvc_drv.sys ${package}/uvc_drv.pdb
  COMMAND ${UVC_LLD_LINK} /nologo /machine:x64 /driver /driver:wdm /subsystem:native,6.01 /version:6.1
    /entry:DriverEntry /nodefaultlib /incremental:no /tsaware:no /nxcompat /dynamicbase /opt:ref /opt:noicf /WX /Brepro
    /debug /pdb:uvc_drv.pdb /pdbaltpath:uvc_drv.pdb /pdbsourcepath:. /out:uvc_drv.sys
    $<TARGET_OBJECTS:uvc_drv_objects> ${version_resource} ${import_libraries}
  COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/package/set_checksum.py uvc_drv.sys
  COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/package/check_driver.py uvc_drv.sys
  COMMAND ${CMAKE_COMMAND} -E copy uvc_drv.sys uvc_drv.pdb ${package}
  DEPENDS uvc_drv_objects $<TARGET_OBJECTS:uvc_drv_objects> ${version_resource} ${import_libraries} ${check_scripts}
    ${PROJECT_SOURCE_DIR}/camera/banner.h
  WORKING_DIRECTORY ${unchecked} COMMENT "Linking and checking uvc_drv.sys" COMMAND_EXPAND_LISTS VERBATIM)

add_custom_target(uvc_drv ALL DEPENDS ${package}/uvc_drv.sys)
