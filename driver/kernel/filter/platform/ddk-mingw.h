/*
 * ddk-mingw.h - the kernel and NDIS headers for the Windows build (mingw-w64).
 *
 * precomp.h includes this one file instead of <ntddk.h>/<ndis.h> when the
 * driver is cross-built into ndisfilter.sys. It pulls in the mingw-w64 DDK
 * headers with NDIS 5.1 declarations and works around three defects those
 * headers show when compiled as C++:
 *
 *  1. wdm.h defines static inline InterlockedBitTestAndSet/Reset although
 *     <intrin.h> already declares them as intrinsics. We include <intrin.h>
 *     first and let wdm.h's copies compile under private names; afterwards
 *     the names resolve to the intrinsics again.
 *  2. ndis.h declares enum _NDIS_REQUEST_TYPE (type, pointer type and every
 *     enumerator) a second time after <ntddndis.h> did. We include
 *     <ntddndis.h> first with those names renamed, so ndis.h's declaration is
 *     the one that stays.
 *  3. ndis.h's prototype of NdisMWanIndicateReceiveComplete lacks a comma
 *     between its parameters. The function-like macro below turns the broken
 *     prototype into a harmless unused one.
 *
 * The DDK directory must be on the include path with -isystem (see
 * cmake/WindowsDriver.cmake) so its own macro redefinitions stay quiet.
 */
#ifndef NDISFILTER_PLATFORM_DDK_MINGW_H
#define NDISFILTER_PLATFORM_DDK_MINGW_H

#if !defined(_WIN32) || !defined(__MINGW32__)
#error "platform/ddk-mingw.h is for the mingw-w64 Windows build only"
#endif

/* The framework is written against the NDIS 5.1 interfaces. */
#ifndef NDIS51
#define NDIS51 1
#endif

#include <intrin.h>

/* Defect 1: keep wdm.h's inline copies out of the intrinsics' way. */
#define InterlockedBitTestAndSet ddk_wdm_InterlockedBitTestAndSet_unused
#define InterlockedBitTestAndReset ddk_wdm_InterlockedBitTestAndReset_unused
#include <ntddk.h>
#undef InterlockedBitTestAndSet
#undef InterlockedBitTestAndReset

/* Defect 2: <ntddndis.h>'s copy of the request-type enum under other names. */
#define _NDIS_REQUEST_TYPE ddk_ntddndis_NDIS_REQUEST_TYPE_tag
#define NDIS_REQUEST_TYPE ddk_ntddndis_NDIS_REQUEST_TYPE
#define PNDIS_REQUEST_TYPE ddk_ntddndis_PNDIS_REQUEST_TYPE
#define NdisRequestQueryInformation ddk_ntddndis_NdisRequestQueryInformation
#define NdisRequestSetInformation ddk_ntddndis_NdisRequestSetInformation
#define NdisRequestQueryStatistics ddk_ntddndis_NdisRequestQueryStatistics
#define NdisRequestOpen ddk_ntddndis_NdisRequestOpen
#define NdisRequestClose ddk_ntddndis_NdisRequestClose
#define NdisRequestSend ddk_ntddndis_NdisRequestSend
#define NdisRequestTransferData ddk_ntddndis_NdisRequestTransferData
#define NdisRequestReset ddk_ntddndis_NdisRequestReset
#define NdisRequestGeneric1 ddk_ntddndis_NdisRequestGeneric1
#define NdisRequestGeneric2 ddk_ntddndis_NdisRequestGeneric2
#define NdisRequestGeneric3 ddk_ntddndis_NdisRequestGeneric3
#define NdisRequestGeneric4 ddk_ntddndis_NdisRequestGeneric4
#include <ntddndis.h>
#undef _NDIS_REQUEST_TYPE
#undef NDIS_REQUEST_TYPE
#undef PNDIS_REQUEST_TYPE
#undef NdisRequestQueryInformation
#undef NdisRequestSetInformation
#undef NdisRequestQueryStatistics
#undef NdisRequestOpen
#undef NdisRequestClose
#undef NdisRequestSend
#undef NdisRequestTransferData
#undef NdisRequestReset
#undef NdisRequestGeneric1
#undef NdisRequestGeneric2
#undef NdisRequestGeneric3
#undef NdisRequestGeneric4

/* Defect 3: the comma-less prototype becomes an unused one. */
#define NdisMWanIndicateReceiveComplete(x) ddk_NdisMWanIndicateReceiveComplete_unused(void)
#include <ndis.h>
#undef NdisMWanIndicateReceiveComplete

/* ntoskrnl.exe exports these C library formatters; the DDK headers do not
 * declare them. They follow the Microsoft C runtime's semantics (no
 * terminator when the output is truncated, -1 returned). */
#include <stdarg.h>
#ifdef __cplusplus
extern "C" {
#endif
int __cdecl _vsnprintf(char *buffer, size_t count, const char *format, va_list args);
int __cdecl _snprintf(char *buffer, size_t count, const char *format, ...);
#ifdef __cplusplus
}
#endif

#endif /* NDISFILTER_PLATFORM_DDK_MINGW_H */
