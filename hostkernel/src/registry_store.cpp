/*
 * The in-memory registry tree and its host control.
 *
 * Keys and values keep the case they were created with and are found
 * without regard to case. Host programs name keys and values in UTF-8; the
 * tree holds UTF-16, as the kernel sees it.
 */
#include "registry_store.h"

#include <string.h>

namespace hk {
namespace core {
namespace registry {
namespace {

/* The unnamed key above \Registry. */
Key &Root()
{
    static Key *root = new Key; // never destroyed: drivers may read the registry at exit
    return *root;
}

/* Whether two names are equal ignoring case. */
bool SameName(const Name &a, const Name &b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (UpcaseChar(static_cast<WCHAR>(a[i])) != UpcaseChar(static_cast<WCHAR>(b[i])))
            return false;
    }
    return true;
}

/* The components of a full path; false when it does not start with a backslash or has an
 * empty component. */
bool SplitPath(const Name &path, std::vector<Name> *parts)
{
    if (path.empty() || path[0] != u'\\')
        return false;
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find(u'\\', start);
        if (end == Name::npos)
            end = path.size();
        if (end == start)
            return end == path.size() && !parts->empty(); // allow one trailing backslash
        parts->push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return !parts->empty();
}

/* The subkey named `name`, or nullptr. */
Key *FindChild(Key *key, const Name &name)
{
    for (auto &child : key->subkeys) {
        if (SameName(child->name, name))
            return child.get();
    }
    return nullptr;
}

} // namespace

/* The lock of the whole tree (never destroyed). */
std::mutex &TreeMutex()
{
    static std::mutex *mutex = new std::mutex;
    return *mutex;
}

/* The key at a full path, or nullptr. Caller holds TreeMutex. */
Key *FindKey(const Name &path)
{
    std::vector<Name> parts;
    if (!SplitPath(path, &parts))
        return nullptr;
    Key *key = &Root();
    for (const Name &part : parts) {
        key = FindChild(key, part);
        if (key == nullptr)
            return nullptr;
    }
    return key;
}

/* The key at a full path, created as needed (see registry_store.h). Caller holds TreeMutex. */
Key *CreateKey(const Name &path, bool createParents, NTSTATUS *status)
{
    std::vector<Name> parts;
    if (!SplitPath(path, &parts)) {
        *status = STATUS_OBJECT_NAME_INVALID;
        return nullptr;
    }
    Key *key = &Root();
    for (size_t i = 0; i < parts.size(); ++i) {
        Key *child = FindChild(key, parts[i]);
        if (child == nullptr) {
            if (!createParents && i + 1 < parts.size()) {
                *status = STATUS_OBJECT_NAME_NOT_FOUND;
                return nullptr;
            }
            key->subkeys.push_back(std::make_unique<Key>());
            child = key->subkeys.back().get();
            child->name = parts[i];
        }
        key = child;
    }
    *status = STATUS_SUCCESS;
    return key;
}

/* Deletes a key with its subtree. Caller holds TreeMutex. */
NTSTATUS DeleteKey(const Name &path)
{
    std::vector<Name> parts;
    if (!SplitPath(path, &parts))
        return STATUS_OBJECT_NAME_INVALID;
    Key *parent = &Root();
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        parent = FindChild(parent, parts[i]);
        if (parent == nullptr)
            return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    for (auto it = parent->subkeys.begin(); it != parent->subkeys.end(); ++it) {
        if (SameName((*it)->name, parts.back())) {
            parent->subkeys.erase(it);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

/* The value named `name`, or nullptr. Caller holds TreeMutex. */
Value *FindValue(Key *key, const Name &name)
{
    for (Value &value : key->values) {
        if (SameName(value.name, name))
            return &value;
    }
    return nullptr;
}

/* Creates or replaces a value. Caller holds TreeMutex. */
void SetValue(Key *key, const Name &name, ULONG type, const void *data, size_t length)
{
    Value *value = FindValue(key, name);
    if (value == nullptr) {
        key->values.push_back(Value{name, type, {}});
        value = &key->values.back();
    }
    value->type = type;
    const auto *bytes = static_cast<const uint8_t *>(data);
    value->data.assign(bytes, bytes + length);
}

/* Deletes a value; false when missing. Caller holds TreeMutex. */
bool DeleteValue(Key *key, const Name &name)
{
    for (auto it = key->values.begin(); it != key->values.end(); ++it) {
        if (SameName(it->name, name)) {
            key->values.erase(it);
            return true;
        }
    }
    return false;
}

/* Deletes every key. Caller holds TreeMutex. */
void Clear()
{
    Root().subkeys.clear();
    Root().values.clear();
}

/* A NUL-terminated UTF-16 string as a Name (NULL gives an empty one). */
Name FromWide(PCWSTR s)
{
    Name name;
    if (s != nullptr)
        name.assign(reinterpret_cast<const char16_t *>(s), WideLength(s));
    return name;
}

/* UTF-8 to UTF-16 (surrogate pairs above the BMP; malformed bytes become U+FFFD). */
Name FromUtf8(const char *s)
{
    Name name;
    const auto *p = reinterpret_cast<const unsigned char *>(s == nullptr ? "" : s);
    while (*p != 0) {
        uint32_t c = *p++;
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        if (c >= 0x80 && extra == 0) {
            name.push_back(u'\xFFFD');
            continue;
        }
        c &= extra == 3 ? 0x07 : extra == 2 ? 0x0F : extra == 1 ? 0x1F : 0x7F;
        for (; extra > 0; --extra) {
            if ((*p & 0xC0) != 0x80) {
                c = 0xFFFD;
                break;
            }
            c = (c << 6) | (*p++ & 0x3F);
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            name.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
            name.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
        } else {
            name.push_back(static_cast<char16_t>(c));
        }
    }
    return name;
}

/* UTF-16 to UTF-8 for messages (unpaired surrogates become U+FFFD). */
std::string ToUtf8(const Name &s)
{
    std::string text;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
            s[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            text.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            text.push_back(static_cast<char>(0xC0 | (c >> 6)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            text.push_back(static_cast<char>(0xE0 | (c >> 12)));
            text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            text.push_back(static_cast<char>(0xF0 | (c >> 18)));
            text.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return text;
}

} // namespace registry
} // namespace core
} // namespace hk

/* ---- host control ---- */

namespace reg = hk::core::registry;

namespace {

/* Sets a value, creating its key and the keys above it. */
NTSTATUS SetHostValue(const char *keyPath, const char *valueName, ULONG type, const void *data,
                      size_t length)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    NTSTATUS status;
    reg::Key *key = reg::CreateKey(reg::FromUtf8(keyPath), true, &status);
    if (key == nullptr)
        return status;
    reg::SetValue(key, reg::FromUtf8(valueName), type, data, length);
    return STATUS_SUCCESS;
}

/* A string's UTF-16 code units with the terminator. */
reg::Name Terminated(const char *utf8)
{
    reg::Name text = reg::FromUtf8(utf8);
    text.push_back(u'\0');
    return text;
}

} // namespace

/* Creates the key and those above it. */
NTSTATUS HkRegistryCreateKey(const char *KeyPath)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    NTSTATUS status;
    reg::CreateKey(reg::FromUtf8(KeyPath), true, &status);
    return status;
}

/* Deletes the key with its subtree. */
NTSTATUS HkRegistryDeleteKey(const char *KeyPath)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    return reg::DeleteKey(reg::FromUtf8(KeyPath));
}

/* A REG_DWORD value. */
NTSTATUS HkRegistrySetDword(const char *KeyPath, const char *ValueName, ULONG Value)
{
    return SetHostValue(KeyPath, ValueName, REG_DWORD, &Value, sizeof Value);
}

/* A REG_SZ value from UTF-8. */
NTSTATUS HkRegistrySetString(const char *KeyPath, const char *ValueName, const char *Value)
{
    reg::Name text = Terminated(Value);
    return SetHostValue(KeyPath, ValueName, REG_SZ, text.data(), text.size() * sizeof(char16_t));
}

/* REG_MULTI_SZ: each string terminated, then one more terminator. */
NTSTATUS HkRegistrySetMultiString(const char *KeyPath, const char *ValueName,
                                  const char *const *Values, ULONG Count)
{
    reg::Name text;
    for (ULONG i = 0; i < Count; ++i)
        text += Terminated(Values[i]);
    text.push_back(u'\0');
    return SetHostValue(KeyPath, ValueName, REG_MULTI_SZ, text.data(),
                        text.size() * sizeof(char16_t));
}

/* A REG_BINARY value. */
NTSTATUS HkRegistrySetBinary(const char *KeyPath, const char *ValueName, const void *Data,
                             ULONG Length)
{
    return SetHostValue(KeyPath, ValueName, REG_BINARY, Data, Length);
}

/* A value of any type from raw bytes. */
NTSTATUS HkRegistrySetValue(const char *KeyPath, const char *ValueName, ULONG Type,
                            const void *Data, ULONG Length)
{
    return SetHostValue(KeyPath, ValueName, Type, Data, Length);
}

/* Deletes a value; STATUS_OBJECT_NAME_NOT_FOUND when it is missing. */
NTSTATUS HkRegistryDeleteValue(const char *KeyPath, const char *ValueName)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Key *key = reg::FindKey(reg::FromUtf8(KeyPath));
    if (key == nullptr || !reg::DeleteValue(key, reg::FromUtf8(ValueName)))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    return STATUS_SUCCESS;
}

/* Copies a value's type and bytes (see hk/host_core.h). */
NTSTATUS HkRegistryGetValue(const char *KeyPath, const char *ValueName, ULONG *Type, void *Data,
                            ULONG *Length)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Key *key = reg::FindKey(reg::FromUtf8(KeyPath));
    reg::Value *value = key == nullptr ? nullptr : reg::FindValue(key, reg::FromUtf8(ValueName));
    if (value == nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (Type != nullptr)
        *Type = value->type;
    const ULONG size = static_cast<ULONG>(value->data.size());
    const ULONG room = Length != nullptr ? *Length : 0;
    if (Length != nullptr)
        *Length = size;
    if (size > room || (size != 0 && Data == nullptr))
        return STATUS_BUFFER_OVERFLOW;
    if (size != 0)
        memcpy(Data, value->data.data(), size);
    return STATUS_SUCCESS;
}

/* Empties the registry. */
void HkRegistryReset(void)
{
    std::lock_guard<std::mutex> lock(reg::TreeMutex());
    reg::Clear();
}
