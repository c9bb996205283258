/*
 * The run-time library's registry routines over the in-memory tree.
 *
 * RtlQueryRegistryValues copies what an entry needs out of the tree before it
 * calls the driver's query routine or stores into the driver's memory, so no
 * registry lock is held while driver code runs.
 */
#include "registry_store.h"

#include <string.h>

namespace reg = hk::core::registry;

namespace {

constexpr ULONG kStringTag = HK_POOL_TAG('R', 'e', 'g', 'S');

/* The full key path RelativeTo/Path names, or false for an unknown RelativeTo. */
bool FullPath(ULONG relativeTo, PCWSTR path, reg::Name *full)
{
    static const char *const kBases[RTL_REGISTRY_MAXIMUM] = {
        "",
        "\\Registry\\Machine\\System\\CurrentControlSet\\Services",
        "\\Registry\\Machine\\System\\CurrentControlSet\\Control",
        "\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
        "\\Registry\\Machine\\Hardware\\DeviceMap",
        "\\Registry\\User\\.Default",
    };
    const ULONG base = relativeTo & ~static_cast<ULONG>(RTL_REGISTRY_OPTIONAL);
    if (base >= RTL_REGISTRY_MAXIMUM)
        return false;
    *full = reg::FromUtf8(kBases[base]);
    reg::Name relative = reg::FromWide(path);
    if (base != RTL_REGISTRY_ABSOLUTE && !relative.empty() && relative[0] != u'\\')
        full->push_back(u'\\');
    *full += relative;
    return true;
}

/* Checks the IRQL, rejects what the host does not support (key handles, reported) and
 * unknown bases, and gives the full key path. */
NTSTATUS ResolvePath(ULONG relativeTo, PCWSTR path, const char *api, reg::Name *full)
{
    hk::core::RequireIrqlExactly(PASSIVE_LEVEL, api);
    if (relativeTo & RTL_REGISTRY_HANDLE) {
        hk::VerifierError("%s with RTL_REGISTRY_HANDLE: registry handles are not supported", api);
        return STATUS_NOT_IMPLEMENTED;
    }
    if (!FullPath(relativeTo, path, full))
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

/* Whether values of the type are UTF-16 strings. */
bool IsString(ULONG type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

/* The entry's default type without the TYPECHECK byte. */
ULONG DefaultTypeOf(const RTL_QUERY_REGISTRY_TABLE &entry)
{
    return entry.DefaultType & ~RTL_QUERY_REGISTRY_TYPECHECK_MASK;
}

// One value as an entry sees it, copied out of the tree.
struct Item {
    reg::Name name;
    ULONG type;
    std::vector<uint8_t> data;
};

/* The default of an entry (DefaultLength 0 means the NUL-terminated length of a string). */
Item DefaultItem(const RTL_QUERY_REGISTRY_TABLE &entry)
{
    Item item{reg::FromWide(entry.Name), DefaultTypeOf(entry), {}};
    size_t length = entry.DefaultLength;
    if (length == 0 && entry.DefaultData != nullptr && IsString(item.type)) {
        auto *text = static_cast<PCWSTR>(entry.DefaultData);
        size_t chars = hk::core::WideLength(text) + 1;
        if (item.type == REG_MULTI_SZ) {
            while (text[chars] != 0)
                chars += hk::core::WideLength(text + chars) + 1;
            ++chars;
        }
        length = chars * sizeof(WCHAR);
    }
    if (entry.DefaultData != nullptr && length != 0) {
        auto *bytes = static_cast<const uint8_t *>(entry.DefaultData);
        item.data.assign(bytes, bytes + length);
    }
    return item;
}

/* Stores a string value into the UNICODE_STRING at EntryContext, allocating its buffer
 * from paged pool when Buffer is NULL. */
NTSTATUS StoreDirectString(const Item &item, PUNICODE_STRING target)
{
    // Length excludes one terminator; the stored copy always ends with one.
    size_t length = item.data.size() & ~static_cast<size_t>(1);
    if (length >= sizeof(WCHAR) && item.data[length - 1] == 0 && item.data[length - 2] == 0)
        length -= sizeof(WCHAR);
    const size_t needed = length + sizeof(WCHAR);
    if (needed > 0xFFFE)
        return STATUS_BUFFER_TOO_SMALL;
    if (target->Buffer == nullptr) {
        target->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, needed, kStringTag));
        if (target->Buffer == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
        target->MaximumLength = static_cast<USHORT>(needed);
    } else if (needed > target->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (length != 0)
        memcpy(target->Buffer, item.data.data(), length);
    target->Buffer[length / sizeof(WCHAR)] = 0;
    target->Length = static_cast<USHORT>(length);
    return STATUS_SUCCESS;
}

/* Stores a value into EntryContext as a DIRECT entry asks (see hk/registry.h). */
NTSTATUS StoreDirect(const RTL_QUERY_REGISTRY_TABLE &entry, const Item &item)
{
    if ((entry.Flags & RTL_QUERY_REGISTRY_TYPECHECK) &&
        (entry.DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT) != item.type)
        return STATUS_OBJECT_TYPE_MISMATCH;
    if (entry.EntryContext == nullptr) {
        hk::VerifierError("RtlQueryRegistryValues: DIRECT entry without an EntryContext");
        return STATUS_INVALID_PARAMETER;
    }
    if (IsString(item.type))
        return StoreDirectString(item, static_cast<PUNICODE_STRING>(entry.EntryContext));
    const size_t length = item.data.size();
    auto *target = static_cast<uint8_t *>(entry.EntryContext);
    if (length <= sizeof(ULONG)) {
        if (length != 0)
            memcpy(target, item.data.data(), length);
        return STATUS_SUCCESS;
    }
    LONG size;
    memcpy(&size, target, sizeof size);
    if (size < 0) {
        if (length > static_cast<size_t>(-static_cast<LONGLONG>(size)))
            return STATUS_BUFFER_TOO_SMALL;
        memcpy(target, item.data.data(), length);
        return STATUS_SUCCESS;
    }
    if (length + 2 * sizeof(ULONG) > static_cast<size_t>(size))
        return STATUS_BUFFER_TOO_SMALL;
    const ULONG header[2] = {static_cast<ULONG>(length), item.type};
    memcpy(target, header, sizeof header);
    memcpy(target + sizeof header, item.data.data(), length);
    return STATUS_SUCCESS;
}

/* Calls the entry's query routine with writable, NUL-terminated copies. */
NTSTATUS CallRoutine(const RTL_QUERY_REGISTRY_TABLE &entry, const reg::Name &name, ULONG type,
                     const uint8_t *data, size_t length, PVOID context)
{
    std::vector<WCHAR> nameCopy(name.begin(), name.end());
    nameCopy.push_back(0);
    std::vector<uint8_t> dataCopy(data, data + length);
    dataCopy.resize(length + sizeof(WCHAR)); // a spare terminator for unterminated strings
    return entry.QueryRoutine(nameCopy.data(), type, length != 0 ? dataCopy.data() : nullptr,
                              static_cast<ULONG>(length), context, entry.EntryContext);
}

/* Hands one value to the entry: stored (DIRECT) or passed to the query routine, a
 * REG_MULTI_SZ string by string and a REG_EXPAND_SZ as REG_SZ unless NOEXPAND. */
NTSTATUS Deliver(const RTL_QUERY_REGISTRY_TABLE &entry, const Item &item, PVOID context)
{
    if (entry.Flags & RTL_QUERY_REGISTRY_DIRECT)
        return StoreDirect(entry, item);
    const bool expand = (entry.Flags & RTL_QUERY_REGISTRY_NOEXPAND) == 0;
    if (expand && item.type == REG_MULTI_SZ) {
        const auto *text = reinterpret_cast<const WCHAR *>(item.data.data());
        const size_t chars = item.data.size() / sizeof(WCHAR);
        size_t start = 0;
        while (start < chars && text[start] != 0) {
            size_t end = start;
            while (end < chars && text[end] != 0)
                ++end;
            const size_t bytes = (end - start + (end < chars ? 1 : 0)) * sizeof(WCHAR);
            NTSTATUS status = CallRoutine(entry, item.name, REG_SZ,
                                          reinterpret_cast<const uint8_t *>(text + start), bytes,
                                          context);
            if (!NT_SUCCESS(status))
                return status;
            start = end + 1;
        }
        return STATUS_SUCCESS;
    }
    const ULONG type = expand && item.type == REG_EXPAND_SZ ? REG_SZ : item.type;
    return CallRoutine(entry, item.name, type, item.data.data(), item.data.size(), context);
}

/* Copies one value out of the tree; false when it or its key is missing. */
bool CopyValue(const reg::Name &keyPath, const reg::Name &name, Item *item)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Key *key = reg::FindKey(keyPath);
    reg::Value *value = key == nullptr ? nullptr : reg::FindValue(key, name);
    if (value == nullptr)
        return false;
    *item = Item{value->name, value->type, value->data};
    return true;
}

/* Copies every value of a key (none when the key is missing). */
std::vector<Item> CopyAllValues(const reg::Name &keyPath)
{
    std::vector<Item> items;
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    if (reg::Key *key = reg::FindKey(keyPath)) {
        for (const reg::Value &value : key->values)
            items.push_back(Item{value.name, value.type, value.data});
    }
    return items;
}

/* Whether the key exists now. */
bool KeyExists(const reg::Name &keyPath)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    return reg::FindKey(keyPath) != nullptr;
}

/* Delivers every value of the key to the query routine of an entry without a Name. */
NTSTATUS DeliverAll(const RTL_QUERY_REGISTRY_TABLE &entry, const reg::Name &keyPath,
                    PVOID context)
{
    if (entry.Flags & RTL_QUERY_REGISTRY_NOVALUE)
        return entry.QueryRoutine(nullptr, REG_NONE, nullptr, 0, context, entry.EntryContext);
    std::vector<Item> items = CopyAllValues(keyPath);
    if (items.empty()) {
        if (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        if (DefaultTypeOf(entry) != REG_NONE)
            return Deliver(entry, DefaultItem(entry), context);
        return STATUS_SUCCESS;
    }
    for (const Item &item : items) {
        NTSTATUS status = Deliver(entry, item, context);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

/* Processes one entry that names a value: the value, else its default, else nothing. */
NTSTATUS DeliverNamed(const RTL_QUERY_REGISTRY_TABLE &entry, const reg::Name &keyPath,
                      PVOID context)
{
    const reg::Name name = reg::FromWide(entry.Name);
    Item item;
    if (CopyValue(keyPath, name, &item)) {
        NTSTATUS status = Deliver(entry, item, context);
        if (NT_SUCCESS(status) && (entry.Flags & RTL_QUERY_REGISTRY_DELETE)) {
            std::lock_guard<std::mutex> lock(reg::TreeMutex());
            if (reg::Key *key = reg::FindKey(keyPath))
                reg::DeleteValue(key, name);
        }
        return status;
    }
    if (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (DefaultTypeOf(entry) == REG_NONE)
        return STATUS_SUCCESS;
    return Deliver(entry, DefaultItem(entry), context);
}

/* Processes one table entry with `currentKey` as the key its values come from; SUBKEY
 * and TOPKEY entries move `currentKey`. */
NTSTATUS ProcessEntry(const RTL_QUERY_REGISTRY_TABLE &entry, const reg::Name &topKey,
                      bool optional, reg::Name *currentKey, PVOID context)
{
    if (entry.Flags & RTL_QUERY_REGISTRY_SUBKEY) {
        if (entry.Name == nullptr) {
            hk::VerifierError("RtlQueryRegistryValues: SUBKEY entry without a Name");
            return STATUS_INVALID_PARAMETER;
        }
        *currentKey = topKey + u"\\" + reg::FromWide(entry.Name);
        if (!optional && !KeyExists(*currentKey))
            return STATUS_OBJECT_NAME_NOT_FOUND;
        // With a routine, a SUBKEY entry also enumerates the subkey's values.
        return entry.QueryRoutine != nullptr ? DeliverAll(entry, *currentKey, context)
                                             : STATUS_SUCCESS;
    }
    // TOPKEY returns to the key of Path; the entry is then handled as usual.
    if (entry.Flags & RTL_QUERY_REGISTRY_TOPKEY)
        *currentKey = topKey;
    if (entry.Name == nullptr) {
        if (entry.Flags & RTL_QUERY_REGISTRY_DIRECT) {
            hk::VerifierError("RtlQueryRegistryValues: DIRECT entry without a Name");
            return STATUS_INVALID_PARAMETER;
        }
        return DeliverAll(entry, *currentKey, context);
    }
    if (entry.QueryRoutine == nullptr && !(entry.Flags & RTL_QUERY_REGISTRY_DIRECT)) {
        hk::VerifierError("RtlQueryRegistryValues: entry for a value without a query routine "
                          "or RTL_QUERY_REGISTRY_DIRECT");
        return STATUS_INVALID_PARAMETER;
    }
    return DeliverNamed(entry, *currentKey, context);
}

/* Whether the entry ends the table (no routine, no name, not DIRECT). */
bool IsTableEnd(const RTL_QUERY_REGISTRY_TABLE &entry)
{
    return entry.QueryRoutine == nullptr && entry.Name == nullptr &&
           (entry.Flags & RTL_QUERY_REGISTRY_DIRECT) == 0;
}

} // namespace

/* Reads the values a query table names (see hk/registry.h). IRQL == PASSIVE_LEVEL. */
NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path,
                                      PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                      PVOID Environment)
{
    UNREFERENCED_PARAMETER(Environment);
    reg::Name topKey;
    NTSTATUS status = ResolvePath(RelativeTo, Path, "RtlQueryRegistryValues", &topKey);
    if (!NT_SUCCESS(status))
        return status;
    const bool optional = (RelativeTo & RTL_REGISTRY_OPTIONAL) != 0;
    if (!optional && !KeyExists(topKey))
        return STATUS_OBJECT_NAME_NOT_FOUND;

    reg::Name currentKey = topKey;
    for (PRTL_QUERY_REGISTRY_TABLE entry = QueryTable; !IsTableEnd(*entry); ++entry) {
        status = ProcessEntry(*entry, topKey, optional, &currentKey, Context);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

/* Creates or replaces a value, creating its key when the parent exists. PASSIVE_LEVEL. */
NTSTATUS NTAPI RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName,
                                     ULONG ValueType, PVOID ValueData, ULONG ValueLength)
{
    reg::Name keyPath;
    NTSTATUS status = ResolvePath(RelativeTo, Path, "RtlWriteRegistryValue", &keyPath);
    if (!NT_SUCCESS(status))
        return status;
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Key *key = reg::CreateKey(keyPath, false, &status);
    if (key == nullptr)
        return status;
    reg::SetValue(key, reg::FromWide(ValueName), ValueType, ValueData, ValueLength);
    return STATUS_SUCCESS;
}

/* Deletes a value; STATUS_OBJECT_NAME_NOT_FOUND when it or its key is missing. */
NTSTATUS NTAPI RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName)
{
    reg::Name keyPath;
    NTSTATUS status = ResolvePath(RelativeTo, Path, "RtlDeleteRegistryValue", &keyPath);
    if (!NT_SUCCESS(status))
        return status;
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Key *key = reg::FindKey(keyPath);
    if (key == nullptr || !reg::DeleteValue(key, reg::FromWide(ValueName)))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    return STATUS_SUCCESS;
}

/* STATUS_SUCCESS when the key exists, else STATUS_OBJECT_NAME_NOT_FOUND. PASSIVE_LEVEL. */
NTSTATUS NTAPI RtlCheckRegistryKey(ULONG RelativeTo, PWSTR Path)
{
    reg::Name keyPath;
    NTSTATUS status = ResolvePath(RelativeTo, Path, "RtlCheckRegistryKey", &keyPath);
    if (!NT_SUCCESS(status))
        return status;
    return KeyExists(keyPath) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

/* Creates the key; its parent must exist. PASSIVE_LEVEL. */
NTSTATUS NTAPI RtlCreateRegistryKey(ULONG RelativeTo, PWSTR Path)
{
    reg::Name keyPath;
    NTSTATUS status = ResolvePath(RelativeTo, Path, "RtlCreateRegistryKey", &keyPath);
    if (!NT_SUCCESS(status))
        return status;
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::CreateKey(keyPath, false, &status);
    return status;
}
