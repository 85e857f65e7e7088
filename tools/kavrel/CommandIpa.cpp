// kavrel ipa: parse local .ipa files, print each record and keep it in the catalog.

#include "CatalogCommon.h"
#include "Command.h"
#include "DeviceCommon.h"

#include "DBManager.h"
#include "IpaParser.h"
#include "Utility.h"

#include <QFileInfo>
#include <QSqlQuery>

using namespace kavrelcli;

namespace {

QString recordJson(const IpaParser::IpaInfo& info)
{
    QVariantMap map;
    map.insert(QStringLiteral("bundle_id"), info.mAppId);
    map.insert(QStringLiteral("appname"), info.mAppName);
    map.insert(QStringLiteral("version"), info.mVersion);
    map.insert(QStringLiteral("comp"), info.mMinOsVer);
    map.insert(QStringLiteral("apptype"), info.mAppType);
    map.insert(QStringLiteral("appleid"), info.mAppleId);
    map.insert(QStringLiteral("devices"), info.mDevices.join(QLatin1Char(',')));
    map.insert(QStringLiteral("iconname"), info.mIconName);
    map.insert(QStringLiteral("iconsize"), info.mIcon.size());
    map.insert(QStringLiteral("ipapath"), info.mIpaPath);
    map.insert(QStringLiteral("ipasize"), qulonglong(info.mIpaSize));
    map.insert(QStringLiteral("appsize"), qulonglong(info.mAppSize));
    map.insert(QStringLiteral("docsize"), qulonglong(info.mDocSize));
    map.insert(QStringLiteral("inlocal"), info.mInLocal);
    map.insert(QStringLiteral("indevice"), info.mInDevice);
    map.insert(QStringLiteral("fromdownload"), info.mFromDownload);
    return Utility::toJsonString(map);
}

// Why a file gives no record the catalog could keep; empty when it gives one.
QString parseProblem(const QString& file, IpaParser::IpaInfo& info)
{
    if (!QFileInfo(file).isFile())
        return QStringLiteral("no such file");
    // The parser refuses paths shorter than 2 bytes; the user's file "x" is a path too.
    if (!IpaParser::parseIpa(QFileInfo(file).absoluteFilePath(), &info))
        return QStringLiteral("not an .ipa archive with a readable Info.plist");
    if (info.mAppId.isEmpty())
        return QStringLiteral("the first Info.plist in the archive names no bundle identifier");
    // The catalog finds rows by identifier through quoted SQL text, where an apostrophe
    // never matches: such a record could be stored once but never found again.
    if (info.mAppId.contains(QLatin1Char('\'')))
        return QStringLiteral("bundle identifier holds an apostrophe");
    return QString();
}

// Saving overwrites every size column. The bundle and documents sizes describe the app
// as installed on a device, which a file cannot tell, so a known app keeps its measured
// ones. They are read straight from the catalog: a record read by getAppById passes
// sizes through a signed 32-bit integer, which would corrupt sizes above 2 GiB.
void keepDeviceSizes(IpaParser::IpaInfo& info)
{
    QSqlQuery query;
    query.prepare(
        QStringLiteral("SELECT appsize, docsize FROM table_appinfo WHERE appid = :appid"));
    query.bindValue(QStringLiteral(":appid"), info.mAppId);
    if (!query.exec() || !query.next())
        return;
    info.mAppSize = query.value(0).toULongLong();
    info.mDocSize = query.value(1).toULongLong();
}

bool holdsApostrophe(const IpaParser::IpaInfo& info)
{
    const QStringList texts{
        info.mAppType, info.mAppName, info.mVersion,  info.mMinOsVer,
        info.mAppleId, info.mIpaPath, info.mIconName, info.mDevices.join(QLatin1Char(','))};
    return texts.join(QString()).contains(QLatin1Char('\''));
}

// Saves the record and reads it back; empty when the catalog holds it. The catalog
// refuses an update whose texts hold an apostrophe and keeps the stored row, so a save
// is only reported as done when the row reads back as this file's local app.
QString storeRecord(DBManager* db, IpaParser::IpaInfo& info)
{
    keepDeviceSizes(info);
    db->saveAppinfo(&info);
    // A row that existed before keeps its icon; one without an icon gets this one.
    if (!info.mIcon.isEmpty())
        db->saveAppIcon(info.mAppId, info.mIcon);
    IpaParser::IpaInfo stored;
    if (!db->getAppById(info.mAppId, &stored))
        return QStringLiteral("could not store the record in the catalog");
    if (stored.mInLocal && stored.mIpaPath == info.mIpaPath && stored.mAppName == info.mAppName &&
        stored.mVersion == info.mVersion)
        return QString();
    if (holdsApostrophe(info))
        return QStringLiteral("the catalog kept its earlier record of this app: it cannot "
                              "update a record whose texts hold an apostrophe");
    return QStringLiteral("the catalog kept its earlier record of this app");
}

int runIpa(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral(".ipa files to add."),
                                 QStringLiteral("FILE..."));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("ipa"), args, code))
        return code;
    const QStringList files = parser.positionalArguments();
    if (files.isEmpty()) {
        err() << "kavrel ipa: give at least one .ipa file\n";
        err().flush();
        return 2;
    }
    quietLibraryLog();
    DBManager* db = openCatalog(QStringLiteral("ipa"));
    if (!db)
        return 1;

    int failures = 0;
    for (const QString& file : files) {
        IpaParser::IpaInfo info;
        const QString problem = parseProblem(file, info);
        if (!problem.isEmpty()) {
            err() << "kavrel ipa: " << file << ": " << problem << "\n";
            err().flush();
            ++failures;
            continue;
        }
        info.mInLocal = true;
        info.mIpaPath = QFileInfo(file).absoluteFilePath();
        // The catalog lists only apps with a name; an app without a display name is
        // listed under its file's name rather than not at all.
        if (info.mAppName.isEmpty())
            info.mAppName = QFileInfo(file).completeBaseName();
        const QString refused = storeRecord(db, info);
        if (!refused.isEmpty()) {
            err() << "kavrel ipa: " << file << ": " << refused << "\n";
            err().flush();
            ++failures;
            continue;
        }
        out() << recordJson(info) << "\n";
        out().flush();
    }
    return failures ? 1 : 0;
}

} // namespace

KAVREL_COMMAND("ipa", "FILE...", "Read .ipa files and keep them in the catalog as local apps",
               runIpa);
