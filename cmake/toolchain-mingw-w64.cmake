# Cross toolchain for the Windows x64 build of the driver image (mingw-w64).
#
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-w64.cmake
#
# Debian packages: g++-mingw-w64-x86-64, mingw-w64-x86-64-dev,
# binutils-mingw-w64-x86-64 (scripts/install-deps installs them).

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(NF_MINGW_TRIPLET x86_64-w64-mingw32 CACHE STRING "Target triplet of the mingw-w64 toolchain")

find_program(NF_MINGW_GCC ${NF_MINGW_TRIPLET}-gcc REQUIRED)
find_program(NF_MINGW_GXX ${NF_MINGW_TRIPLET}-g++ REQUIRED)

set(CMAKE_C_COMPILER ${NF_MINGW_GCC})
set(CMAKE_CXX_COMPILER ${NF_MINGW_GXX})
# Assembly sources (.S) go through the C compiler's preprocessor.
set(CMAKE_ASM_COMPILER ${NF_MINGW_GCC})
set(CMAKE_RC_COMPILER ${NF_MINGW_TRIPLET}-windres)

# Look for headers and libraries in the target's root only, for programs on
# the build machine only.
set(CMAKE_FIND_ROOT_PATH /usr/${NF_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
