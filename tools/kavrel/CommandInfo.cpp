// kavrel info: the device-information document, and with --pretty a readable summary.

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceManager.h"

#include <QEventLoop>
#include <QRegularExpression>

using namespace kavrelcli;

namespace {

// The document is the library's own JSON-like text (not always strict JSON), so the
// summary picks single values out of it by key instead of parsing it whole.
QString valueOf(const QString& doc, const QString& key, const QString& section = QString())
{
    int from = 0;
    if (!section.isEmpty()) {
        from = doc.indexOf(QLatin1Char('"') + section + QStringLiteral("\":"));
        if (from < 0)
            return QString();
    }
    const QRegularExpression re(QLatin1Char('"') + QRegularExpression::escape(key) +
                                QStringLiteral("\":(\"([^\"]*)\"|[-+0-9.eE]+)"));
    const QRegularExpressionMatch m = re.match(doc, from);
    if (!m.hasMatch())
        return QString();
    const QString raw = m.captured(1);
    return raw.startsWith(QLatin1Char('"')) ? m.captured(2) : raw;
}

QString humanBytes(const QString& bytesText)
{
    bool ok = false;
    const double bytes = bytesText.toDouble(&ok);
    if (!ok)
        return QStringLiteral("unknown");
    static const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
    double value = bytes;
    int unit = 0;
    while (value >= 1000.0 && unit < 4) {
        value /= 1000.0;
        ++unit;
    }
    return unit == 0
               ? QStringLiteral("%1 B").arg(bytesText)
               : QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString orUnknown(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("unknown") : text;
}

void printSummary(const QString& doc)
{
    const auto line = [](const char* label, const QString& value) {
        out() << QString::fromLatin1(label).leftJustified(14) << value << "\n";
    };
    out() << "\n";
    line("Name:", orUnknown(valueOf(doc, QStringLiteral("DeviceName"))));
    QString model = orUnknown(valueOf(doc, QStringLiteral("ProductType")));
    const QString number = valueOf(doc, QStringLiteral("ModelNumber"));
    if (!number.isEmpty())
        model += QStringLiteral(" (%1)").arg(number);
    line("Model:", model);
    QString version = orUnknown(valueOf(doc, QStringLiteral("ProductVersion")));
    const QString build = valueOf(doc, QStringLiteral("BuildVersion"));
    if (!build.isEmpty())
        version += QStringLiteral(" (%1)").arg(build);
    line("iOS version:", version);
    line("Serial:", orUnknown(valueOf(doc, QStringLiteral("SerialNumber"))));
    const QString battery =
        valueOf(doc, QStringLiteral("BatteryCurrentCapacity"), QStringLiteral("battery_info"));
    line("Battery:", battery.isEmpty() ? QStringLiteral("unknown") : battery + QLatin1Char('%'));

    static const struct
    {
        const char* key;
        const char* label;
    } kinds[] = {
        {"totalApplicationBytes", "Applications"},
        {"totalAudioBytes", "Audio"},
        {"totalBookBytes", "Books"},
        {"totalMovieBytes", "Movies"},
        {"totalMusicBytes", "Music"},
        {"totalPhotoBytes", "Photos"},
        {"totalRingtoneBytes", "Ringtones"},
        {"totalVideoBytes", "Videos"},
    };
    if (doc.contains(QStringLiteral("\"disk_usage\":"))) {
        out() << "Disk use:\n";
        for (const auto& kind : kinds) {
            out() << "  " << QString::fromLatin1(kind.label).leftJustified(14)
                  << humanBytes(
                         valueOf(doc, QString::fromLatin1(kind.key), QStringLiteral("disk_usage")))
                  << "\n";
        }
    } else {
        line("Disk use:", QStringLiteral("unknown (no media library on the device)"));
    }
    const QString jailed = valueOf(doc, QStringLiteral("IsJailed"), QStringLiteral("other_info"));
    line("Jailbroken:",
         jailed == QLatin1String("true") ? QStringLiteral("yes") : QStringLiteral("no"));
}

} // namespace

static int runInfo(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(udidOption());
    const QCommandLineOption pretty(QStringLiteral("pretty"),
                                    QStringLiteral("Also print a readable summary."));
    parser.addOption(pretty);
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("info"), args, code))
        return code;
    quietLibraryLog();

    const QString udid = chooseUdid(parser, QStringLiteral("info"));
    if (udid.isEmpty())
        return 1;

    DeviceManager manager;
    QString document;
    QEventLoop loop;
    QObject::connect(&manager, &DeviceManager::signalDevInfo, &loop,
                     [&](const QString&, const QString& info) {
                         document = info;
                         loop.quit();
                     });
    manager.getDevInfo(udid);
    loop.exec();

    if (document.isEmpty()) {
        err() << "kavrel info: could not read the information of device " << udid << "\n";
        err().flush();
        return 1;
    }
    out() << document << "\n";
    if (parser.isSet(pretty))
        printSummary(document);
    out().flush();
    return 0;
}

KAVREL_COMMAND("info", "[--udid U] [--pretty]", "Print a device's information as JSON text",
               runInfo);
