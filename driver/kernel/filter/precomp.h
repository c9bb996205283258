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

#include "include/ndisfilter.h"
#include "guard.h"
