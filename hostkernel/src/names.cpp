// Host kernel runtime, I/O area: the namespace of named objects.
//
// A flat map from full, case-folded paths to named objects (devices, driver
// objects) and symbolic links. "\DosDevices\X" and "\GLOBAL??\X" are stored
// and looked up as "\??\X", so every spelling reaches the same link.
#include "io_internal.h"

#include <map>

namespace hk {
namespace {

struct NameEntry {
    Name displayName;
    void *body = nullptr; // named object, or nullptr for a link
    Name target;          // link target
};

struct Namespace {
    std::mutex lock;
    std::map<Name, NameEntry> entries;
};

Namespace &Names()
{
    static Namespace *names = new Namespace();
    return *names;
}

bool StartsWith(const Name &s, const Name &prefix)
{
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

// The lookup key: case-folded, with the DOS device directory aliases unified.
Name Canonical(const Name &name)
{
    Name key = UpcaseName(name);
    static const Name aliases[] = {u"\\DOSDEVICES\\", u"\\GLOBAL??\\"};
    for (const Name &alias : aliases) {
        if (StartsWith(key, alias))
            return Name(u"\\??\\") + key.substr(alias.size());
    }
    return key;
}

bool IsFullPath(const Name &name)
{
    return name.size() >= 2 && name[0] == u'\\' && name.back() != u'\\';
}

} // namespace

// Registers a named object. Any IRQL (callers are at PASSIVE_LEVEL).
NTSTATUS NameInsertObject(const Name &name, void *body)
{
    if (!IsFullPath(name))
        return STATUS_OBJECT_NAME_INVALID;
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    NameEntry entry;
    entry.displayName = name;
    entry.body = body;
    if (!ns.entries.emplace(Canonical(name), entry).second)
        return STATUS_OBJECT_NAME_COLLISION;
    return STATUS_SUCCESS;
}

// Unregisters a name that still refers to `body`.
void NameRemoveObject(const Name &name, const void *body)
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    auto it = ns.entries.find(Canonical(name));
    if (it != ns.entries.end() && it->second.body == body)
        ns.entries.erase(it);
}

// Creates a symbolic link; the target is resolved when the link is opened.
NTSTATUS NameInsertLink(const Name &link, const Name &target)
{
    if (!IsFullPath(link) || !IsFullPath(target))
        return STATUS_OBJECT_NAME_INVALID;
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    NameEntry entry;
    entry.displayName = link;
    entry.target = target;
    if (!ns.entries.emplace(Canonical(link), entry).second)
        return STATUS_OBJECT_NAME_COLLISION;
    return STATUS_SUCCESS;
}

// Deletes a symbolic link; STATUS_OBJECT_NAME_NOT_FOUND when there is none.
NTSTATUS NameRemoveLink(const Name &link)
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    auto it = ns.entries.find(Canonical(link));
    if (it == ns.entries.end() || it->second.body != nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    ns.entries.erase(it);
    return STATUS_SUCCESS;
}

bool NameLinkExists(const Name &link)
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    auto it = ns.entries.find(Canonical(link));
    return it != ns.entries.end() && it->second.body == nullptr;
}

void *NameLookupObject(const Name &name)
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    auto it = ns.entries.find(Canonical(name));
    return it == ns.entries.end() ? nullptr : it->second.body;
}

// Walks the path one component at a time from the root, substituting links as
// they are met, until a device is reached. The device is referenced.
NTSTATUS NameResolveDevice(const Name &path, PDEVICE_OBJECT *device, Name *remainder)
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    Name key = Canonical(path);
    for (int depth = 0; depth < 32; ++depth) {
        bool substituted = false;
        for (size_t end = 1; end <= key.size() && !substituted; ++end) {
            if (end != key.size() && key[end] != u'\\')
                continue;
            auto it = ns.entries.find(key.substr(0, end));
            if (it == ns.entries.end())
                continue;
            Name rest = key.substr(end);
            if (it->second.body == nullptr) {
                key = Canonical(it->second.target) + rest;
                substituted = true;
            } else if (ObjectIsOfType(it->second.body, kDeviceTypeName)) {
                // The remainder keeps the caller's spelling.
                *remainder = path.size() >= rest.size() ? path.substr(path.size() - rest.size())
                                                        : rest;
                ObfReferenceObject(it->second.body);
                *device = static_cast<PDEVICE_OBJECT>(it->second.body);
                return STATUS_SUCCESS;
            } else {
                return STATUS_OBJECT_TYPE_MISMATCH;
            }
        }
        if (!substituted)
            return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND; // a loop of links
}

std::vector<std::pair<Name, Name>> NameListLinks()
{
    Namespace &ns = Names();
    std::lock_guard<std::mutex> guard(ns.lock);
    std::vector<std::pair<Name, Name>> links;
    for (const auto &entry : ns.entries) {
        if (entry.second.body == nullptr)
            links.emplace_back(entry.second.displayName, entry.second.target);
    }
    return links;
}

} // namespace hk
