/*
 * Host kernel runtime: the control interface for host programs and tests
 * (registry contents, driver loading, verifier findings, debug capture).
 * Not part of the Windows interfaces; drivers never include it.
 */
#ifndef HK_HOSTKERNEL_H
#define HK_HOSTKERNEL_H
#include "hk/base.h"
#include "hk/host_core.h"
#include "hk/host_io.h"
#include "hk/host_debug.h"
#include "hk/host_report.h"
#include "hk/host_bridge.h"
#endif
