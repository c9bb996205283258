# Host (Linux) build: the driver source runs against the host kernel runtime.

# WCHAR is 16-bit on Windows; the whole host build (GoogleTest included) agrees.
add_compile_options(-fshort-wchar)

option(NF_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(NF_FUZZ "Build the libFuzzer harnesses of fuzz/ and only what they load (clang)" OFF)
if(NF_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_C_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "NF_FUZZ needs clang: -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
    endif()
    # Coverage for libFuzzer in every library and driver image; the harnesses
    # themselves link libFuzzer's main (fuzz/CMakeLists.txt).
    add_compile_options(-fsanitize=fuzzer-no-link)
    set(NF_SANITIZE ON)
endif()
if(NF_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

# Warnings are errors in everything this project writes.
function(nf_strict_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# Driver code is the kernel-safe subset of C++: no exceptions, no RTTI, no
# guarded statics; it sees only the kernel interfaces of the host runtime.
function(nf_driver_target target)
    nf_strict_warnings(${target})
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
endfunction()

# GoogleTest from the Debian sources, built with the flags above.
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
