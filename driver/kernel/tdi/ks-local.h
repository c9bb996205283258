/*
 * ks-local.h - what the kernel-socket library's files share.
 *
 * The library is linked into the framework's image and exported from it, but
 * shares nothing with the packet framework beyond the platform headers and the
 * fault guard.
 */
#pragma once

#include "precomp.h"
#include <tdikrnl.h>
#include "include/ksocket.h"

/* Pool tags of the library's own blocks. */
#define KS_EA_TAG      0x6145734Bu /* "KsEa" extended-attribute buffers */
#define KS_LINK_TAG    0x6E4C734Bu /* "KsLn" symbolic-link names */
#define KS_REQUEST_TAG 0x7152734Bu /* "KsRq" request contexts */

/* Access of an address or endpoint open: read, write, synchronize. */
#define KS_OPEN_ACCESS    (GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE)
/* Access of a control-channel open: read, write. */
#define KS_CHANNEL_ACCESS (GENERIC_READ | GENERIC_WRITE)

/* Opens DeviceName with ZwCreateFile (the EA buffer may be NULL) and references
 * the handle's file object; on a failed reference the handle is closed again. */
NTSTATUS KsOpenDevice(PCWSTR DeviceName, ACCESS_MASK Access, PFILE_FULL_EA_INFORMATION Ea,
                      ULONG EaLength, PHANDLE Handle, PFILE_OBJECT *FileObject);
/* Takes one reference of an address or endpoint. */
VOID KsReferenceAddress(PKS_ADDRESS Address);
VOID KsReferenceEndpoint(PKS_ENDPOINT Endpoint);
