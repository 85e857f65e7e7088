#include "ZipBuilder.h"

#include <QFile>
#include <zip.h>

namespace kavreltest {

ZipBuilder& ZipBuilder::add(const QString& name, const QByteArray& bytes)
{
    mEntries.append({name, bytes, false});
    return *this;
}

ZipBuilder& ZipBuilder::addDir(const QString& name)
{
    mEntries.append({name, QByteArray(), true});
    return *this;
}

bool ZipBuilder::write(const QString& path, bool compress) const
{
    QFile::remove(path);
    int err = 0;
    zip_t* archive = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &err);
    if (!archive)
        return false;
    for (const Entry& e : mEntries) {
        const QByteArray name = e.name.toUtf8();
        const zip_flags_t flags = ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE;
        // libzip reads the bytes when the archive is closed, below, while mEntries holds them.
        zip_source_t* src =
            e.dir ? nullptr : zip_source_buffer(archive, e.bytes.constData(), e.bytes.size(), 0);
        const zip_int64_t index = e.dir ? zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8)
                                  : src ? zip_file_add(archive, name.constData(), src, flags)
                                        : -1;
        if (index < 0) {
            zip_source_free(src);
            zip_discard(archive);
            return false;
        }
        if (!e.dir)
            zip_set_file_compression(archive, index, compress ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
    }
    return zip_close(archive) == 0;
}

} // namespace kavreltest
