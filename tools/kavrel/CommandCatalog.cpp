// kavrel catalog: the apps of the local catalog as JSON text.

#include "CatalogCommon.h"
#include "Command.h"
#include "DeviceCommon.h"

#include "DBManager.h"

using namespace kavrelcli;

namespace {

int runCatalog(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("WHICH"),
                                 QStringLiteral("all (default), download, local or device."),
                                 QStringLiteral("[all|download|local|device]"));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("catalog"), args, code))
        return code;
    const QStringList words = parser.positionalArguments();
    const QStringList kinds{"all", "download", "local", "device"};
    const QString which = words.value(0, QStringLiteral("all"));
    // The list position is the catalog's query type: 0 all, 1 download, 2 local, 3 device.
    const int queryType = kinds.indexOf(which);
    if (words.size() > 1 || queryType < 0) {
        err() << "kavrel catalog: expected one of all, download, local, device\n";
        err().flush();
        return 2;
    }
    quietLibraryLog();
    DBManager* db = openCatalog(QStringLiteral("catalog"));
    if (!db)
        return 1;
    const QString json = db->getAppsAsJson(queryType);
    if (json.isEmpty()) {
        err() << "kavrel catalog: the catalog could not be read\n";
        err().flush();
        return 1;
    }
    out() << json << "\n";
    out().flush();
    return 0;
}

} // namespace

KAVREL_COMMAND("catalog", "[all|download|local|device]", "List the apps of the local catalog",
               runCatalog);
