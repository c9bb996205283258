/*
 * ndisfilter-hashtable.cpp - hash tables of client records.
 *
 * The client owns the items (a HashItem header first in each of its
 * records) and the hashing; the table links them into a list of all items,
 * in insertion order, and into their bucket, newest first. Tables and items
 * are reference-counted:
 *
 *   table: the creator's reference, one per inserted item until the item is
 *          freed, one per running enumeration or clean;
 *   item:  one for its membership in the table, one per successful insert or
 *          find for the caller (given back by release or by delete).
 *
 * One NDIS read-write lock per table: finds share it, everything else takes
 * it alone. The thread that enumerates a table is recognised by process and
 * thread id, so its callbacks may call the plain insert, find and delete,
 * which then do not take the lock it already holds.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

#define NF_HASH_POOL_TAG 0x6148664E /* "NfHa" */
#define NF_HASH_NAME_SIZE 32

struct _HashTable {
    ULONG HashTableSize;
    ULONG m_HashMask;
    volatile LONG m_RefCount;
    PCSTR pItemName; /* m_ItemName */
    PFILTER_HASH_FREE_ITEM pfnFreeItem;
    PFILTER_HASH_COMPARE_ITEM pfnCompItem;
    volatile LONG m_bEnumerating;
    HANDLE m_EnumProcessId;
    HANDLE m_EnumThreadId;
    PHashItem m_pCurrentEnumItem;
    volatile LONG m_nItemCount;
    NDIS_RW_LOCK m_Lock;
    LIST_ENTRY m_ItemList;
    CHAR m_ItemName[NF_HASH_NAME_SIZE]; /* the creator's name, cut to fit */
    LIST_ENTRY m_Buckets[1];            /* HashTableSize of them */
};

