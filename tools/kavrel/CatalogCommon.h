#pragma once
// Pieces shared by the kavrel commands that use the local app catalog.

#include <QString>

class DBManager;

namespace kavrelcli {

// The catalog in the data directory, opened on first use. Prints the reason to stderr
// and returns null when the database cannot be opened.
DBManager* openCatalog(const QString& command);

} // namespace kavrelcli
