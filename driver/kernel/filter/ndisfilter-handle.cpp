/*
 * ndisfilter-handle.cpp - the tag check behind every Filter_IsValid* function.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

BOOLEAN NdisFilter_CheckHandle(PCSTR Name, PVOID Handle, ULONG TagOffset, ULONG Tag)
{
    if (Handle == NULL) {
        NF_PRINT("%s: Invalid Handle 0x%p, bad tag 0x%x\n", Name, Handle, 0xFFFFFFFFu);
        return FALSE;
    }
    ULONG found = 0;
    LONG code = FilterGuard([&] { found = *(const volatile ULONG *)((const UCHAR *)Handle + TagOffset); });
    if (code != 0) {
        NF_PRINT("%s: exception, code = %d\n", Name, (int)code);
        return FALSE;
    }
    if (found != Tag) {
        NF_PRINT("%s: Invalid Handle 0x%p, bad tag 0x%x\n", Name, Handle, (unsigned)found);
        return FALSE;
    }
    return TRUE;
}
