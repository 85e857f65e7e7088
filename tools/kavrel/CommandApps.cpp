// kavrel apps: the installed apps, through the library's operation queue.

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceManager.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

using namespace kavrelcli;

namespace {

// Sizes arrive in batches ({"apps":[{"appid","appsize","docsize","appleid"}]}); waits
// until every app has one or no batch came for a while.
QMap<QString, QJsonObject> fetchSizes(DeviceManager& manager, const QString& udid,
                                      const QStringList& ids)
{
    QMap<QString, QJsonObject> sizes;
    QEventLoop loop;
    QTimer quiet;
    quiet.setSingleShot(true);
    QObject::connect(&quiet, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(
        &manager, &DeviceManager::signalAppSize, [&](const QString&, const QString& json) {
            const QJsonArray apps =
                QJsonDocument::fromJson(json.toUtf8()).object().value("apps").toArray();
            for (const QJsonValue& app : apps)
                sizes[app.toObject().value("appid").toString()] = app.toObject();
            if (sizes.size() >= ids.size())
                loop.quit();
            quiet.start(30000);
        });
    manager.getAppSizes(udid, ids);
    quiet.start(30000);
    loop.exec();
    return sizes;
}

QString sizeText(const QJsonValue& value)
{
    return value.isUndefined() ? QStringLiteral("-")
                               : QString::number(value.toDouble() / 1e6, 'f', 1) + " MB";
}

} // namespace

static int runApps(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    const QCommandLineOption system(QStringLiteral("system"), QStringLiteral("System apps only."));
    const QCommandLineOption user(QStringLiteral("user"), QStringLiteral("User apps only."));
    const QCommandLineOption all(QStringLiteral("all"), QStringLiteral("Every app (default)."));
    const QCommandLineOption xml(QStringLiteral("xml"),
                                 QStringLiteral("Print the device's answer as XML."));
    const QCommandLineOption sizes(QStringLiteral("sizes"),
                                   QStringLiteral("Also measure each app and its documents."));
    const QCommandLineOption icons(QStringLiteral("icons"),
                                   QStringLiteral("Write each app's icon to DIR/APPID.png."),
                                   QStringLiteral("DIR"));
    for (const QCommandLineOption& option : {system, user, all, xml, sizes, icons})
        parser.addOption(option);
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("apps"), args, code))
        return code;
    quietLibraryLog();
    const QString udid = chooseUdid(parser, QStringLiteral("apps"));
    if (udid.isEmpty())
        return 1;

    const int type = parser.isSet(system) ? 1 : parser.isSet(user) ? 2 : 0;
    DeviceManager manager;
    QString list;
    QStringList ids;
    QEventLoop loop;
    QObject::connect(&manager, &DeviceManager::signalAppList,
                     [&](const QString&, const QString& text, const QStringList& appIds) {
                         list = text;
                         ids = appIds;
                         loop.quit();
                     });
    manager.getAppList(udid, type, parser.isSet(xml) ? 0 : 1);
    loop.exec();
    if (list.isEmpty()) {
        err() << "kavrel apps: could not list the apps of device " << udid << "\n";
        err().flush();
        return 1;
    }
    if (parser.isSet(xml)) {
        out() << list;
        out().flush();
        return 0;
    }

    const QMap<QString, QJsonObject> measured = parser.isSet(sizes) && !ids.isEmpty()
                                                    ? fetchSizes(manager, udid, ids)
                                                    : QMap<QString, QJsonObject>();
    // The array ends with an empty object, which is skipped.
    const QJsonArray apps = QJsonDocument::fromJson(list.toUtf8()).array();
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        const QString id = app.value("bundle_id").toString();
        if (id.isEmpty())
            continue;
        out() << id.leftJustified(40) << " " << app.value("version").toString().leftJustified(10)
              << " " << app.value("appname").toString();
        if (parser.isSet(sizes))
            out() << "  app " << sizeText(measured.value(id).value("appsize")) << ", documents "
                  << sizeText(measured.value(id).value("docsize"));
        out() << "\n";
    }
    out().flush();
    if (parser.isSet(icons)) {
        QDir dir(parser.value(icons));
        dir.mkpath(QStringLiteral("."));
        for (const QString& id : ids) {
            const QByteArray png = manager.getAppIcon(udid, id);
            QFile file(dir.filePath(id + ".png"));
            if (png.isEmpty() || !file.open(QIODevice::WriteOnly) || file.write(png) != png.size())
                err() << "kavrel apps: no icon for " << id << "\n";
        }
        err().flush();
    }
    return 0;
}

KAVREL_COMMAND("apps", "[--udid U] [--system|--user|--all] [--xml] [--sizes] [--icons DIR]",
               "List the installed apps", runApps);
