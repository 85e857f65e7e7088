#pragma once

#include "kavrel_export.h"

#include <QString>

// What a queued device operation does. The numbers are stored in OperationInfo::mType
// and compared as plain integers; anything above KOperationArchive is invalid.
enum EOperationType
{
    KOperationListApp = 0,
    KOperationInstall = 1,
    KOperationUpgrade = 2,
    KOperationUninstall = 3,
    KOperationArchive = 4
};

// Index into the command-name table: the operation name an installer writes into its
// failure lines. It numbers the operations differently from EOperationType on purpose
// ("Restore" keeps its slot although nothing selects it), so the two never mix.
enum ECommand
{
    KCommandInstall = 0,
    KCommandUpgrade = 1,
    KCommandUninstall = 2,
    KCommandArchive = 3,
    KCommandRestore = 4,
    KCommandListApp = 5,
    KCommandUnknown = 6
};

// One device operation requested by the host: a plain record, created on the heap by
// the manager and owned by whoever holds it last (the queue, then the installer).
struct KAVREL_EXPORT OperationInfo
{
    OperationInfo();

    // The command-name table: "Install", "Upgrade", "Uninstall", "Archive", "Restore",
    // "ListApp", "Unknown"; an index outside the table gives "Unknown".
    static QString commandName(int command);
    static int commandCount();

    // The same request: every field but the app-list numbers (mAppType, mListFormat),
    // so two app-list requests for one device are equal whatever they ask for.
    bool operator==(const OperationInfo& other) const;
    bool operator!=(const OperationInfo& other) const { return !(*this == other); }

    int mType;       // EOperationType
    int mAppType;    // app list: 0 all, 1 system, 2 user apps
    int mListFormat; // app list: 0 the device's XML text, otherwise JSON
    QString mUdid;
    QString mAppid;    // install/upgrade: replaced by the identifier found in the .ipa
    QString mIpaPath;  // install, upgrade
    QString mCopyPath; // archive: local directory receiving the archive
    bool mIsUpdate;
    bool mAppOnly;       // archive the application without its data
    bool mSkipUninstall; // keep the app installed after archiving
};
