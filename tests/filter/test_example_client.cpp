/* A client driver loaded from its own image registers, fills the chains and leaves cleanly. */
#include "registry.h"

namespace {
class ExampleClient : public nftest::Registries {};
} // namespace

TEST_F(ExampleClient, LoadingPlacesItsFiltersAndUnloadingTakesThemAway)
{
    PDRIVER_OBJECT client = nullptr;
    ASSERT_EQ(HkLoadDriverImage(EXAMPLE_FILTER_IMAGE, "ExampleFilter", &client), STATUS_SUCCESS);

    PFilterDriver earlier = RegisterDriver("earlier");
    RegisterFilter(earlier, "earlierIncoming", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    RegisterFilter(earlier, "earlierToAdapter", FILTER_TYPE_INJECT_TO_ADAPTER, 50);

    EXPECT_EQ(Drivers(), (std::vector<std::string>{"ExampleFilter", "earlier"}));
    EXPECT_EQ(Chain(FILTER_TYPE_INCOMING_PACKET), (std::vector<std::string>{"earlierIncoming", "ExampleIncoming"}));
    EXPECT_EQ(Chain(FILTER_TYPE_OUTGOING_PACKET), (std::vector<std::string>{"ExampleOutgoing"}));
    EXPECT_EQ(Chain(FILTER_TYPE_INJECT_TO_ADAPTER), (std::vector<std::string>{"earlierToAdapter", "ExampleToAdapter"}));
    EXPECT_EQ(Chain(FILTER_TYPE_INJECT_TO_PROTOCOL), (std::vector<std::string>{"ExampleToProtocol"}));

    HkUnloadDriver(client);
    EXPECT_EQ(Drivers(), (std::vector<std::string>{"earlier"}));
    EXPECT_EQ(Chain(FILTER_TYPE_INCOMING_PACKET), (std::vector<std::string>{"earlierIncoming"}));
    EXPECT_TRUE(Chain(FILTER_TYPE_OUTGOING_PACKET).empty());
    EXPECT_TRUE(Chain(FILTER_TYPE_INJECT_TO_PROTOCOL).empty());
    Filter_DeregisterDriver(earlier);
}
