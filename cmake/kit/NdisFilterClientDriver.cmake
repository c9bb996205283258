# ndisfilter_add_client_driver(<name>
#     SOURCES <file>...      the driver's C and C++ sources
#     [INCLUDES <dir>...]    private include directories
#     [DEF <file>])          module-definition file of the Windows image's own exports
#
# Host: the shared-library target <name>, the image <name>.so that the host
# kernel runtime loads by its DriverEntry (HkLoadDriverImage, the host
# program's --driver, the test kit's LoadDriver). Its path is
# $<TARGET_FILE:<name>>.
#
# Windows, when the mingw-w64 compiler and the kit's import library are there
# (NdisFilter_WINDOWS): <name>.sys in the current binary directory, built by
# the target <name>-windows (part of ALL): a native-subsystem image linked
# against libndisfilter.a, so that its import table names ndisfilter.sys and
# the framework's functions, and otherwise only ntoskrnl.exe, HAL.dll and
# NDIS.SYS. The target's property NDISFILTER_WINDOWS_IMAGE holds its path.
#
# Both are compiled as kernel code: the kernel-safe subset of C++ (no
# exceptions, no RTTI, no guarded statics), warnings are errors. Sources
# include <ntddk.h>, <ndis.h> and <ndisfilter.h> on both targets.

include(${CMAKE_CURRENT_LIST_DIR}/WindowsDriverFlags.cmake)

find_program(NdisFilter_MINGW_GCC x86_64-w64-mingw32-gcc)
find_program(NdisFilter_MINGW_GXX x86_64-w64-mingw32-g++)
find_path(NdisFilter_DDK_INCLUDE_DIR ntddk.h PATHS /usr/x86_64-w64-mingw32/include/ddk NO_DEFAULT_PATH)
if(NdisFilter_MINGW_GCC AND NdisFilter_MINGW_GXX AND NdisFilter_DDK_INCLUDE_DIR
   AND EXISTS "${NdisFilter_WINDOWS_IMPLIB}")
    set(NdisFilter_WINDOWS TRUE)
else()
    set(NdisFilter_WINDOWS FALSE)
endif()
set(_nf_kit_dir ${CMAKE_CURRENT_LIST_DIR})

function(ndisfilter_add_client_driver name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DEF" "SOURCES;INCLUDES")
    if(ARG_UNPARSED_ARGUMENTS OR NOT ARG_SOURCES)
        message(FATAL_ERROR "ndisfilter_add_client_driver(${name} SOURCES ... [INCLUDES ...] [DEF file])")
    endif()

    add_library(${name} SHARED ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES PREFIX "" CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON
                                             CXX_EXTENSIONS OFF C_STANDARD 11)
    target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
    target_link_libraries(${name} PRIVATE NdisFilter::ndisfilter NdisFilter::hostkernel)
    target_compile_options(${name} PRIVATE -Wall -Wextra -Werror
        $<$<COMPILE_LANGUAGE:CXX>:${NF_WINDOWS_DRIVER_CXX_FLAGS}>)

    if(NOT NdisFilter_WINDOWS)
        return()
    endif()

    set(out ${CMAKE_CURRENT_BINARY_DIR}/windows-${name})
    set(image ${CMAKE_CURRENT_BINARY_DIR}/${name}.sys)
    set(includes)
    foreach(dir ${ARG_INCLUDES})
        get_filename_component(dir "${dir}" ABSOLUTE)
        list(APPEND includes -I${dir})
    endforeach()
    # The DDK prelude first: the sources' own <ntddk.h> and <ndis.h> are then no-ops.
    list(APPEND includes -I${NdisFilter_INCLUDE_DIR} -isystem ${NdisFilter_DDK_INCLUDE_DIR}
         -include ${NdisFilter_INCLUDE_DIR}/windows/ndisfilter-ddk-mingw.h)

    set(objects)
    foreach(source ${ARG_SOURCES})
        get_filename_component(path "${source}" ABSOLUTE)
        get_filename_component(stem "${source}" NAME)
        get_filename_component(ext "${source}" LAST_EXT)
        if(ext STREQUAL ".c")
            set(compiler ${NdisFilter_MINGW_GCC})
            set(language -std=c11)
        else()
            set(compiler ${NdisFilter_MINGW_GXX})
            set(language -std=c++17 ${NF_WINDOWS_DRIVER_CXX_FLAGS})
        endif()
        set(object ${out}/${stem}.obj)
        add_custom_command(OUTPUT ${object}
            COMMAND ${compiler} ${language} -O2 ${NF_WINDOWS_DRIVER_COMPILE_FLAGS} ${includes}
                    -MD -MF ${object}.d -c ${path} -o ${object}
            DEPENDS ${path}
            DEPFILE ${object}.d
            COMMENT "Compiling ${stem} for Windows"
            VERBATIM)
        list(APPEND objects ${object})
    endforeach()

    set(checks ${out}/driver-checks.ld)
    file(WRITE ${checks} ${NF_WINDOWS_DRIVER_LINK_CHECK_TEXT})
    set(def)
    if(ARG_DEF)
        get_filename_component(def "${ARG_DEF}" ABSOLUTE)
    endif()
    add_custom_command(OUTPUT ${image}
        COMMAND ${NdisFilter_MINGW_GXX} -shared -o ${image} ${objects} ${def} ${NF_WINDOWS_DRIVER_LINK_FLAGS}
                -Wl,-Map,${out}/${name}.map ${checks} ${NdisFilter_WINDOWS_IMPLIB} -lntoskrnl -lhal -lndis -lgcc
        DEPENDS ${objects} ${def} ${checks} ${NdisFilter_WINDOWS_IMPLIB}
        COMMENT "Linking ${name}.sys"
        VERBATIM)
    add_custom_target(${name}-windows ALL DEPENDS ${image})
    set_target_properties(${name} PROPERTIES NDISFILTER_WINDOWS_IMAGE ${image})
endfunction()
