#include "Plist.h"

#include <cstdlib>
#include <cstring>

namespace devsim {

Plist plistFromBytes(const char* data, size_t size)
{
    if (!data || size == 0 || size > 0xFFFFFFFFu)
        return nullptr;
    plist_t node = nullptr;
    if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0)
        plist_from_bin(data, static_cast<uint32_t>(size), &node);
    else
        plist_from_xml(data, static_cast<uint32_t>(size), &node);
    return Plist(node);
}

std::string plistToXml(plist_t node)
{
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    std::string out = xml ? std::string(xml, length) : std::string();
    free(xml);
    return out;
}

std::string plistToBinary(plist_t node)
{
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &bin, &length);
    std::string out = bin ? std::string(bin, length) : std::string();
    free(bin);
    return out;
}

plist_t dictItem(plist_t dict, const char* key, plist_type type)
{
    if (!dict || plist_get_node_type(dict) != PLIST_DICT)
        return nullptr;
    plist_t item = plist_dict_get_item(dict, key);
    if (!item || plist_get_node_type(item) != type)
        return nullptr;
    return item;
}

std::string nodeString(plist_t node)
{
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return {};
    char* value = nullptr;
    plist_get_string_val(node, &value);
    std::string out = value ? value : "";
    free(value);
    return out;
}

std::string dictString(plist_t dict, const char* key, const std::string& fallback)
{
    plist_t item = dictItem(dict, key, PLIST_STRING);
    return item ? nodeString(item) : fallback;
}

uint64_t dictUInt(plist_t dict, const char* key, uint64_t fallback)
{
    plist_t item = dictItem(dict, key, PLIST_UINT);
    if (!item)
        return fallback;
    uint64_t value = 0;
    plist_get_uint_val(item, &value);
    return value;
}

bool dictBool(plist_t dict, const char* key, bool fallback)
{
    plist_t item = dictItem(dict, key, PLIST_BOOLEAN);
    if (!item)
        return fallback;
    uint8_t value = 0;
    plist_get_bool_val(item, &value);
    return value != 0;
}

std::string dictData(plist_t dict, const char* key)
{
    plist_t item = dictItem(dict, key, PLIST_DATA);
    if (!item)
        return {};
    char* value = nullptr;
    uint64_t length = 0;
    plist_get_data_val(item, &value, &length);
    std::string out = value ? std::string(value, length) : std::string();
    free(value);
    return out;
}

void dictSet(plist_t dict, const char* key, Plist value)
{
    plist_dict_set_item(dict, key, value.release());
}

void dictSetString(plist_t dict, const char* key, const std::string& value)
{
    plist_dict_set_item(dict, key, plist_new_string(value.c_str()));
}

void dictSetUInt(plist_t dict, const char* key, uint64_t value)
{
    plist_dict_set_item(dict, key, plist_new_uint(value));
}

void dictSetBool(plist_t dict, const char* key, bool value)
{
    plist_dict_set_item(dict, key, plist_new_bool(value ? 1 : 0));
}

void dictSetData(plist_t dict, const char* key, const std::string& value)
{
    plist_dict_set_item(dict, key, plist_new_data(value.data(), value.size()));
}

std::vector<std::string> dictKeys(plist_t dict)
{
    std::vector<std::string> keys;
    if (!dict || plist_get_node_type(dict) != PLIST_DICT)
        return keys;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(dict, &it);
    while (it) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, it, &key, &value);
        if (!key)
            break;
        keys.emplace_back(key);
        free(key);
    }
    free(it);
    return keys;
}

} // namespace devsim
