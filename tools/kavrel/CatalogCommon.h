#pragma once
// Pieces shared by the kavrel commands that use the local app catalog.

#include <QString>

class DBManager;

namespace kavrelcli {

// The catalog in the data directory, opened on first use. Prints the reason to stderr
// and returns null when the database cannot be opened.
DBManager* openCatalog(const QString& command);

// For commands that store one row per app while a device job runs (sizes, icons): the
// catalog switches to write-ahead logging with normal syncing, so a commit no longer
// waits for the disk twice; a crash can lose the last commits, never the file.
void preferQuickCommits(DBManager* db);

} // namespace kavrelcli
