# find_package(NdisFilter): the kit for writing client filter drivers.
#
# Imported targets (host build, Linux):
#   NdisFilter::hostkernel          the host kernel runtime (ntddk.h, ndis.h, windows.h, hostkernel.h)
#   NdisFilter::ndisfilter          the framework driver's host library (ndisfilter.h)
#   NdisFilter::ndishook            the simulated NDIS hook driver (ndishook.h)
#   NdisFilter::ndisfilter-app      the user program's library (ndisfilter-app.h)
#   NdisFilter::ndisfilter-testkit  GoogleTest fixtures for client drivers (ndisfilter-testkit.h)
#   NdisFilter::hk_test_main        a test main that fails tests leaving verifier findings
#   NdisFilter::gtest, NdisFilter::gmock   GoogleTest as the kit was built with it
#   NdisFilter::ndisfilter-host     the host program
#
# Variables:
#   NdisFilter_INCLUDE_DIR          the public headers
#   NdisFilter_CAPTURE              a capture of real traffic (host A, MAC 02:00:00:00:0a:01)
#   NdisFilter_IMAGE_CHECKER        the Windows image checker (python3)
#   NdisFilter_WINDOWS_IMAGE, NdisFilter_WINDOWS_IMPLIB
#                                   ndisfilter.sys and libndisfilter.a, when the kit has them
#   NdisFilter_WINDOWS              TRUE when client drivers are also built for Windows
#
# ndisfilter_add_client_driver(<name> SOURCES ... [INCLUDES ...] [DEF <file>])
#   see NdisFilterClientDriver.cmake.

get_filename_component(_nf_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

set(NdisFilter_INCLUDE_DIR ${_nf_prefix}/include/ndisfilter)
set(NdisFilter_CAPTURE ${_nf_prefix}/share/ndisfilter/captures/host-a.pcap)
set(NdisFilter_IMAGE_CHECKER ${_nf_prefix}/share/ndisfilter/check_image.py)

# The whole host build uses a 16-bit WCHAR, as Windows does; so must everything linked with it.
function(nf_kit_import target kind file links)
    if(TARGET NdisFilter::${target})
        return()
    endif()
    add_library(NdisFilter::${target} ${kind} IMPORTED)
    set_target_properties(NdisFilter::${target} PROPERTIES
        IMPORTED_LOCATION ${_nf_prefix}/lib/${file}
        INTERFACE_INCLUDE_DIRECTORIES "${NdisFilter_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES "${links}")
endfunction()

if(NOT TARGET NdisFilter::gtest)
    find_package(Threads REQUIRED)
    foreach(lib gtest gmock)
        add_library(NdisFilter::${lib} STATIC IMPORTED)
        set_target_properties(NdisFilter::${lib} PROPERTIES
            IMPORTED_LOCATION ${_nf_prefix}/lib/ndisfilter/lib${lib}.a
            INTERFACE_INCLUDE_DIRECTORIES ${NdisFilter_INCLUDE_DIR}/gtest
            INTERFACE_COMPILE_OPTIONS -fshort-wchar
            INTERFACE_LINK_LIBRARIES Threads::Threads)
    endforeach()
    set_property(TARGET NdisFilter::gmock APPEND PROPERTY INTERFACE_LINK_LIBRARIES NdisFilter::gtest)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/NdisFilterTargets.cmake)

if(TARGET NdisFilter::hostkernel)
    set_target_properties(NdisFilter::hostkernel PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${NdisFilter_INCLUDE_DIR}/host;${NdisFilter_INCLUDE_DIR}"
        INTERFACE_COMPILE_OPTIONS -fshort-wchar
        INTERFACE_LINK_LIBRARIES "pthread;dl")
endif()
if(TARGET NdisFilter::ndisfilter-testkit)
    set_property(TARGET NdisFilter::ndisfilter-testkit APPEND PROPERTY INTERFACE_LINK_LIBRARIES pcap dl)
endif()
if(NOT TARGET NdisFilter::ndisfilter-host AND EXISTS ${_nf_prefix}/bin/ndisfilter-host)
    add_executable(NdisFilter::ndisfilter-host IMPORTED)
    set_target_properties(NdisFilter::ndisfilter-host PROPERTIES IMPORTED_LOCATION ${_nf_prefix}/bin/ndisfilter-host)
endif()

set(NdisFilter_WINDOWS_IMAGE ${_nf_prefix}/lib/ndisfilter/windows/ndisfilter.sys)
set(NdisFilter_WINDOWS_IMPLIB ${_nf_prefix}/lib/ndisfilter/windows/libndisfilter.a)
include(${CMAKE_CURRENT_LIST_DIR}/NdisFilterClientDriver.cmake)

set(NdisFilter_FOUND TRUE)
