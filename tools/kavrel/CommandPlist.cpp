// kavrel plist FILE: a binary or XML property-list file rendered as the library renders
// device answers (DeviceHelper::nodeToJson).

#include "Command.h"
#include "DeviceCommon.h"

#include "DeviceHelper.h"

#include <QFile>
#include <QFileInfo>

using namespace kavrelcli;

static int failPlist(const QString& message)
{
    err() << "kavrel plist: " << message << "\n";
    err().flush();
    return 1;
}

static int runPlist(const QStringList& args)
{
    quietLibraryLog();
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QStringLiteral("Property-list file, binary or XML."));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("plist"), args, code))
        return code;
    const QStringList files = parser.positionalArguments();
    if (files.size() != 1) {
        err() << "kavrel plist: expected exactly one FILE (see 'kavrel plist --help')\n";
        err().flush();
        return 2;
    }

    const QString path = files.first();
    if (QFileInfo(path).isDir())
        return failPlist(QStringLiteral("cannot read %1: is a directory").arg(path));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failPlist(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return failPlist(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    if (quint64(bytes.size()) > 0xffffffffu)
        return failPlist(QStringLiteral("%1 is too large").arg(path));

    plist_t root = nullptr;
    DeviceHelper::plistFromBuffer(bytes.constData(), unsigned(bytes.size()), &root);
    if (!root)
        return failPlist(QStringLiteral("%1 is not a property list").arg(path));
    QString text;
    DeviceHelper::nodeToJson(text, root);
    plist_free(root);

    out().setCodec("UTF-8");
    out() << text << "\n";
    out().flush();
    return 0;
}

KAVREL_COMMAND("plist", "FILE", "Print a property-list file (binary or XML) as JSON text",
               runPlist);
