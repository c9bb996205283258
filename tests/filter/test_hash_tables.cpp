/* Hash tables of client records: sizes, statuses, reference counts, enumeration and destruction. */
#include "framework.h"

#include "hk_test_support.h"

#include <atomic>
#include <set>
#include <thread>

namespace {

const ULONG TablePoolTag = nftest::PoolTag("NfHa");
const ULONG ItemPoolTag = nftest::PoolTag("Item");

struct Item {
    HashItem Header;
    int Key;
};

std::atomic<int> gFreed{0};

VOID NTAPI FreeItem(PHashItem item)
{
    gFreed++;
    Filter_FreeMemory(item);
}

BOOLEAN NTAPI SameKey(PHashItem item, PVOID key)
{
    return ((Item *)item)->Key == *(int *)key;
}

Item *NewItem(int key, ULONG hash)
{
    Item *item = (Item *)Filter_AllocateMemory(sizeof(Item), ItemPoolTag);
    RtlZeroMemory(item, sizeof(*item));
    item->Key = key;
    item->Header.m_HashValue = hash;
    return item;
}

class HashTables : public nftest::Framework {
protected:
    void SetUp() override
    {
        ASSERT_EQ(Load(0x1000), STATUS_SUCCESS);
        gFreed = 0;
    }
    void TearDown() override
    {
        EXPECT_EQ(HkPoolLiveAllocationCountWithTag(TablePoolTag), 0u) << "a table outlived its test";
        EXPECT_EQ(HkPoolLiveAllocationCountWithTag(ItemPoolTag), 0u) << "an item outlived its test";
        Framework::TearDown();
    }
};

TEST_F(HashTables, OddSizesAreRaisedByOneAndUnusableSizesGiveNoTable)
{
    HkDebugClearCapture();
    PHashTable seven = Filter_CreateHashTable("seven", 7, nullptr, nullptr);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "  Adjust HashTableSize to 8"), 0);
    EXPECT_GE(nftest::FindLine(lines, " - pItemName     = seven"), 0);
    PHashTable eight = Filter_CreateHashTable(nullptr, 8, nullptr, nullptr);
    lines = nftest::TakeTrace();
    EXPECT_EQ(nftest::FindLine(lines, "  Adjust HashTableSize to 8"), -1);
    EXPECT_GE(nftest::FindLine(lines, " - pItemName     = unknown"), 0);
    ASSERT_NE(seven, nullptr);
    ASSERT_NE(eight, nullptr);

    EXPECT_EQ(Filter_CreateHashTable("none", 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(Filter_CreateHashTable("wraps", 0xFFFFFFFF, nullptr, nullptr), nullptr);
    EXPECT_EQ(Filter_CreateHashTable("huge", 0x40000000, nullptr, nullptr), nullptr);
    EXPECT_EQ(Filter_GetHashItemCount(nullptr), 0u);

    Filter_DestroyHashTable(seven);
    Filter_DestroyHashTable(eight);
}

TEST_F(HashTables, InsertFindAndDeleteCountReferencesAsPromised)
{
    PHashTable table = Filter_CreateHashTable("item", 16, FreeItem, SameKey);
    Item *a = NewItem(1, 5), *b = NewItem(2, 5), *c = NewItem(3, 21); /* 21 shares 5's bucket */
    EXPECT_EQ(Filter_InsertHashItem(table, &a->Header), &a->Header);
    EXPECT_EQ(a->Header.m_RefCount, 2u); /* membership and the caller's */
    EXPECT_EQ(a->Header.m_pHashTable, table);
    Filter_InsertHashItem(table, &b->Header);
    Filter_InsertHashItem(table, &c->Header);
    EXPECT_EQ(Filter_GetHashItemCount(table), 3u);
    for (Item *item : {a, b, c})
        Filter_ReleaseHashItem(&item->Header); /* keep only membership */

    int key = 1;
    EXPECT_EQ(Filter_FindHashItem(table, 5, &key), &a->Header);
    EXPECT_EQ(a->Header.m_RefCount, 2u);
    key = 3;
    EXPECT_EQ(Filter_FindHashItem(table, 5, &key), nullptr); /* right key, other hash value */
    HkDebugClearCapture();
    EXPECT_EQ(Filter_FindHashItem(table, 21, &key), &c->Header);
    key = 9;
    EXPECT_EQ(Filter_FindHashItem(table, 5, &key), nullptr);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "Leave Filter_FindHashItem, NULL"), 0);

    /* Delete consumes the caller's reference with the membership; a second delete only one reference. */
    EXPECT_TRUE(Filter_DeleteHashItem(&a->Header));
    EXPECT_EQ(gFreed, 1);
    Filter_ReferenceHashItem(&c->Header); /* count 3: membership, find, this */
    EXPECT_TRUE(Filter_DeleteHashItem(&c->Header));
    EXPECT_EQ(c->Header.m_RefCount, 1u);
    EXPECT_TRUE(c->Header.m_bDeleted);
    HkDebugClearCapture();
    EXPECT_TRUE(Filter_DeleteHashItem(&c->Header));
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(),
                               "DeleteHashItem: double delete hash item, try release hash item"),
              0);
    EXPECT_EQ(gFreed, 2);
    EXPECT_EQ(Filter_GetHashItemCount(table), 1u);

    EXPECT_FALSE(Filter_DeleteHashItem(nullptr));
    Item *loose = NewItem(4, 5);
    EXPECT_FALSE(Filter_DeleteHashItem(&loose->Header)); /* never inserted */
    EXPECT_EQ(Filter_InsertHashItem(nullptr, &loose->Header), &loose->Header);
    EXPECT_EQ(loose->Header.m_RefCount, 0u);
    Filter_FreeMemory(loose);

    /* Without a compare routine the newest item of a hash value is found; the Ex calls under the caller's lock. */
    PHashTable plain = Filter_CreateHashTable("plain", 4, FreeItem, nullptr);
    Item *older = NewItem(5, 2), *newer = NewItem(6, 2);
    LOCK_STATE state;
    Filter_LockHashTable(plain, &state);
    Filter_InsertHashItemEx(plain, &older->Header);
    Filter_InsertHashItemEx(plain, &newer->Header);
    PHashItem found = Filter_FindHashItemEx(plain, 2, nullptr);
    EXPECT_EQ(found, &newer->Header);
    EXPECT_TRUE(Filter_DeleteHashItemEx(found));
    Filter_UnLockHashTable(plain, &state);
    EXPECT_TRUE(Filter_DeleteHashItem(&newer->Header)); /* its insert reference */
    Filter_ReleaseHashItem(&older->Header);
    Filter_DestroyHashTable(plain);
    Filter_DestroyHashTable(table);
    EXPECT_EQ(gFreed, 5);
}

