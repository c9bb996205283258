/* Named interfaces between client drivers, their references and the drivers told of them. */
#include "registry.h"

#include <cstring>
#include <string>
#include <vector>

using nftest::Counted;

namespace {

const ULONG InterfacePoolTag = nftest::PoolTag("NfFI");

struct Block {
    USHORT Length;
    USHORT Version;
    ULONG Value;
    PVOID Routine;
};

/* "<driver context> <event> <name>" for every event a handler heard, in order. */
std::vector<std::string> gEvents;

VOID NTAPI Hear(PFilterDriver, PVOID DriverContext, ULONG Event, PVOID, PSTRING Name)
{
    gEvents.push_back(std::string((const char *)DriverContext) + " " + std::to_string(Event) + " " +
                      std::string(Name->Buffer, Name->Length));
}

class Interfaces : public nftest::Registries {
protected:
    void SetUp() override
    {
        Registries::SetUp();
        gEvents.clear();
        owner = RegisterDriver("owner", (PVOID) "owner");
        user = RegisterDriver("user", (PVOID) "user");
    }

    PFilterInterface Publish(PFilterDriver driver, const char *name, ULONG value = 7)
    {
        STRING counted = Counted(name);
        Block block = {sizeof(Block), 1, value, nullptr};
        PFilterInterface handle = nullptr;
        EXPECT_EQ(Filter_RegisterInterface(driver, &counted, &block, &handle), FILTER_STATUS_SUCCESS);
        return handle;
    }

    FILTER_STATUS Query(PFilterDriver driver, const char *name, Block **copy)
    {
        STRING counted = Counted(name);
        *copy = nullptr;
        return Filter_QueryInterface(driver, &counted, (PVOID *)copy);
    }

    static ULONG LiveRecords() { return HkPoolLiveAllocationCountWithTag(InterfacePoolTag); }

    PFilterDriver owner = nullptr;
    PFilterDriver user = nullptr;
};

TEST_F(Interfaces, PublishedQueriedReleasedAndWithdrawnWithTheHandlersToldInOrder)
{
    PIfEventHandler ownerEvents = nullptr, userEvents = nullptr;
    ASSERT_EQ(Filter_RegisterIfEventHandler(owner, Hear, nullptr, &ownerEvents), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_RegisterIfEventHandler(user, Hear, nullptr, &userEvents), FILTER_STATUS_SUCCESS);
    PIfEventHandler second = nullptr;
    EXPECT_EQ(Filter_RegisterIfEventHandler(user, Hear, nullptr, &second), FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED);

    PFilterInterface calc = Publish(owner, "Calc", 42);
    ASSERT_NE(calc, nullptr);
    EXPECT_TRUE(Filter_IsValidInterfaceObject(calc));
    EXPECT_EQ(gEvents, (std::vector<std::string>{"owner 0 Calc", "user 0 Calc"}));
    STRING name = Counted("Calc");
    Block block = {sizeof(Block), 1, 0, nullptr};
    PFilterInterface duplicate = nullptr;
    EXPECT_EQ(Filter_RegisterInterface(user, &name, &block, &duplicate), FILTER_ERROR_INTERFACE_ALREADY_REGISTERED);
    block.Length = 1;
    STRING shortName = Counted("Short");
    EXPECT_EQ(Filter_RegisterInterface(user, &shortName, &block, &duplicate), FILTER_ERROR_INVALID_ARGUMENT);

    Block *copy = nullptr;
    ASSERT_EQ(Query(user, "Calc", &copy), FILTER_STATUS_SUCCESS);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->Length, sizeof(Block));
    EXPECT_EQ(copy->Value, 42u);
    EXPECT_TRUE(Filter_IsValidInterface(copy));
    EXPECT_FALSE(Filter_IsValidInterface(&block));
    Block *missing = nullptr;
    EXPECT_EQ(Query(user, "calc", &missing), FILTER_ERROR_INTERFACE_NOT_FOUND);

    EXPECT_EQ(Filter_ReleaseInterface(owner, copy), FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER);
    EXPECT_EQ(Filter_ReleaseInterface(user, copy), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleaseInterface(user, copy), FILTER_ERROR_INVALID_FILTER_INTERFACE);

