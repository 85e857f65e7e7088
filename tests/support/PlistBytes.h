#pragma once
// Property-list files made from libplist nodes, for tests that feed them to the parsers.

#include <QByteArray>

#include <plist/plist.h>

namespace kavreltest {

// The node written as a binary ("bplist00") or an XML property list. Takes the node and
// frees it, so a freshly built tree can be passed straight in.
QByteArray plistBytes(plist_t node, bool binary);

} // namespace kavreltest
