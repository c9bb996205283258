/*
 * ndisfilter-timer.cpp - timers of client drivers.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

/*
 * Removes the timers a deregistering driver owns. Timers join
 * m_FilterTimerList only through Filter_InitializeTimer, which this build
 * does not offer yet, so the list is always empty here.
 */
VOID NdisFilter_RemoveDriverTimers(PFilterDriver Driver)
{
    UNREFERENCED_PARAMETER(Driver);
}
