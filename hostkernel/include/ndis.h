/* Host kernel runtime: the NDIS library (stands in for the DDK's ndis.h). */
#ifndef HK_NDIS_H
#define HK_NDIS_H
#include "ntddk.h"
#include "hk/ndis.h"
#include "hk/ndis_packet.h"
#endif
