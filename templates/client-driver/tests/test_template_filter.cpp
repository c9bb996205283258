/* The template driver on the host runtime, through the kit's fixtures. */
#include <ndisfilter-testkit.h>

#include "template-filter.h"

#include <cstring>
#include <string>

namespace {

const ULONG Ipv6 = 0x86DD;
/* Host A, the own MAC of the kit's capture. */
const UCHAR HostA[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};

nfkit::Frame EthernetFrame(USHORT etherType)
{
    nfkit::Frame frame = nfkit::PatternFrame(60);
    frame[12] = (UCHAR)(etherType >> 8);
    frame[13] = (UCHAR)etherType;
    return frame;
}

class TemplateFilter : public nfkit::ClientDriverTest {
protected:
    TEMPLATE_FILTER_COUNTERS Counters()
    {
        TEMPLATE_FILTER_COUNTERS counters = {};
        auto get = DriverFunction<PTEMPLATE_FILTER_GET_COUNTERS>(TEMPLATE_FILTER_IMAGE, TEMPLATE_FILTER_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }
};

TEST_F(TemplateFilter, DiscardsTheConfiguredEtherTypeBothWaysAndPassesTheRest)
{
    SetDword(TEMPLATE_FILTER_SERVICE_NAME, TEMPLATE_FILTER_DROP_VALUE, Ipv6);
    ASSERT_EQ(LoadDriver(TEMPLATE_FILTER_IMAGE, TEMPLATE_FILTER_SERVICE_NAME), STATUS_SUCCESS);
    PFilterAdapter adapter = OpenAdapter(1);
    Receive(adapter, EthernetFrame(0x0800));
    Receive(adapter, EthernetFrame(Ipv6));
    Send(adapter, EthernetFrame(Ipv6));
    Send(adapter, EthernetFrame(0x0806));
    ASSERT_TRUE(WaitForQuiet());

    std::vector<nfkit::Frame> up = ToProtocols(adapter), down = ToWire(adapter);
    ASSERT_EQ(up.size(), 1u);
    EXPECT_EQ(up[0], EthernetFrame(0x0800));
    ASSERT_EQ(down.size(), 1u);
    EXPECT_EQ(down[0], EthernetFrame(0x0806));
    TEMPLATE_FILTER_COUNTERS counters = Counters();
    EXPECT_EQ(counters.Inspected[0], 2u);
    EXPECT_EQ(counters.Discarded[0], 1u);
    EXPECT_EQ(counters.Discarded[1], 1u);

    std::vector<nfkit::Event> events = TakeEvents();
    ASSERT_EQ(events.size(), 2u);
    for (ULONG chain = 0; chain < 2; chain++) {
        ASSERT_FALSE(events[chain].Unreadable);
        EXPECT_EQ(events[chain].Value1, Ipv6);
        EXPECT_EQ(events[chain].Value2, chain);
        ULONG adapterId = 0;
        ASSERT_GE(events[chain].Data.size(), 8u);
        memcpy(&adapterId, events[chain].Data.data() + 4, sizeof(adapterId));
        EXPECT_EQ(adapterId, AdapterId(adapter));
    }

    std::vector<std::string> lines = TakeDebugOutput();
    bool announced = false;
    for (const std::string &line : lines)
        announced |= line.find("TemplateFilter: loaded, discarding EtherType 0x86dd") != std::string::npos;
    EXPECT_TRUE(announced);
}

TEST_F(TemplateFilter, ACaptureReplaysThroughTheDriverWithEveryFrameAccountedFor)
{
    ASSERT_EQ(LoadDriver(TEMPLATE_FILTER_IMAGE, TEMPLATE_FILTER_SERVICE_NAME), STATUS_SUCCESS);
    PFilterAdapter adapter = OpenAdapter(1);
    std::vector<nfkit::Frame> frames = ReplayCapture(adapter, NDISFILTER_CAPTURE, HostA);
    ASSERT_FALSE(frames.empty());
    ASSERT_TRUE(WaitForQuiet());
    TEMPLATE_FILTER_COUNTERS counters = Counters();
    EXPECT_EQ(counters.DropEtherType, 0u);
    EXPECT_EQ(ToProtocols(adapter).size(), counters.Inspected[0]);
    EXPECT_EQ(ToWire(adapter).size(), counters.Inspected[1]);
    EXPECT_EQ((size_t)counters.Inspected[0] + counters.Inspected[1], frames.size());
}

TEST_F(TemplateFilter, WhatTheApplicationLoopsBackReachesIt)
{
    ASSERT_EQ(LoadDriver(TEMPLATE_FILTER_IMAGE, TEMPLATE_FILTER_SERVICE_NAME), STATUS_SUCCESS);
    PFilterAdapter adapter = OpenAdapter(1);
    ASSERT_TRUE(StartApplication());
    ASSERT_TRUE(SendFromApplication(adapter, FILTER_DIRECTION_TO_APPLICATION, EthernetFrame(0x0800)));
    std::vector<nfkit::ApplicationFrame> received;
    for (int i = 0; i < 1000 && received.empty(); i++) {
        WaitForQuiet();
        received = TakeApplicationFrames();
    }
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].AdapterId, AdapterId(adapter));
    EXPECT_EQ(received[0].Bytes, EthernetFrame(0x0800));
}

} // namespace
