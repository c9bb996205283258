# Host build: also cross-build the Windows driver image from this source tree
# and test it (CTest group windows_image.*).
#
# The Windows build is a separate CMake build (toolchain-mingw-w64.cmake) in
# ${CMAKE_BINARY_DIR}/windows, run as an external project on every build.

find_program(NF_MINGW_CXX x86_64-w64-mingw32-g++)
if(NF_MINGW_CXX)
    set(nf_windows_image_default ON)
else()
    set(nf_windows_image_default OFF)
endif()
option(NF_WINDOWS_IMAGE "Cross-build and test the Windows driver image (needs mingw-w64)"
    ${nf_windows_image_default})
set(NF_WINDOWS_IMAGE_BUILD_TYPE Release CACHE STRING "Build type of the Windows driver image")

find_package(Python3 COMPONENTS Interpreter)
set(nf_image_checker ${PROJECT_SOURCE_DIR}/tests/windows/check_image.py)
set(nf_python_env PYTHONDONTWRITEBYTECODE=1)

# The checker's own tests need no image.
if(Python3_Interpreter_FOUND)
    add_test(NAME windows_image.checker
        COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/windows/test_check_image.py)
    set_tests_properties(windows_image.checker PROPERTIES ENVIRONMENT ${nf_python_env})
endif()

if(NOT NF_WINDOWS_IMAGE)
    message(STATUS "Windows driver image: not built (NF_WINDOWS_IMAGE=OFF)")
    return()
endif()
if(NOT Python3_Interpreter_FOUND)
    message(FATAL_ERROR "NF_WINDOWS_IMAGE needs python3 for the image tests")
endif()
find_program(NF_MINGW_OBJDUMP x86_64-w64-mingw32-objdump REQUIRED)

include(ExternalProject)
set(nf_windows_dir ${CMAKE_BINARY_DIR}/windows)
set(nf_windows_image ${nf_windows_dir}/ndisfilter.sys)
set(nf_windows_implib ${nf_windows_dir}/libndisfilter.a)
set(nf_windows_ctl ${nf_windows_dir}/ndisfilterctl.exe)

ExternalProject_Add(ndisfilter_windows
    SOURCE_DIR ${PROJECT_SOURCE_DIR}
    BINARY_DIR ${nf_windows_dir}
    PREFIX ${CMAKE_BINARY_DIR}/windows-ep
    CMAKE_ARGS
        -DCMAKE_TOOLCHAIN_FILE=${PROJECT_SOURCE_DIR}/cmake/toolchain-mingw-w64.cmake
        -DCMAKE_BUILD_TYPE=${NF_WINDOWS_IMAGE_BUILD_TYPE}
    BUILD_ALWAYS TRUE
    INSTALL_COMMAND ""
    BUILD_BYPRODUCTS ${nf_windows_image} ${nf_windows_implib} ${nf_windows_ctl})

set(nf_driver_dir ${PROJECT_SOURCE_DIR}/driver/kernel/filter)
set(nf_checker_args
    --objdump ${NF_MINGW_OBJDUMP}
    --image ${nf_windows_image}
    --header ${nf_driver_dir}/include/ndisfilter.h
    --def ${nf_driver_dir}/ndisfilter.def
    --implib ${nf_windows_implib})
foreach(check subsystem imports exports import-library checksum layout)
    string(REPLACE "-" "_" name ${check})
    add_test(NAME windows_image.${name}
        COMMAND ${Python3_EXECUTABLE} ${nf_image_checker} ${nf_checker_args} ${check})
    set_tests_properties(windows_image.${name} PROPERTIES ENVIRONMENT ${nf_python_env})
endforeach()

# The user program's command-line tool, built beside the image.
add_test(NAME windows_image.ndisfilterctl_exe
    COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${NF_MINGW_OBJDUMP} -DPROGRAM=${nf_windows_ctl}
            -P ${PROJECT_SOURCE_DIR}/tests/windows/check-console-program.cmake)