namespace {

/*
 * An item the table no longer links (a clean or destroy removed it) has no
 * bucket link; deleting it only gives back the caller's reference.
 */
inline BOOLEAN IsLinked(PHashItem Item)
{
    return Item->m_BucketEntry.Flink != NULL;
}

inline VOID MarkUnlinked(PHashItem Item)
{
    Item->m_BucketEntry.Flink = NULL;
    Item->m_BucketEntry.Blink = NULL;
}

inline ULONG Now(VOID)
{
    return (ULONG)Filter_GetSystemTime();
}

/* Whether the caller is the thread enumerating the table (which holds its lock). */
BOOLEAN CalledByEnumerator(PHashTable Table)
{
    return Table->m_bEnumerating != 0 && Table->m_EnumProcessId == PsGetCurrentProcessId() &&
           Table->m_EnumThreadId == PsGetCurrentThreadId();
}

/*
 * The table lock for one operation: a plain one takes it unless the calling
 * thread is enumerating the table (and so holds it); an Ex one never does.
 */
class TableLock {
public:
    TableLock(PHashTable Table, BOOLEAN Plain, BOOLEAN Write)
        : m_table(Table), m_taken(Plain && !CalledByEnumerator(Table))
    {
        if (m_taken)
            NdisAcquireReadWriteLock(&m_table->m_Lock, Write, &m_state);
    }
    ~TableLock() { Release(); }
    VOID Release()
    {
        if (m_taken)
            NdisReleaseReadWriteLock(&m_table->m_Lock, &m_state);
        m_taken = FALSE;
    }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;

private:
    PHashTable m_table;
    BOOLEAN m_taken;
    LOCK_STATE m_state;
};

/* Frees an item whose last reference is gone: the client's free routine, or Filter_FreeMemory. */
VOID FreeItem(PHashTable Table, PHashItem Item)
{
    if (Table->pfnFreeItem == NULL) {
        Filter_FreeMemory(Item);
        return;
    }
    PFILTER_HASH_FREE_ITEM freeItem = Table->pfnFreeItem;
    LONG code = FilterGuard([&] { freeItem(Item); });
    if (code != 0)
        NF_PRINT_EXCEPTION("Filter_ReleaseHashItem", code);
}

PHashItem InsertItem(PHashTable Table, PHashItem Item, BOOLEAN Plain)
{
    if (Item == NULL)
        return NULL;
    if (Table == NULL) {
        Filter_ReferenceHashItem(Item); /* only if it already names a table */
        return Item;
    }
    Item->m_RefCount = 0;
    Item->m_bDeleted = FALSE;
    Item->m_Time = Now();
    PLIST_ENTRY bucket = &Table->m_Buckets[Item->m_HashValue & Table->m_HashMask];
    {
        TableLock lock(Table, Plain, TRUE);
        Item->m_pHashTable = Table;
        Filter_ReferenceHashTable(Table);
        InsertTailList(&Table->m_ItemList, &Item->m_ListEntry);
        InsertHeadList(bucket, &Item->m_BucketEntry);
        InterlockedIncrement(&Table->m_nItemCount);
        Filter_ReferenceHashItem(Item); /* its membership */
    }
    Filter_ReferenceHashItem(Item); /* the caller's */
    return Item;
}

PHashItem FindItem(PHashTable Table, ULONG HashValue, PVOID Key, BOOLEAN Plain)
{
    if (Table == NULL)
        return NULL;
    TableLock lock(Table, Plain, FALSE);
    PLIST_ENTRY bucket = &Table->m_Buckets[HashValue & Table->m_HashMask];
    PFILTER_HASH_COMPARE_ITEM compare = Table->pfnCompItem;
    for (PLIST_ENTRY link = bucket->Flink; link != bucket; link = link->Flink) {
        PHashItem item = CONTAINING_RECORD(link, HashItem, m_BucketEntry);
        if (item->m_HashValue != HashValue)
            continue;
        BOOLEAN match = TRUE;
        if (compare != NULL) {
            LONG code = FilterGuard([&] { match = compare(item, Key) != FALSE; });
            if (code != 0) {
                NF_PRINT_EXCEPTION("Filter_FindHashItem", code);
                match = FALSE;
            }
        }
        if (match) {
            item->m_Time = Now();
            Filter_ReferenceHashItem(item);
            return item;
        }
    }
    return NULL;
}

BOOLEAN DeleteItem(PHashItem Item, BOOLEAN Plain)
{
    if (Item == NULL || Item->m_pHashTable == NULL)
        return FALSE;
    PHashTable table = Item->m_pHashTable;
    BOOLEAN member = FALSE;
    {
        TableLock lock(table, Plain, TRUE);
        if (Item->m_bDeleted) {
            lock.Release();
            NF_TRACE(NF_DBG_HASH, "DeleteHashItem: double delete hash item, try release hash item\n");
        } else {
            Item->m_bDeleted = TRUE;
            if (IsLinked(Item)) {
                RemoveEntryList(&Item->m_ListEntry);
                RemoveEntryList(&Item->m_BucketEntry);
                MarkUnlinked(Item);
                InterlockedDecrement(&table->m_nItemCount);
                member = TRUE;
            }
        }
    }
    if (member)
        Filter_ReleaseHashItem(Item); /* its membership */
    Filter_ReleaseHashItem(Item);     /* the caller's */
    return TRUE;
}

/*
 * Calls EnumItem for every item from First up to (not including) Head,
 * following the links at LinkOffset inside the items. The next item is read
 * before each call, so a callback may delete the current item but not the
 * next one. The caller holds the table lock as the enumerating thread.
 */
VOID EnumerateItems(PHashTable Table, PLIST_ENTRY Head, SIZE_T LinkOffset, PFILTER_HASH_ENUM_ITEM EnumItem,
                    PVOID Context)
{
    PLIST_ENTRY link = Head->Flink;
    while (link != Head) {
        PLIST_ENTRY next = link->Flink;
        PHashItem item = (PHashItem)((PUCHAR)link - LinkOffset);
        Filter_ReferenceHashItem(item);
        Table->m_pCurrentEnumItem = item;
        LONG code = FilterGuard([&] { EnumItem(Context, item); });
        if (code != 0)
            NF_PRINT_EXCEPTION("Filter_EnumHashTable", code);
        /* A callback that deleted the item has used this reference up. */
        if (Table->m_pCurrentEnumItem == item && !item->m_bDeleted)
            Filter_ReleaseHashItem(item);
        link = next;
    }
}

/*
 * One enumeration: a table reference and the lock for writing around it,
 * the enumerating thread recorded. An enumeration started from inside a
 * callback of the same table runs under the lock already held and gives the
 * outer one its state back.
 */
VOID Enumerate(PHashTable Table, PLIST_ENTRY Head, SIZE_T LinkOffset, PFILTER_HASH_ENUM_ITEM EnumItem, PVOID Context)
{
    Filter_ReferenceHashTable(Table);
    {
        TableLock lock(Table, TRUE, TRUE);
        LONG outerFlag = Table->m_bEnumerating;
        HANDLE outerProcess = Table->m_EnumProcessId;
        HANDLE outerThread = Table->m_EnumThreadId;
        PHashItem outerCurrent = Table->m_pCurrentEnumItem;
        Table->m_EnumProcessId = PsGetCurrentProcessId();
        Table->m_EnumThreadId = PsGetCurrentThreadId();
        InterlockedExchange(&Table->m_bEnumerating, 1);

        EnumerateItems(Table, Head, LinkOffset, EnumItem, Context);

        Table->m_pCurrentEnumItem = outerCurrent;
        Table->m_EnumProcessId = outerProcess;
        Table->m_EnumThreadId = outerThread;
        InterlockedExchange(&Table->m_bEnumerating, outerFlag);
    }
    Filter_ReleaseHashTable(Table);
}

/* Unlinks every item and drops its membership reference; neither the deleted flags nor the count change. */
VOID RemoveAllItems(PHashTable Table)
{
    TableLock lock(Table, TRUE, TRUE);
    while (!IsListEmpty(&Table->m_ItemList)) {
        PHashItem item = CONTAINING_RECORD(RemoveHeadList(&Table->m_ItemList), HashItem, m_ListEntry);
        NF_TRACE(NF_DBG_HASH, "  Remove %s Hash Item 0x%p\n", Table->pItemName, (PVOID)item);
        RemoveEntryList(&item->m_BucketEntry);
        MarkUnlinked(item);
        Filter_ReleaseHashItem(item);
    }
}

} // namespace

