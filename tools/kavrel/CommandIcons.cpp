// kavrel icons: fetches the icons of installed apps into the catalog and, with --out,
// writes each as APPID.png that ordinary image viewers open.

#include "CatalogCommon.h"
#include "Command.h"
#include "DeviceCommon.h"

#include "DBManager.h"
#include "DeviceManager.h"
#include "PngCrush.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>

using namespace kavrelcli;

namespace {

// Writes an icon as a standard PNG file. Crushed icons are converted; the library's
// own row re-filtering is used only when asked for.
bool writeIcon(const QByteArray& icon, const QString& path, bool libraryBytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(icon) != icon.size())
        return false;
    file.close();
    if (icon.mid(12, 4) != "CgBI")
        return true;
    PngCrush crush;
    crush.standard_filters = libraryBytes ? 0 : 1;
    QByteArray name = QFile::encodeName(path);
    char* outName = nullptr;
    // The converter names the file on standard output ("FILE : ") and ends failures
    // with its own message; a success is finished here.
    const int converted = crush.process(name.data(), &outName);
    if (converted == 1)
        printf("converted\n");
    fflush(stdout);
    free(outName);
    return converted == 1;
}

int runIcons(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    const QCommandLineOption outDir(QStringLiteral("out"),
                                    QStringLiteral("Write each icon as DIR/APPID.png."),
                                    QStringLiteral("DIR"));
    const QCommandLineOption libraryBytes(
        QStringLiteral("library-bytes"),
        QStringLiteral("Convert crushed icons with the library's default row filtering."));
    parser.addOptions({outDir, libraryBytes});
    QStringList ids;
    QString udid;
    int code = 0;
    if (!parseAppIdsOnDevice(parser, QStringLiteral("icons"), args, &ids, &udid, &code))
        return code;
    const QString dir = parser.value(outDir);
    if (!dir.isEmpty() && !QDir().mkpath(dir)) {
        err() << "kavrel icons: cannot create " << dir << "\n";
        err().flush();
        return 1;
    }
    DBManager* db = openCatalog(QStringLiteral("icons"));
    if (!db)
        return 1;
    preferQuickCommits(db);
    const QStringList missing = dropMissingApps(QStringLiteral("icons"), udid, &ids);

    int failed = missing.size();
    DeviceManager manager;
    const int done = runBatches(manager, false, udid, ids, [&](const QString& document) {
        const QJsonArray apps =
            QJsonDocument::fromJson(document.toUtf8()).object().value("apps").toArray();
        for (const QJsonValue& value : apps) {
            const QString app = value.toString();
            const QByteArray icon = db->getIconByAppid(app);
            if (icon.isEmpty()) {
                err() << "kavrel icons: the device gave no icon for " << app << "\n";
                err().flush();
                ++failed;
                continue;
            }
            const QString path = QDir(dir).filePath(app + QStringLiteral(".png"));
            if (dir.isEmpty()) {
                out() << app << ": " << icon.size() << " bytes in the catalog\n";
            } else if (writeIcon(icon, path, parser.isSet(libraryBytes))) {
                out() << app << ": wrote " << path << "\n";
            } else {
                err() << "kavrel icons: cannot write " << path << "\n";
                ++failed;
            }
            out().flush();
        }
        return int(apps.size());
    });
    if (done < ids.size()) {
        err() << "kavrel icons: could not fetch the icons from " << udid << "\n";
        err().flush();
        return 1;
    }
    return failed ? 1 : 0;
}

} // namespace

KAVREL_COMMAND("icons", "[--udid U] [--out DIR] [--library-bytes] APPID...",
               "Fetch the icons of installed apps into the catalog", runIcons);