    EXPECT_EQ(Filter_DeregisterInterface(user, calc), FILTER_ERROR_INVALID_INTERFACE_OWNER);
    gEvents.clear();
    EXPECT_EQ(Filter_DeregisterInterface(owner, calc), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(gEvents, (std::vector<std::string>{"owner 1 Calc", "user 1 Calc", "owner 2 Calc", "user 2 Calc"}));
    EXPECT_EQ(Filter_DeregisterInterface(owner, calc), FILTER_ERROR_INVALID_FILTER_INTERFACE);

    EXPECT_EQ(Filter_DeregisterIfEventHandler(user, ownerEvents), FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER);
    EXPECT_EQ(Filter_DeregisterIfEventHandler(owner, ownerEvents), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_DeregisterIfEventHandler(user, userEvents), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_DeregisterIfEventHandler(user, userEvents), FILTER_ERROR_INVALID_EVENT_HANDLER);
    EXPECT_EQ(LiveRecords(), 0u);
}

TEST_F(Interfaces, AReferencedInterfaceStaysInactiveUntilItsLastReferenceIsReleased)
{
    PIfEventHandler events = nullptr;
    ASSERT_EQ(Filter_RegisterIfEventHandler(owner, Hear, nullptr, &events), FILTER_STATUS_SUCCESS);
    PFilterInterface calc = Publish(owner, "Calc");
    Block *first = nullptr, *second = nullptr;
    ASSERT_EQ(Query(user, "Calc", &first), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Query(user, "Calc", &second), FILTER_STATUS_SUCCESS);
    EXPECT_NE(first, second);

    gEvents.clear();
    EXPECT_EQ(Filter_DeregisterInterface(owner, calc), FILTER_ERROR_INTERFACE_ARE_REFERENCED);
    EXPECT_EQ(gEvents, (std::vector<std::string>{"owner 1 Calc"}));
    Block *late = nullptr;
    EXPECT_EQ(Query(user, "Calc", &late), FILTER_ERROR_INTERFACE_ARE_INVALID);
    STRING name = Counted("Calc");
    Block block = {sizeof(Block), 1, 0, nullptr};
    PFilterInterface again = nullptr;
    EXPECT_EQ(Filter_RegisterInterface(owner, &name, &block, &again), FILTER_ERROR_INTERFACE_ALREADY_REGISTERED);

    ULONG before = LiveRecords();
    EXPECT_EQ(Filter_ReleaseInterface(user, first), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(LiveRecords(), before - 1);
    EXPECT_EQ(Filter_ReleaseInterface(user, second), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(LiveRecords(), before - 3); /* the reference and the interface */
    EXPECT_EQ(gEvents.size(), 1u);        /* no event for this free */
    EXPECT_EQ(Filter_DeregisterIfEventHandler(owner, events), FILTER_STATUS_SUCCESS);
}

TEST_F(Interfaces, DeregisteringTheOwnerOrAReferencingDriverTakesWhatEachOwns)
{
    PFilterInterface held = Publish(owner, "Held");
    PFilterInterface unused = Publish(owner, "Unused");
    PFilterInterface mine = Publish(user, "Mine");
    ASSERT_NE(unused, nullptr);
    Block *copy = nullptr, *own = nullptr;
    ASSERT_EQ(Query(user, "Held", &copy), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Query(owner, "Mine", &own), FILTER_STATUS_SUCCESS);

    /* The owner leaves: the unreferenced interface goes, the referenced one stays inactive, its copies dead. */
    ASSERT_EQ(Filter_DeregisterDriver(owner), FILTER_STATUS_SUCCESS);
    Block *probe = nullptr;
    EXPECT_EQ(Query(user, "Unused", &probe), FILTER_ERROR_INTERFACE_NOT_FOUND);
    EXPECT_EQ(Query(user, "Held", &probe), FILTER_ERROR_INTERFACE_ARE_INVALID);
    EXPECT_FALSE(Filter_IsValidInterface(copy));
    EXPECT_EQ(Filter_ReleaseInterface(user, copy), FILTER_ERROR_INVALID_FILTER_INTERFACE);
    EXPECT_TRUE(Filter_IsValidInterfaceObject(held));
    /* The owner's reference to the user's interface went with it. */
    PLIST_ENTRY references = &mine->m_ReferenceList;
    EXPECT_TRUE(IsListEmpty(references));

    /* The referencing driver leaves: its dead reference goes, and with it the inactive interface. */
    ASSERT_EQ(Filter_DeregisterDriver(user), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(IsListEmpty(&g_pGlobal->m_InterfaceList));
    EXPECT_EQ(LiveRecords(), 0u);
}

} // namespace