/*
 * Filter_CreateHashTable - a table of Size buckets (odd sizes raised by one)
 * holding the creator's reference, or NULL. A size of 0, or one whose
 * adjustment or allocation size overflows, gives NULL as a failed
 * allocation does. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PHashTable NTAPI Filter_CreateHashTable(PCSTR ItemName, ULONG Size, PFILTER_HASH_FREE_ITEM FreeItem,
                                                 PFILTER_HASH_COMPARE_ITEM CompareItem)
{
    NF_ENTER(NF_DBG_HASH, "Filter_CreateHashTable");
    CHAR name[NF_HASH_NAME_SIZE] = "unknown";
    if (ItemName != NULL) {
        LONG code = FilterGuard([&] {
            ULONG i = 0;
            for (; i + 1 < sizeof(name) && ItemName[i] != '\0'; i++)
                name[i] = ItemName[i];
            name[i] = '\0';
        });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_CreateHashTable", code);
            NF_TRACE(NF_DBG_HASH, "Leave Filter_CreateHashTable, pHashTable = 0x%p\n", (PVOID)NULL);
            return NULL;
        }
    }
    NF_TRACE(NF_DBG_HASH, " - HashTableSize = %d\n", (int)Size);
    NF_TRACE(NF_DBG_HASH, " - pItemName     = %s\n", name);
    NF_TRACE(NF_DBG_HASH, " - pfnFreeItem   = 0x%p\n", (PVOID)FreeItem);
    NF_TRACE(NF_DBG_HASH, " - pfnCompItem   = 0x%p\n", (PVOID)CompareItem);
    if (Size & 1) {
        Size = (Size | 1) + 1;
        NF_TRACE(NF_DBG_HASH, "  Adjust HashTableSize to %d\n", (int)Size);
    }

    PHashTable table = NULL;
    /* The fixed part holds one bucket; the others follow it. */
    ULONG64 bytes = (ULONG64)sizeof(HashTable) + (ULONG64)Size * sizeof(LIST_ENTRY);
    if (Size != 0 && bytes <= 0xFFFFFF00ull)
        table = (PHashTable)Filter_AllocateMemory((ULONG)bytes, NF_HASH_POOL_TAG);
    if (table != NULL) {
        RtlZeroMemory(table, (SIZE_T)bytes);
        table->HashTableSize = Size;
        table->m_HashMask = Size - 1;
        RtlCopyMemory(table->m_ItemName, name, sizeof(name));
        table->pItemName = table->m_ItemName;
        table->pfnFreeItem = FreeItem;
        table->pfnCompItem = CompareItem;
        NdisInitializeReadWriteLock(&table->m_Lock);
        InitializeListHead(&table->m_ItemList);
        for (ULONG i = 0; i < Size; i++)
            InitializeListHead(&table->m_Buckets[i]);
        table->m_RefCount = 1; /* the creator's */
    }
    NF_TRACE(NF_DBG_HASH, "Leave Filter_CreateHashTable, pHashTable = 0x%p\n", (PVOID)table);
    return table;
}

/* Filter_DestroyHashTable - removes every item, then drops the creator's reference. */
EXTERN_C VOID NTAPI Filter_DestroyHashTable(PHashTable Table)
{
    NF_ENTER(NF_DBG_HASH, "Filter_DestroyHashTable");
    if (Table != NULL) {
        RemoveAllItems(Table);
        Filter_ReleaseHashTable(Table);
    }
    NF_LEAVE(NF_DBG_HASH, "Filter_DestroyHashTable");
}

