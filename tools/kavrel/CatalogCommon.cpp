#include "CatalogCommon.h"

#include "Command.h"

#include "DBManager.h"
#include "Utility.h"

#include <QSqlDatabase>

namespace kavrelcli {

DBManager* openCatalog(const QString& command)
{
    DBManager* db = DBManager::instance();
    // The catalog only logs a failed open; ask the connection itself.
    if (!QSqlDatabase::database(QSqlDatabase::defaultConnection, false).isOpen()) {
        err() << "kavrel " << command << ": cannot open the catalog " << Utility::dataPath()
              << "norvahelper.db\n";
        err().flush();
        return nullptr;
    }
    return db;
}

void preferQuickCommits(DBManager* db)
{
    db->execQuery(QStringLiteral("PRAGMA journal_mode=WAL"));
    db->execQuery(QStringLiteral("PRAGMA synchronous=NORMAL"));
}

} // namespace kavrelcli
