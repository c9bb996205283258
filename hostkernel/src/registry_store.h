/*
 * The in-memory registry tree shared by the run-time library's registry
 * routines (registry_rtl.cpp) and host control (registry_store.cpp).
 */
#pragma once
#include "core_internal.h"

#include <stdint.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hk {
namespace core {
namespace registry {

using Name = std::u16string;

struct Value {
    Name name;
    ULONG type;
    std::vector<uint8_t> data;
};

struct Key {
    Name name;
    std::vector<std::unique_ptr<Key>> subkeys;
    std::vector<Value> values; // in creation order
};

// Guards the whole tree. Never hold it while calling driver code.
std::mutex &TreeMutex();

// Full paths are backslash-separated ("\Registry\Machine\..."); names compare without
// regard to case. The caller holds TreeMutex for all of these.

// The key at `path`, or nullptr.
Key *FindKey(const Name &path);
// The key at `path`, created when missing; with createParents the keys above it too.
// nullptr with *status set when the path is invalid or (without createParents) the
// parent is missing.
Key *CreateKey(const Name &path, bool createParents, NTSTATUS *status);
// Deletes the key and everything below it.
NTSTATUS DeleteKey(const Name &path);
Value *FindValue(Key *key, const Name &name);
void SetValue(Key *key, const Name &name, ULONG type, const void *data, size_t length);
bool DeleteValue(Key *key, const Name &name);
void Clear();

// Conversions for paths and names.
Name FromWide(PCWSTR s);
Name FromUtf8(const char *s);
std::string ToUtf8(const Name &s);

} // namespace registry
} // namespace core
} // namespace hk
