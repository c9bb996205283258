/* Host runtime: the Win32 user-mode interfaces a host program calls. */
#ifndef HK_WINDOWS_H
#define HK_WINDOWS_H
#include "hk/base.h"
#include "hk/win32.h"
#endif