/* Filter_CleanHashTable - removes every item; the table stays. */
EXTERN_C VOID NTAPI Filter_CleanHashTable(PHashTable Table)
{
    NF_ENTER(NF_DBG_HASH, "Filter_CleanHashTable");
    if (Table != NULL) {
        Filter_ReferenceHashTable(Table);
        RemoveAllItems(Table);
        Filter_ReleaseHashTable(Table);
    }
    NF_LEAVE(NF_DBG_HASH, "Filter_CleanHashTable");
}

EXTERN_C ULONG NTAPI Filter_GetHashItemCount(PHashTable Table)
{
    return Table != NULL ? (ULONG)InterlockedCompareExchange(&Table->m_nItemCount, 0, 0) : 0;
}

EXTERN_C VOID NTAPI Filter_EnumHashTable(PHashTable Table, PFILTER_HASH_ENUM_ITEM EnumItem, PVOID Context)
{
    NF_ENTER(NF_DBG_HASH, "Filter_EnumHashTable");
    if (Table != NULL && EnumItem != NULL) {
        NF_TRACE(NF_DBG_HASH, " - pfnEnumItem  = 0x%p\n", (PVOID)EnumItem);
        NF_TRACE(NF_DBG_HASH, " - pEnumContext = 0x%p\n", Context);
        Enumerate(Table, &Table->m_ItemList, FIELD_OFFSET(HashItem, m_ListEntry), EnumItem, Context);
    }
    NF_LEAVE(NF_DBG_HASH, "Filter_EnumHashTable");
}

EXTERN_C VOID NTAPI Filter_EnumHashTableEx(PHashTable Table, ULONG HashValue, PFILTER_HASH_ENUM_ITEM EnumItem,
                                           PVOID Context)
{
    NF_ENTER(NF_DBG_HASH, "Filter_EnumHashTableEx");
    if (Table != NULL && EnumItem != NULL) {
        NF_TRACE(NF_DBG_HASH, " - HashValue    = %d\n", (int)HashValue);
        NF_TRACE(NF_DBG_HASH, " - pfnEnumItem  = 0x%p\n", (PVOID)EnumItem);
        NF_TRACE(NF_DBG_HASH, " - pEnumContext = 0x%p\n", Context);
        Enumerate(Table, &Table->m_Buckets[HashValue & Table->m_HashMask], FIELD_OFFSET(HashItem, m_BucketEntry),
                  EnumItem, Context);
    }
    NF_LEAVE(NF_DBG_HASH, "Filter_EnumHashTableEx");
}

/* Filter_LockHashTable - the table lock for writing, for the Ex operations. */
EXTERN_C VOID NTAPI Filter_LockHashTable(PHashTable Table, PLOCK_STATE LockState)
{
    if (Table != NULL && LockState != NULL)
        NdisAcquireReadWriteLock(&Table->m_Lock, TRUE, LockState);
}

EXTERN_C VOID NTAPI Filter_UnLockHashTable(PHashTable Table, PLOCK_STATE LockState)
{
    if (Table != NULL && LockState != NULL)
        NdisReleaseReadWriteLock(&Table->m_Lock, LockState);
}

/*
 * Filter_InsertHashItem - links the item (equal keys are not looked for)
 * and hands the caller a reference: a fresh item counts 2.
 */
EXTERN_C PHashItem NTAPI Filter_InsertHashItem(PHashTable Table, PHashItem Item)
{
    NF_ENTER(NF_DBG_HASH, "Filter_InsertHashItem");
    PHashItem item = InsertItem(Table, Item, TRUE);
    NF_TRACE(NF_DBG_HASH, "Leave Filter_InsertHashItem, pHashItem = 0x%p\n", (PVOID)item);
    return item;
}

EXTERN_C PHashItem NTAPI Filter_InsertHashItemEx(PHashTable Table, PHashItem Item)
{
    NF_ENTER(NF_DBG_HASH, "Filter_InsertHashItemEx");
    PHashItem item = InsertItem(Table, Item, FALSE);
    NF_TRACE(NF_DBG_HASH, "Leave Filter_InsertHashItemEx, pHashItem = 0x%p\n", (PVOID)item);
    return item;
}

/*
 * Filter_FindHashItem - the newest item of HashValue that the compare
 * routine (if any) accepts for Key, with a reference for the caller, or NULL.
 */
EXTERN_C PHashItem NTAPI Filter_FindHashItem(PHashTable Table, ULONG HashValue, PVOID Key)
{
    NF_ENTER(NF_DBG_HASH, "Filter_FindHashItem");
    PHashItem item = FindItem(Table, HashValue, Key, TRUE);
    if (item != NULL)
        NF_TRACE(NF_DBG_HASH, "Leave Filter_FindHashItem, pHashItem = 0x%p\n", (PVOID)item);
    else
        NF_TRACE(NF_DBG_HASH, "Leave Filter_FindHashItem, NULL\n");
    return item;
}

