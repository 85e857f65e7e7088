#pragma once

#include "kavrel_export.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <libimobiledevice/afc.h>
#include <plist/plist.h>
#include <zip.h>

// Static helpers for device discovery, property-list rendering and lookup, .ipa
// archive entries and device files. Nothing creates an instance.
class KAVREL_EXPORT DeviceHelper : public QObject
{
    Q_OBJECT
public:
    explicit DeviceHelper(QObject* parent = nullptr);

    // A device that vanishes mid-transfer leaves the device library writing to a closed
    // socket on some thread. On POSIX systems that raises SIGPIPE, whose default action
    // ends the process: when the host left it at the default, it is ignored from here on
    // (the write then fails with EPIPE and the operation reports its failure). A host
    // that installed its own handler keeps it. Called by every session and the manager.
    static void keepHostAliveOnUnplug();

    // Device discovery.
    static QStringList getUdids();
    static QString getFirstUdid();
    static QString getMetaString(plist_t dict, const char* key);
    // A malloc'ed copy of a string node's text (up to its first zero byte), or null
    // when the node is no string. Use it for every text a device sends.
    static char* copyString(plist_t node);

    // Property-list rendering into JSON-like text, appended to out.
    static void nodeToJson(QString& out, plist_t node);
    static void dictToJson(QString& out, plist_t dict);
    static void arrayToJson(QString& out, plist_t array);

    // Typed lookups in a dictionary; the output is left unchanged when not found.
    static void getDictString(plist_t dict, const QString& key, QString& value);
    static void getDictUInt(plist_t dict, const QString& key, quint64* value);
    static void getDictStringList(plist_t dict, const QString& key, QStringList& values);
    static void getDictFirstString(plist_t dict, const QString& key, QString& value);

    // Archive and device-file helpers. Buffers are malloc'ed; callers free() them.
    static int readZipEntry(zip* archive, const char* name, int flags, char** buffer,
                            unsigned int* size);
    static void plistFromBuffer(const char* bytes, unsigned int length, plist_t* result);
    static void readAfcFile(afc_client_t afc, const char* path, char** buffer, quint64* size);
    static void parseAfcFileInfo(char** info, int* kind, unsigned int* size);
    static afc_error_t getAfcPathSize(afc_client_t afc, const char* path, unsigned int* total);
};
