#ifndef HK_WINIOCTL_H
#define HK_WINIOCTL_H
#include "hk/base.h"
#endif
