// kavrel icon: write an app's icon, as stored in the catalog, to a file. The catalog
// holds the icons of parsed .ipa files and those fetched from devices by kavrel icons.

#include "CatalogCommon.h"
#include "Command.h"
#include "DeviceCommon.h"

#include "DBManager.h"

#include <QFile>

using namespace kavrelcli;

namespace {

int runIcon(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("APPID"), QStringLiteral("Bundle identifier."));
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("File to write."));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("icon"), args, code))
        return code;
    const QStringList words = parser.positionalArguments();
    if (words.size() != 2) {
        err() << "kavrel icon: expected APPID FILE\n";
        err().flush();
        return 2;
    }
    quietLibraryLog();
    DBManager* db = openCatalog(QStringLiteral("icon"));
    if (!db)
        return 1;
    const QByteArray icon = db->getIconByAppid(words[0]);
    if (icon.isEmpty()) {
        err() << "kavrel icon: no icon stored for " << words[0]
              << " (fetch it from a device with 'kavrel icons " << words[0] << "')\n";
        err().flush();
        return 1;
    }
    QFile file(words[1]);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(icon) != icon.size()) {
        err() << "kavrel icon: cannot write " << words[1] << ": " << file.errorString() << "\n";
        err().flush();
        return 1;
    }
    out() << "wrote " << icon.size() << " bytes to " << words[1] << "\n";
    out().flush();
    return 0;
}

} // namespace

KAVREL_COMMAND("icon", "APPID FILE", "Write an app's stored icon to a file", runIcon);
