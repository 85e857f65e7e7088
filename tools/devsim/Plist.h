#pragma once
// Small owning wrapper and helpers around libplist nodes.

#include <plist/plist.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace devsim {

struct PlistDeleter
{
    void operator()(plist_t node) const
    {
        if (node)
            plist_free(node);
    }
};
// Owns a plist node (a root; never a node that still sits inside a parent).
using Plist = std::unique_ptr<void, PlistDeleter>;

inline Plist plistDict()
{
    return Plist(plist_new_dict());
}
inline Plist plistArray()
{
    return Plist(plist_new_array());
}
inline Plist plistCopy(plist_t node)
{
    return Plist(node ? plist_copy(node) : nullptr);
}

// Parses XML or binary property-list bytes; null when they are not a property list.
Plist plistFromBytes(const char* data, size_t size);
inline Plist plistFromBytes(const std::string& bytes)
{
    return plistFromBytes(bytes.data(), bytes.size());
}
std::string plistToXml(plist_t node);
std::string plistToBinary(plist_t node);

// Typed reads from a dictionary; the fallback when the key is missing or of another kind.
std::string dictString(plist_t dict, const char* key, const std::string& fallback = {});
uint64_t dictUInt(plist_t dict, const char* key, uint64_t fallback = 0);
bool dictBool(plist_t dict, const char* key, bool fallback = false);
std::string dictData(plist_t dict, const char* key);
plist_t dictItem(plist_t dict, const char* key, plist_type type);

// Writes into a dictionary (replacing an existing item).
void dictSetString(plist_t dict, const char* key, const std::string& value);
void dictSetUInt(plist_t dict, const char* key, uint64_t value);
void dictSetBool(plist_t dict, const char* key, bool value);
void dictSetData(plist_t dict, const char* key, const std::string& value);
// Takes ownership of value.
void dictSet(plist_t dict, const char* key, Plist value);

// Keys of a dictionary, in its order.
std::vector<std::string> dictKeys(plist_t dict);

std::string nodeString(plist_t node);

} // namespace devsim
