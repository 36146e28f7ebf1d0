# Builds for macOS x86-64 on Linux: a Clang with the Darwin C headers and libc++, from npm, and
# LLVM's linker. Frameworks are linked against the stubs in cross/sdk. Used by the preset "macos";
# on a Mac the system's own tools and SDK are used instead, never this file.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(MACOS_MIN 10.9 CACHE STRING "lowest macOS release that the executable runs on")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_MIN)

set(KORVEL_CROSS ${CMAKE_CURRENT_LIST_DIR})
set(CMAKE_C_COMPILER ${KORVEL_CROSS}/bin/zig-cc)
set(CMAKE_CXX_COMPILER ${KORVEL_CROSS}/bin/zig-c++)
set(CMAKE_OBJCXX_COMPILER ${KORVEL_CROSS}/bin/zig-c++)
set(CMAKE_AR ${KORVEL_CROSS}/bin/zig-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${KORVEL_CROSS}/bin/zig-ranlib CACHE FILEPATH "")
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool-19)

foreach(language C CXX OBJCXX)
  set(CMAKE_${language}_FLAGS_INIT
    "-target x86_64-macos.${MACOS_MIN} -isystem ${KORVEL_CROSS}/sdk/include -Wno-nullability-completeness -Werror=unguarded-availability")
  set(CMAKE_${language}_LINK_EXECUTABLE
    "${KORVEL_CROSS}/bin/macos-ld ${MACOS_MIN} <CMAKE_${language}_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-F${KORVEL_CROSS}/sdk/frameworks -L${KORVEL_CROSS}/sdk/lib")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
