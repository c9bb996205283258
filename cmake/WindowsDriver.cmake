# Windows build: kernel-mode driver images linked with mingw-w64.
#
# nf_add_windows_driver(<target>
#     SOURCES <file>...        C, C++ and assembly (.S) sources
#     DEF <file>               module-definition file naming every export
#     [INCLUDES <dir>...])     private include directories
#
# builds <target>.sys, a native-subsystem PE image that imports only from
# ntoskrnl.exe, HAL.dll and NDIS.SYS, and lib<target>.a, the import library
# client drivers link against. Both land in the top of the build tree, next
# to <target>.map (the link map, for reading crash addresses).

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR NOT MINGW)
    message(FATAL_ERROR "The Windows driver build needs mingw-w64 GCC; "
        "configure with -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-w64.cmake")
endif()

# The DDK headers that come with the mingw-w64 runtime. Included as system
# headers: they redefine a few of their own macros.
find_path(NF_DDK_INCLUDE_DIR ntddk.h PATH_SUFFIXES ddk REQUIRED)

# A driver has no C runtime: drop the user-mode libraries CMake links by default.
set(CMAKE_C_STANDARD_LIBRARIES "")
set(CMAKE_CXX_STANDARD_LIBRARIES "")

# The flags every driver image gets, shared with client drivers built against the kit.
include(${CMAKE_CURRENT_LIST_DIR}/WindowsDriverFlags.cmake)

# Link-time checks on the image layout, added to the default linker script.
set(NF_DRIVER_LINK_CHECKS ${CMAKE_BINARY_DIR}/nf-driver-checks.ld)
file(WRITE ${NF_DRIVER_LINK_CHECKS} ${NF_WINDOWS_DRIVER_LINK_CHECK_TEXT})

set(NF_DRIVER_COMPILE_OPTIONS ${NF_WINDOWS_DRIVER_COMPILE_FLAGS}
    $<$<COMPILE_LANGUAGE:CXX>:${NF_WINDOWS_DRIVER_CXX_FLAGS}>)
set(NF_DRIVER_LINK_OPTIONS ${NF_WINDOWS_DRIVER_LINK_FLAGS})

# nf_add_windows_driver(<target> SOURCES ... DEF <file> [INCLUDES ...])
#   Adds the shared-library target <target> producing <target>.sys and
#   lib<target>.a as described at the top of this file.
function(nf_add_windows_driver target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DEF" "SOURCES;INCLUDES")
    if(ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "nf_add_windows_driver(${target}): unexpected arguments: ${ARG_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT ARG_SOURCES)
        message(FATAL_ERROR "nf_add_windows_driver(${target}): SOURCES is required")
    endif()
    if(NOT ARG_DEF)
        message(FATAL_ERROR "nf_add_windows_driver(${target}): DEF is required (the image's export list)")
    endif()
    get_filename_component(def "${ARG_DEF}" ABSOLUTE)

    # The .def file among the sources goes onto the link line (and relinks
    # the image when it changes).
    add_library(${target} SHARED ${ARG_SOURCES} ${def})
    set_target_properties(${target} PROPERTIES
        PREFIX ""
        SUFFIX ".sys"
        IMPORT_PREFIX "lib"
        IMPORT_SUFFIX ".a"
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
        ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
        LINK_DEPENDS ${NF_DRIVER_LINK_CHECKS})
    target_include_directories(${target} PRIVATE ${ARG_INCLUDES})
    target_include_directories(${target} SYSTEM PRIVATE ${NF_DDK_INCLUDE_DIR})
    target_compile_options(${target} PRIVATE ${NF_DRIVER_COMPILE_OPTIONS})
    target_link_options(${target} PRIVATE ${NF_DRIVER_LINK_OPTIONS}
        -Wl,-Map,${CMAKE_BINARY_DIR}/${target}.map)
    # Kernel exports only; libgcc for compiler helpers such as ___chkstk_ms.
    target_link_libraries(${target} PRIVATE ${NF_DRIVER_LINK_CHECKS} ntoskrnl hal ndis gcc)
endfunction()
