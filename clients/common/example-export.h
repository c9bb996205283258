/*
 * example-export.h - what the example client drivers show to the program
 * that loaded them: counters read through a function each image exports by
 * name (GetProcAddress on Windows, dlsym on the host), since a filter driver
 * has no other channel of its own to a test or a host tool.
 *
 * Basic Windows types only (after <ntddk.h> or <windows.h>). Valid C11 and C++.
 */
#ifndef EXAMPLE_EXPORT_H
#define EXAMPLE_EXPORT_H

#if defined(_WIN32)
#define EXAMPLE_EXPORT EXTERN_C __declspec(dllexport)
#else
#define EXAMPLE_EXPORT EXTERN_C __attribute__((visibility("default")))
#endif

/* The two packet chains the examples sit in, as counter indexes. */
#define EXAMPLE_CHAIN_INCOMING 0
#define EXAMPLE_CHAIN_OUTGOING 1
#define EXAMPLE_CHAIN_COUNT 2

#endif /* EXAMPLE_EXPORT_H */
