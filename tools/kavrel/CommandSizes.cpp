// kavrel sizes: bundle and Documents sizes and the Apple ID of installed apps, one line
// per app as the batches arrive (measured on the device unless the catalog has them).

#include "CatalogCommon.h"
#include "Command.h"
#include "DeviceCommon.h"

#include "DBManager.h"
#include "DeviceManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

using namespace kavrelcli;

namespace {

QString human(quint64 bytes)
{
    return QLocale::c().formattedDataSize(qint64(bytes), 1, QLocale::DataSizeSIFormat);
}

// One readable line per app of a batch document; the number of apps in it.
int printBatch(const QString& document)
{
    const QJsonArray apps =
        QJsonDocument::fromJson(document.toUtf8()).object().value("apps").toArray();
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        const QString appleId = app.value("appleid").toString();
        out() << app.value("appid").toString().leftJustified(36) << " bundle "
              << human(app.value("appsize").toVariant().toULongLong()).rightJustified(9)
              << "  documents "
              << human(app.value("docsize").toVariant().toULongLong()).rightJustified(9)
              << "  Apple ID " << (appleId.isEmpty() ? QStringLiteral("-") : appleId) << "\n";
    }
    out().flush();
    return apps.size();
}

int runSizes(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    const QCommandLineOption json(
        QStringLiteral("json"), QStringLiteral("Print the library's batch documents as they are."));
    parser.addOption(json);
    QStringList ids;
    QString udid;
    int code = 0;
    if (!parseAppIdsOnDevice(parser, QStringLiteral("sizes"), args, &ids, &udid, &code))
        return code;
    DBManager* db = openCatalog(QStringLiteral("sizes"));
    if (!db)
        return 1;
    preferQuickCommits(db);
    const QStringList missing = dropMissingApps(QStringLiteral("sizes"), udid, &ids);

    DeviceManager manager;
    const bool raw = parser.isSet(json);
    const int done = runBatches(manager, true, udid, ids, [raw](const QString& document) {
        if (!raw)
            return printBatch(document);
        out() << document << "\n";
        out().flush();
        return int(
            QJsonDocument::fromJson(document.toUtf8()).object().value("apps").toArray().size());
    });
    if (done < ids.size()) {
        err() << "kavrel sizes: could not measure the apps on " << udid << "\n";
        err().flush();
        return 1;
    }
    return missing.isEmpty() ? 0 : 1;
}

} // namespace

KAVREL_COMMAND("sizes", "[--udid U] [--json] APPID...",
               "Print the bundle and Documents sizes of installed apps", runSizes);
