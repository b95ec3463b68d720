// Keys and values in memory. A key lives until shutdown; handles refer to objects of the Key type, which hold a pointer
// to it. One lock guards names, values and data of all keys.
#pragma once

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include <ntifs.h>

#include "ob/object.h"

namespace nthost::zw {

struct NameLess {
    using is_transparent = void;
    bool operator()(std::u16string_view a, std::u16string_view b) const;
};

struct KeyValue {
    ULONG Type;
    std::vector<unsigned char> Data;
};

// Under RegistryLock.
struct Key {
    std::map<std::u16string, std::unique_ptr<Key>, NameLess> Subkeys;
    std::map<std::u16string, KeyValue, NameLess> Values;
};

std::shared_mutex& RegistryLock();

// The subkey at the path of components separated by backslashes, none of them empty; null if there is none. The empty
// path is the key itself. The lock is held.
Key* FindKey(Key* key, std::u16string_view path);
Key* MakeKey(Key* key, std::u16string_view path); // the lock is held exclusively
// The key that the name \Registry stands for; null while not booted.
Key* RootKey();

void BootRegistry();
void ShutdownRegistry();

// key.cpp: the body of Key objects, and the type.
struct KeyBody {
    Key* Node;
};
extern OBJECT_TYPE* const KeyType;
// A new object on the key, one reference; null without memory.
void* NewKeyObject(Key* key);

} // namespace nthost::zw
