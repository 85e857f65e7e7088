#include "ZipBuilder.h"

#include <QFile>
#include <cstdlib>
#include <cstring>
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
        zip_int64_t index;
        if (e.dir) {
            index = zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8);
        } else {
            // libzip reads the data when the archive is closed; the copy below lives until then.
            void* copy = malloc(e.bytes.size() ? e.bytes.size() : 1);
            memcpy(copy, e.bytes.constData(), e.bytes.size());
            zip_source_t* src = zip_source_buffer(archive, copy, e.bytes.size(), 1);
            if (!src) {
                free(copy);
                zip_discard(archive);
                return false;
            }
            index = zip_file_add(archive, name.constData(), src, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
            if (index < 0) {
                zip_source_free(src);
                zip_discard(archive);
                return false;
            }
            zip_set_file_compression(archive, index, compress ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
        }
        if (index < 0) {
            zip_discard(archive);
            return false;
        }
    }
    return zip_close(archive) == 0;
}

} // namespace kavreltest
