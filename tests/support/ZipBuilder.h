#pragma once
// Builds zip archives (.ipa-like) with libzip for tests.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

namespace kavreltest {

class ZipBuilder
{
public:
    // Adds a file entry; entries are written in the order they are added.
    ZipBuilder& add(const QString& name, const QByteArray& bytes);
    // Adds a directory entry (name should end in "/").
    ZipBuilder& addDir(const QString& name);
    // Writes the archive (stored, not compressed, unless compress is true).
    bool write(const QString& path, bool compress = false) const;

private:
    struct Entry
    {
        QString name;
        QByteArray bytes;
        bool dir;
    };
    QList<Entry> mEntries;
};

} // namespace kavreltest