TEST_F(HashTables, AReferenceKeepsAnItemAndItsTableAliveAcrossRemovalAndDestruction)
{
    PHashTable table = Filter_CreateHashTable("kept", 8, FreeItem, nullptr);
    Item *item = NewItem(1, 3);
    Filter_InsertHashItem(table, &item->Header);
    Filter_ReleaseHashItem(&item->Header);
    PHashItem held = Filter_FindHashItem(table, 3, nullptr);
    ASSERT_EQ(held, &item->Header);

    Filter_CleanHashTable(table);
    EXPECT_EQ(Filter_FindHashItem(table, 3, nullptr), nullptr);
    EXPECT_EQ(Filter_GetHashItemCount(table), 1u); /* a clean does not change the count */
    EXPECT_EQ(gFreed, 0);
    EXPECT_FALSE(item->Header.m_bDeleted);

    Filter_DestroyHashTable(table);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(TablePoolTag), 1u); /* the item's table reference */
    /* Deleting an item a clean removed gives back only the holder's reference. */
    Item *second = NewItem(2, 3);
    PHashTable other = Filter_CreateHashTable("other", 8, FreeItem, nullptr);
    Filter_InsertHashItem(other, &second->Header);
    Filter_CleanHashTable(other);
    EXPECT_TRUE(Filter_DeleteHashItem(&second->Header));
    EXPECT_EQ(gFreed, 1);
    Filter_DestroyHashTable(other);

    Filter_ReleaseHashItem(held);
    EXPECT_EQ(gFreed, 2);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(TablePoolTag), 0u);
}

