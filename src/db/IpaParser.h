#pragma once

#include "kavrel_export.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

// Reads a local .ipa archive (a zip of an iOS app) into an app record: identifier,
// name, version, minimum OS, icon name and bytes, store metadata and platforms.
// All working operations are static; no object of this class is ever needed.
class KAVREL_EXPORT IpaParser : public QObject
{
    Q_OBJECT
public:
    // One app as parsed from an .ipa and as stored in the catalog. Parsing fills only
    // part of it; sizes on a device, presence flags and the file path are set by callers.
    class KAVREL_EXPORT IpaInfo
    {
    public:
        IpaInfo();
        virtual ~IpaInfo();

        // Resets everything except the identifier, the .ipa path and the platforms.
        void clear();
        // Writes every field to the debug stream, one line each.
        void debugInfo();

        QString mAppType;
        QString mAppId;
        QString mAppName;
        QString mVersion;
        QString mAppleId;
        QString mMinOsVer;
        QString mIconName;
        QString mIpaPath;
        quint64 mIpaSize;
        quint64 mAppSize;
        quint64 mDocSize;
        QStringList mDevices;
        QByteArray mIcon;
        bool mFromDownload;
        bool mInDevice;
        bool mInLocal;
    };

    explicit IpaParser(QObject* parent = nullptr);

    // Fills info from the archive at ipaPath without clearing it first; true when the
    // app's Info.plist was read and parsed. The icon bytes are appended to mIcon.
    static bool parseIpa(const QString& ipaPath, IpaInfo* info);
    // plist is the root dictionary (plist_t) of an Info.plist.
    static bool parseInfo(void* plist, IpaInfo* info);
    // plist is the root dictionary (plist_t) of an iTunesMetadata.plist.
    static bool parseMetadata(void* plist, IpaInfo* info);
    // Writes a shorter form of the record to the debug stream.
    static void debugInfo(const IpaInfo& info);
};

// Allocates a fresh record with new; the caller deletes it.
extern "C" KAVREL_EXPORT IpaParser::IpaInfo* createIpaInfo();
