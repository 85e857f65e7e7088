// libFuzzer target: property-list bytes (binary or XML, chosen by the "bplist00" magic
// as the library does) rendered into the device report's JSON text, plus the typed
// lookups that read values out of a device's dictionaries.

#include "DeviceHelper.h"
#include "FuzzQuiet.h"

#include <QString>
#include <QStringList>

#include <plist/plist.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plist_t root = nullptr;
    if (size <= 1 << 20)
        DeviceHelper::plistFromBuffer(reinterpret_cast<const char*>(data), unsigned(size), &root);
    if (!root)
        return 0;
    QString json, text;
    DeviceHelper::nodeToJson(json, root);
    quint64 number = 0;
    QStringList list;
    // Keys the library looks up in device answers, whatever type they hold here.
    for (const char* key : {"CFBundleIdentifier", "CFBundleSupportedPlatforms", "Total",
                            "PercentComplete", "Status", ""}) {
        if (plist_get_node_type(root) != PLIST_DICT)
            break;
        DeviceHelper::getDictString(root, key, text);
        DeviceHelper::getDictUInt(root, key, &number);
        DeviceHelper::getDictStringList(root, key, list);
        DeviceHelper::getDictFirstString(root, key, text);
        DeviceHelper::getMetaString(root, key);
    }
    plist_free(root);
    return 0;
}
