/*
 * Host kernel runtime: NDIS requests (the NDIS_REQUEST record a protocol hands
 * down to query or set an object identifier) and the common object
 * identifiers. Records and values are the Windows ones. Valid C11 and C++17.
 */
#ifndef HK_NDIS_REQUEST_H
#define HK_NDIS_REQUEST_H

#include "hk/base.h"

typedef ULONG NDIS_OID, *PNDIS_OID;

typedef enum _NDIS_REQUEST_TYPE {
    NdisRequestQueryInformation,
    NdisRequestSetInformation,
    NdisRequestQueryStatistics,
    NdisRequestOpen,
    NdisRequestClose,
    NdisRequestSend,
    NdisRequestTransferData,
    NdisRequestReset,
    NdisRequestGeneric1,
    NdisRequestGeneric2,
    NdisRequestGeneric3,
    NdisRequestGeneric4
} NDIS_REQUEST_TYPE, *PNDIS_REQUEST_TYPE;

/*
 * One query or set. A query fills InformationBuffer and reports BytesWritten;
 * when the buffer is too short it reports the size in BytesNeeded instead.
 */
typedef struct _NDIS_REQUEST {
    UCHAR MacReserved[4 * sizeof(PVOID)];
    NDIS_REQUEST_TYPE RequestType;
    union _DATA {
        struct _QUERY_INFORMATION {
            NDIS_OID Oid;
            PVOID InformationBuffer;
            UINT InformationBufferLength;
            UINT BytesWritten;
            UINT BytesNeeded;
        } QUERY_INFORMATION;
        struct _SET_INFORMATION {
            NDIS_OID Oid;
            PVOID InformationBuffer;
            UINT InformationBufferLength;
            UINT BytesRead;
            UINT BytesNeeded;
        } SET_INFORMATION;
    } DATA;
    UCHAR NdisReserved[9 * sizeof(PVOID)];
    union {
        UCHAR CallMgrReserved[2 * sizeof(PVOID)];
        UCHAR ProtocolReserved[2 * sizeof(PVOID)];
    };
    UCHAR MiniportReserved[2 * sizeof(PVOID)];
} NDIS_REQUEST, *PNDIS_REQUEST;

C_ASSERT(FIELD_OFFSET(NDIS_REQUEST, DATA) == 40);
C_ASSERT(sizeof(NDIS_REQUEST) == 176);

/* OID_GEN_MEDIA_CONNECT_STATUS answers one of these (as a ULONG). */
typedef enum _NDIS_MEDIA_STATE {
    NdisMediaStateConnected,
    NdisMediaStateDisconnected
} NDIS_MEDIA_STATE, *PNDIS_MEDIA_STATE;

/* ---- general object identifiers ---- */
#define OID_GEN_SUPPORTED_LIST 0x00010101
#define OID_GEN_HARDWARE_STATUS 0x00010102
#define OID_GEN_MEDIA_SUPPORTED 0x00010103
#define OID_GEN_MEDIA_IN_USE 0x00010104
#define OID_GEN_MAXIMUM_LOOKAHEAD 0x00010105
#define OID_GEN_MAXIMUM_FRAME_SIZE 0x00010106 /* ULONG: bytes of a frame without its header */
#define OID_GEN_LINK_SPEED 0x00010107         /* ULONG: in units of 100 bit/s */
#define OID_GEN_TRANSMIT_BUFFER_SPACE 0x00010108
#define OID_GEN_RECEIVE_BUFFER_SPACE 0x00010109
#define OID_GEN_TRANSMIT_BLOCK_SIZE 0x0001010a
#define OID_GEN_RECEIVE_BLOCK_SIZE 0x0001010b
#define OID_GEN_VENDOR_ID 0x0001010c
#define OID_GEN_VENDOR_DESCRIPTION 0x0001010d
#define OID_GEN_CURRENT_PACKET_FILTER 0x0001010e
#define OID_GEN_CURRENT_LOOKAHEAD 0x0001010f
#define OID_GEN_DRIVER_VERSION 0x00010110
#define OID_GEN_MAXIMUM_TOTAL_SIZE 0x00010111
#define OID_GEN_PROTOCOL_OPTIONS 0x00010112
#define OID_GEN_MAC_OPTIONS 0x00010113
#define OID_GEN_MEDIA_CONNECT_STATUS 0x00010114 /* ULONG: NDIS_MEDIA_STATE */
#define OID_GEN_MAXIMUM_SEND_PACKETS 0x00010115
#define OID_GEN_VENDOR_DRIVER_VERSION 0x00010116
#define OID_GEN_XMIT_OK 0x00020101
#define OID_GEN_RCV_OK 0x00020102

/* ---- 802.3 object identifiers ---- */
#define OID_802_3_PERMANENT_ADDRESS 0x01010101 /* 6 bytes */
#define OID_802_3_CURRENT_ADDRESS 0x01010102   /* 6 bytes */
#define OID_802_3_MULTICAST_LIST 0x01010103
#define OID_802_3_MAXIMUM_LIST_SIZE 0x01010104
#define OID_802_3_MAC_OPTIONS 0x01010105

#endif /* HK_NDIS_REQUEST_H */
