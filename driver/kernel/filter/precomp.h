/*
 * precomp.h - the one place that chooses the platform headers.
 *
 * Windows build: the mingw-w64 DDK headers through their compatibility
 * prelude. Host build: the host kernel runtime's headers of the same names.
 * Every source file of the framework includes this file first.
 */
#pragma once

#if defined(_WIN32)
#include "platform/ddk-mingw.h"
#else
#include <ntddk.h>
#include <ndis.h>
#endif

/*
 * A second exported name for a routine. The Windows image gets it from the
 * module-definition file (ntohs=htons); GNU compilers also give the host
 * library the symbol itself.
 */
#if defined(__GNUC__)
#define NF_SAME_ROUTINE_AS(routine) __attribute__((alias(#routine)))
#else
#define NF_SAME_ROUTINE_AS(routine)
#endif

#include "include/ndisfilter.h"
#include "guard.h"
