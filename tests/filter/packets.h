/* Packets built in the test, holding frames of the independent test data. */
#pragma once

#include "data_files.h"
#include "framework.h"

#include <memory>

namespace nftest {

/* A zeroed packet record of the test's own, holding `frame` whole in m_Data. */
inline std::unique_ptr<FilterPacket> PacketOf(const Frame &frame, PFilterAdapter adapter = nullptr)
{
    std::unique_ptr<FilterPacket> packet(new FilterPacket());
    memset(packet.get(), 0, sizeof(FilterPacket));
    if (!frame.empty())
        memcpy(packet->m_Data, frame.data(), frame.size());
    packet->m_nPacketSize = (ULONG)frame.size();
    packet->m_nBytesRead = (ULONG)frame.size();
    packet->m_hAdapter = adapter;
    return packet;
}

/* The frames of tests/data/packets/frames.pcap, numbered from 1 as tshark numbers them. */
inline const std::vector<Frame> &CaseFrames()
{
    static const std::vector<Frame> frames = ReadPcap(DataPath("packets/frames.pcap"));
    return frames;
}

inline const Frame &CaseFrame(int number)
{
    return CaseFrames().at((size_t)number - 1);
}

/* A 16-bit header field as it stands on the wire. */
inline long WireValue(const UCHAR *field)
{
    return (long)((field[0] << 8) | field[1]);
}

/* Offset of `pointer` from the start of the packet's frame, or -1 for NULL. */
inline long FrameOffset(const FilterPacket &packet, const UCHAR *pointer)
{
    return pointer == nullptr ? -1 : (long)(pointer - packet.m_pEthernet);
}

} // namespace nftest