struct EnumRecord {
    PHashTable Table;
    std::set<int> Seen;
    ULONG CountAtStart = 0;
    bool Consistent = true;
};

BOOLEAN NTAPI Collect(PVOID context, PHashItem item)
{
    EnumRecord *record = (EnumRecord *)context;
    if (record->Seen.empty())
        record->CountAtStart = Filter_GetHashItemCount(record->Table);
    if (!record->Seen.insert(((Item *)item)->Key).second)
        record->Consistent = false;
    return TRUE;
}

TEST_F(HashTables, EnumerationSeesAConsistentTableWhileAnotherThreadInserts)
{
    GlobalDebugFlag = 0; /* thousands of items: no trace */
    PHashTable table = Filter_CreateHashTable("busy", 64, FreeItem, SameKey);
    const int total = 3000;
    std::atomic<bool> done{false};
    std::thread inserter([&] {
        for (int key = 0; key < total; key++) {
            Item *item = NewItem(key, (ULONG)key * 2654435761u);
            Filter_InsertHashItem(table, &item->Header);
            Filter_ReleaseHashItem(&item->Header);
        }
        done = true;
    });
    int rounds = 0;
    while (!done || rounds < 3) {
        EnumRecord record;
        record.Table = table;
        Filter_EnumHashTable(table, Collect, &record);
        EXPECT_TRUE(record.Consistent);
        if (!record.Seen.empty()) {
            EXPECT_EQ(record.Seen.size(), record.CountAtStart);
            /* Items are listed in insertion order: what was seen is a prefix of the keys. */
            EXPECT_EQ(*record.Seen.rbegin(), (int)record.Seen.size() - 1);
        }
        rounds++;
    }
    inserter.join();
    EXPECT_EQ(Filter_GetHashItemCount(table), (ULONG)total);
    Filter_DestroyHashTable(table);
    EXPECT_EQ(gFreed, total);
}

/* Deletes even keys and inserts one item per odd key, through the plain calls, from inside the enumeration. */
BOOLEAN NTAPI Reshape(PVOID context, PHashItem item)
{
    PHashTable table = (PHashTable)context;
    int key = ((Item *)item)->Key;
    if (key >= 100)
        return TRUE;
    if (key % 2 == 0) {
        Filter_DeleteHashItem(item); /* uses up the enumeration's reference */
    } else {
        Item *added = NewItem(key + 100, 1);
        Filter_ReleaseHashItem(Filter_InsertHashItem(table, &added->Header));
        int probe = key;
        PHashItem again = Filter_FindHashItem(table, item->m_HashValue, &probe);
        EXPECT_EQ(again, item);
        Filter_ReleaseHashItem(again);
    }
    return TRUE;
}

TEST_F(HashTables, AnEnumerationCallbackMayUseThePlainCallsOnItsTable)
{
    PHashTable table = Filter_CreateHashTable("reshaped", 8, FreeItem, SameKey);
    for (int key = 0; key < 6; key++) {
        Item *item = NewItem(key, (ULONG)key);
        Filter_ReleaseHashItem(Filter_InsertHashItem(table, &item->Header));
    }
    Filter_EnumHashTable(table, Reshape, table);
    EXPECT_EQ(gFreed, 3);
    EXPECT_EQ(Filter_GetHashItemCount(table), 6u); /* 1, 3, 5 and 101, 103, 105 */

    /* One bucket only: hash value 1 holds 1 and the three added items. */
    EnumRecord record;
    record.Table = table;
    Filter_EnumHashTableEx(table, 1, Collect, &record);
    EXPECT_EQ(record.Seen, (std::set<int>{1, 101, 103, 105}));
    Filter_DestroyHashTable(table);
}

} // namespace
