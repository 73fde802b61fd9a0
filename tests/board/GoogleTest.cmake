# GoogleTest for another architecture: built from its sources, which distributions package, since a library built for
# the board is hardly ever available.
set(BOARDKIT_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources, for cross-building the tests")

set(BUILD_GMOCK OFF)
set(INSTALL_GTEST OFF)
# Linked in, so that a test program needs nothing on the board.
set(BUILD_SHARED_LIBS OFF)
# Its warnings are its own.
set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)
add_subdirectory(${BOARDKIT_GTEST_SOURCE} ${CMAKE_CURRENT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
unset(CMAKE_COMPILE_WARNING_AS_ERROR)
unset(BUILD_SHARED_LIBS)
