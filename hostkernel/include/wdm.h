#ifndef HK_WDM_H
#define HK_WDM_H
#include "ntddk.h"
#endif