EXTERN_C PHashItem NTAPI Filter_FindHashItemEx(PHashTable Table, ULONG HashValue, PVOID Key)
{
    NF_ENTER(NF_DBG_HASH, "Filter_FindHashItemEx");
    PHashItem item = FindItem(Table, HashValue, Key, FALSE);
    if (item != NULL)
        NF_TRACE(NF_DBG_HASH, "Leave Filter_FindHashItemEx, pHashItem = 0x%p\n", (PVOID)item);
    else
        NF_TRACE(NF_DBG_HASH, "Leave Filter_FindHashItemEx, NULL\n");
    return item;
}

/*
 * Filter_DeleteHashItem - unlinks the item (once) and consumes the caller's
 * reference. FALSE only for NULL or an item that was never inserted.
 */
EXTERN_C BOOLEAN NTAPI Filter_DeleteHashItem(PHashItem Item)
{
    NF_ENTER(NF_DBG_HASH, "Filter_DeleteHashItem");
    BOOLEAN deleted = DeleteItem(Item, TRUE);
    NF_TRACE(NF_DBG_HASH, "Leave Filter_DeleteHashItem, %d\n", (int)deleted);
    return deleted;
}

EXTERN_C BOOLEAN NTAPI Filter_DeleteHashItemEx(PHashItem Item)
{
    NF_ENTER(NF_DBG_HASH, "Filter_DeleteHashItemEx");
    BOOLEAN deleted = DeleteItem(Item, FALSE);
    NF_TRACE(NF_DBG_HASH, "Leave Filter_DeleteHashItemEx, %d\n", (int)deleted);
    return deleted;
}

EXTERN_C VOID NTAPI Filter_ReferenceHashTable(PHashTable Table)
{
    if (Table == NULL)
        return;
    LONG count = InterlockedIncrement(&Table->m_RefCount);
    NF_TRACE(NF_DBG_HASH, "  pHashTable[0x%p/%s]->m_RefCount ++ = %d\n", (PVOID)Table, Table->pItemName, (int)count);
}

/* Filter_ReleaseHashTable - drops a reference; the last frees the table. */
EXTERN_C VOID NTAPI Filter_ReleaseHashTable(PHashTable Table)
{
    if (Table == NULL)
        return;
    LONG count = InterlockedDecrement(&Table->m_RefCount);
    if (count == 0) {
        NF_TRACE(NF_DBG_HASH, "  pHashTable[0x%p/%s]->m_RefCount -- = %d, Free it\n", (PVOID)Table,
                 Table->pItemName, (int)count);
        Filter_FreeMemory(Table);
    } else {
        NF_TRACE(NF_DBG_HASH, "  pHashTable[0x%p/%s]->m_RefCount -- = %d\n", (PVOID)Table, Table->pItemName,
                 (int)count);
    }
}

EXTERN_C VOID NTAPI Filter_ReferenceHashItem(PHashItem Item)
{
    if (Item == NULL || Item->m_pHashTable == NULL)
        return;
    LONG count = InterlockedIncrement((volatile LONG *)&Item->m_RefCount);
    NF_TRACE(NF_DBG_HASH, "  pHashItem[0x%p/%s]->m_RefCount ++ = %d\n", (PVOID)Item, Item->m_pHashTable->pItemName,
             (int)count);
}

/*
 * Filter_ReleaseHashItem - drops a reference; the last frees the item (and
 * gives back its table reference).
 */
EXTERN_C VOID NTAPI Filter_ReleaseHashItem(PHashItem Item)
{
    if (Item == NULL || Item->m_pHashTable == NULL)
        return;
    PHashTable table = Item->m_pHashTable;
    LONG count = InterlockedDecrement((volatile LONG *)&Item->m_RefCount);
    if (count != 0) {
        NF_TRACE(NF_DBG_HASH, "  pHashItem[0x%p/%s]->m_RefCount -- = %d\n", (PVOID)Item, table->pItemName,
                 (int)count);
        return;
    }
    NF_TRACE(NF_DBG_HASH, "  pHashItem[0x%p/%s]->m_RefCount -- = %d, Free it\n", (PVOID)Item, table->pItemName,
             (int)count);
    FreeItem(table, Item);
    InterlockedCompareExchangePointer((PVOID volatile *)&table->m_pCurrentEnumItem, NULL, Item);
    Filter_ReleaseHashTable(table);
}
