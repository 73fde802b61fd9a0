# 64-bit ARM. Debian's package g++-aarch64-linux-gnu; qemu-user runs the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(toolchain_target aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER ${toolchain_target}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${toolchain_target})

# Libraries and headers are the target's, programs the host's. Packages may lie in a staging folder too, which the user
# names with CMAKE_PREFIX_PATH.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/${toolchain_target})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
