/* Host kernel runtime: the kernel interfaces a driver calls (stands in for the DDK's ntddk.h). */
#ifndef HK_NTDDK_H
#define HK_NTDDK_H
#include "hk/base.h"
#include "hk/rtl.h"
#include "hk/pool.h"
#include "hk/sync.h"
#include "hk/thread.h"
#include "hk/registry.h"
#include "hk/io.h"
#include "hk/debug.h"
#include "hk/seh.h"
#endif
