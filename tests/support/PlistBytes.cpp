#include "PlistBytes.h"

#include <cstdlib>

namespace kavreltest {

QByteArray plistBytes(plist_t node, bool binary)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    if (binary)
        plist_to_bin(node, &bytes, &length);
    else
        plist_to_xml(node, &bytes, &length);
    const QByteArray result(bytes, int(length));
    free(bytes);
    plist_free(node);
    return result;
}

} // namespace kavreltest
