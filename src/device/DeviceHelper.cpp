#include "DeviceHelper.h"

#include "Utility.h"

#include <QDebug>

#include <libimobiledevice/libimobiledevice.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// Largest archive entry read into memory in one piece.
const zip_uint64_t kMaxZipEntrySize = 10485760;
// Largest single AFC read request.
const uint32_t kAfcChunk = 65536;

// Dictionary keys never rendered: certificates, keys and bulky hardware blobs that the
// host has no use for. Only membership is tested, so one fixed list serves every
// renderer thread without any shared mutable state.
const QStringList& skippedKeys()
{
    static const QStringList keys{QStringLiteral("DeviceCertificate"),
                                  QStringLiteral("DevicePublicKey"),
                                  QStringLiteral("ActivationPublicKey"),
                                  QStringLiteral("SDIOProductInfo"), QStringLiteral("NANDInfo")};
    return keys;
}

// Big-endian unsigned number of 1 to 8 bytes.
quint64 readBigEndian(const unsigned char* p, unsigned int size)
{
    quint64 value = 0;
    for (unsigned int i = 0; i < size; ++i)
        value = (value << 8) | p[i];
    return value;
}

// Whether a binary property list holds a UTF-16 text with a zero character. libplist
// aborts the whole process (an assertion) when such a text is read back as a dictionary
// key, so files from a device that carry one are refused before parsing.
bool hasZeroInWideString(const unsigned char* data, quint64 size)
{
    if (size < 8 + 32)
        return false;
    const unsigned char* trailer = data + size - 32;
    const unsigned int offsetSize = trailer[6];
    const quint64 count = readBigEndian(trailer + 8, 8);
    const quint64 table = readBigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || table >= size || count > (size - table) / offsetSize)
        return false; // not parsable anyway
    for (quint64 i = 0; i < count; ++i) {
        const quint64 at = readBigEndian(data + table + i * offsetSize, offsetSize);
        if (at >= size || (data[at] >> 4) != 0x6)
            continue;
        quint64 chars = data[at] & 0x0f;
        quint64 start = at + 1;
        if (chars == 0x0f) { // the length follows as an integer object
            if (start >= size || (data[start] >> 4) != 0x1)
                continue;
            const unsigned int bytes = 1u << (data[start] & 0x03);
            if (start + 1 + bytes > size)
                continue;
            chars = readBigEndian(data + start + 1, bytes);
            start += 1 + bytes;
        }
        for (quint64 c = 0; c < chars && start + 2 * c + 1 < size; ++c)
            if (data[start + 2 * c] == 0 && data[start + 2 * c + 1] == 0)
                return true;
    }
    return false;
}

const QString kQuotedUnknown = QStringLiteral("\"unknown\"");

char* stringValue(plist_t node)
{
    return DeviceHelper::copyString(node);
}

void appendDate(QString& out, plist_t node)
{
    int32_t sec = 0;
    int32_t usec = 0;
    plist_get_date_val(node, &sec, &usec);
    // The library's seconds go to the local-time conversion as they are.
    const time_t seconds = sec;
    struct tm local;
    char buffer[24];
    memset(buffer, 0, sizeof buffer);
    if (!localtime_r(&seconds, &local) ||
        strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &local) == 0) {
        out += kQuotedUnknown;
        return;
    }
    out += QLatin1Char('"') + QString::fromLatin1(buffer) + QLatin1Char('"');
}

void appendData(QString& out, plist_t node)
{
    char* bytes = nullptr;
    uint64_t length = 0;
    plist_get_data_val(node, &bytes, &length);
    if (length == 0) {
        free(bytes);
        out += kQuotedUnknown;
        return;
    }
    char* encoded = Utility::base64Encode(reinterpret_cast<const unsigned char*>(bytes),
                                          static_cast<unsigned int>(length));
    free(bytes);
    if (!encoded) {
        out += kQuotedUnknown;
        return;
    }
    out += QLatin1Char('"') + QString::fromLatin1(encoded) + QLatin1Char('"');
    free(encoded);
}

// The item under a key, looked up by its UTF-8 form; null (and logged) when missing.
plist_t itemForKey(plist_t dict, const QString& key)
{
    plist_t item = dict ? plist_dict_get_item(dict, key.toUtf8().constData()) : nullptr;
    if (!item)
        qDebug().nospace() << "Warning: failed to get item for key: " << key;
    return item;
}

// Reads the file-information list of a device path; null when the device gave none.
char** afcFileInfo(afc_client_t afc, const char* path, afc_error_t* error)
{
    char** info = nullptr;
    *error = afc_get_file_info(afc, path, &info);
    if (*error != AFC_E_SUCCESS && info) {
        Utility::freeStringList(info);
        info = nullptr;
    }
    return info;
}

} // namespace

DeviceHelper::DeviceHelper(QObject* parent) : QObject(parent) {}

void DeviceHelper::keepHostAliveOnUnplug()
{
#ifdef SIGPIPE
    struct sigaction current;
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL &&
        !(current.sa_flags & SA_SIGINFO))
        signal(SIGPIPE, SIG_IGN);
#endif
}

QStringList DeviceHelper::getUdids()
{
    qDebug() << "DeviceHelper::getUdids";
    QStringList udids;
    char** list = nullptr;
    int count = 0;
    const idevice_error_t ret = idevice_get_device_list(&list, &count);
    if (ret >= 0 && list) {
        // The list ends at its first null entry; the count is not needed.
        for (int i = 0; list[i]; ++i)
            udids.append(QString::fromLatin1(list[i]));
    }
    if (list)
        idevice_device_list_free(list);
    return udids;
}

QString DeviceHelper::getFirstUdid()
{
    qDebug() << "DeviceHelper::getFirstUdid";
    const QStringList udids = getUdids();
    qDebug().nospace() << "got udids by getUdids: " << udids.join(QStringLiteral("|||"));
    return udids.isEmpty() ? QString() : udids.first();
}

QString DeviceHelper::getMetaString(plist_t dict, const char* key)
{
    if (!dict || !key) {
        qDebug() << "mete data or key couldn't be empty!";
        return QString();
    }
    QString value;
    if (plist_get_node_type(dict) == PLIST_DICT) {
        char* text = stringValue(plist_dict_get_item(dict, key));
        if (text) {
            value = QString::fromUtf8(text);
            free(text);
        }
    }
    return value;
}

char* DeviceHelper::copyString(plist_t node)
{
    if (!node || plist_get_node_type(node) != PLIST_STRING)
        return nullptr;
    // Not plist_get_string_val: libplist asserts there that the text holds no zero
    // byte, and a binary property list from a device can carry one, which would abort
    // the whole host. The copy ends at the first zero byte instead.
    uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    return text ? strdup(text) : nullptr;
}

void DeviceHelper::nodeToJson(QString& out, plist_t node)
{
    if (!node)
        return;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        out += b ? QStringLiteral("\"true\"") : QStringLiteral("\"false\"");
        break;
    }
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        out += QString::number(static_cast<qulonglong>(v));
        break;
    }
    case PLIST_REAL: {
        double v = 0;
        plist_get_real_val(node, &v);
        out += QString::number(v, 'g', 6);
        break;
    }
    case PLIST_STRING: {
        char* text = stringValue(node);
        // Deliberately unescaped: the host's reader expects the raw text.
        out += QStringLiteral("\"%1\"").arg(QString::fromUtf8(text ? text : ""));
        free(text);
        break;
    }
    case PLIST_ARRAY:
        arrayToJson(out, node);
        break;
    case PLIST_DICT:
        dictToJson(out, node);
        break;
    case PLIST_DATE:
        appendDate(out, node);
        break;
    case PLIST_DATA:
        appendData(out, node);
        break;
    case PLIST_KEY: {
        char* key = nullptr;
        plist_get_key_val(node, &key);
        qDebug().nospace() << "note:, handling PLIST_KEY: " << (key ? key : "");
        out += QString::fromLatin1(key ? key : "");
        free(key);
        break;
    }
    default:
        break;
    }
}

void DeviceHelper::dictToJson(QString& out, plist_t dict)
{
    const QStringList& skipped = skippedKeys();
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(dict, &iter);
    char* key = nullptr;
    plist_t value = nullptr;
    if (iter)
        plist_dict_next_item(dict, iter, &key, &value);
    out += QLatin1Char('{');
    while (value) {
        const QString name = QString::fromLatin1(key ? key : "");
        const bool rendered = !skipped.contains(name);
        if (rendered) {
            out += QLatin1Char('"') + name + QStringLiteral("\":");
            nodeToJson(out, value);
        }
        free(key);
        key = nullptr;
        value = nullptr;
        plist_dict_next_item(dict, iter, &key, &value);
        if (!value)
            break;
        // A comma follows every rendered item that has a successor, even when all the
        // successors turn out to be skipped.
        if (rendered)
            out += QLatin1Char(',');
    }
    free(key);
    free(iter);
    out += QStringLiteral("},");
}

void DeviceHelper::arrayToJson(QString& out, plist_t array)
{
    out += QLatin1Char('[');
    const uint32_t size = plist_array_get_size(array);
    for (uint32_t i = 0; i < size; ++i)
        nodeToJson(out, plist_array_get_item(array, i));
    out += QLatin1Char(']');
}

void DeviceHelper::getDictString(plist_t dict, const QString& key, QString& value)
{
    if (key.isEmpty())
        return;
    plist_t item = itemForKey(dict, key);
    if (!item)
        return;
    char* text = stringValue(item);
    if (!text) {
        qDebug("Error: failed to get key: %s", key.toUtf8().constData());
        return;
    }
    value = QString::fromUtf8(text);
    free(text);
}

void DeviceHelper::getDictUInt(plist_t dict, const QString& key, quint64* value)
{
    if (key.isEmpty())
        return;
    plist_t item = itemForKey(dict, key);
    if (!item)
        return;
    // Items of another kind leave the caller's value as it was.
    if (value && plist_get_node_type(item) == PLIST_UINT) {
        uint64_t v = 0;
        plist_get_uint_val(item, &v);
        *value = v;
    }
}

void DeviceHelper::getDictStringList(plist_t dict, const QString& key, QStringList& values)
{
    plist_t array = dict ? plist_dict_get_item(dict, key.toLatin1().constData()) : nullptr;
    if (!array || plist_get_node_type(array) != PLIST_ARRAY) {
        qDebug("no values for key: %s", key.toLatin1().constData());
        return;
    }
    for (uint32_t i = 0; i < plist_array_get_size(array); ++i) {
        plist_t item = plist_array_get_item(array, i);
        if (!item)
            break;
        char* text = stringValue(item);
        if (text) {
            values.append(QString::fromLatin1(text));
            free(text);
        }
    }
}

void DeviceHelper::getDictFirstString(plist_t dict, const QString& key, QString& value)
{
    QStringList values;
    getDictStringList(dict, key, values);
    if (!values.isEmpty())
        value = values.first();
}

int DeviceHelper::readZipEntry(zip* archive, const char* name, int flags, char** buffer,
                               unsigned int* size)
{
    const zip_int64_t index = zip_name_locate(archive, name, flags);
    *buffer = nullptr;
    *size = 0;
    if (index < 0) {
        qDebug("Warning: could not locate %s in archive!", name);
        return -1;
    }
    struct zip_stat stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive, index, 0, &stat) != 0) {
        qDebug("ERROR: zip_stat_index '%s' failed!", name);
        return -2;
    }
    if (stat.size > kMaxZipEntrySize) {
        qDebug("ERROR: file '%s' is too large!", name);
        return -3;
    }
    zip_file* file = zip_fopen_index(archive, index, 0);
    if (!file) {
        qDebug("ERROR: zip_fopen '%s' failed!", name);
        return -4;
    }
    // One allocation of at least one byte, so an empty entry still hands out a buffer.
    char* bytes = static_cast<char*>(malloc(stat.size ? stat.size : 1));
    const zip_int64_t read = bytes ? zip_fread(file, bytes, stat.size) : -1;
    if (read >= 0 && static_cast<zip_uint64_t>(read) == stat.size) {
        *buffer = bytes;
        *size = static_cast<unsigned int>(stat.size);
        zip_fclose(file);
        return 0;
    }
    qDebug("ERROR: zip_fread %llu bytes from '%s'", static_cast<unsigned long long>(stat.size),
           name);
    free(bytes);
    zip_fclose(file);
    return -5;
}

void DeviceHelper::plistFromBuffer(const char* bytes, unsigned int length, plist_t* result)
{
    *result = nullptr;
    if (!bytes)
        return;
    // Anything that starts like a binary property list goes to the binary parser only.
    if (length >= 8 && memcmp(bytes, "bplist00", 8) == 0) {
        if (hasZeroInWideString(reinterpret_cast<const unsigned char*>(bytes), length)) {
            qDebug() << "Warning, refused a binary plist with a zero character in a text";
            return;
        }
        plist_from_bin(bytes, length, result);
    } else
        plist_from_xml(bytes, length, result);
}

void DeviceHelper::readAfcFile(afc_client_t afc, const char* path, char** buffer, quint64* size)
{
    if (!afc || !buffer || !size)
        return;
    afc_error_t error = AFC_E_SUCCESS;
    char** info = afcFileInfo(afc, path, &error);
    if (!info)
        return;
    quint64 fileSize = 0;
    for (int i = 0; info[i] && info[i + 1]; i += 2) {
        if (strcmp(info[i], "st_size") == 0) {
            fileSize = static_cast<quint64>(atol(info[i + 1]));
            break;
        }
    }
    Utility::freeStringList(info);
    if (fileSize == 0)
        return;

    uint64_t handle = 0;
    afc_file_open(afc, path, AFC_FOPEN_RDONLY, &handle);
    if (handle == 0)
        return;
    char* bytes = static_cast<char*>(malloc(fileSize));
    quint64 total = 0;
    while (bytes && total < fileSize) {
        // Never ask for more than still fits, in case the file grew since it was measured.
        const uint32_t want = static_cast<uint32_t>(qMin<quint64>(kAfcChunk, fileSize - total));
        uint32_t count = 0;
        afc_file_read(afc, handle, bytes + total, want, &count);
        if (count == 0)
            break;
        total += count;
    }
    if (bytes && total == fileSize) {
        *buffer = bytes;
        *size = fileSize;
    } else {
        free(bytes);
    }
    afc_file_close(afc, handle);
}

void DeviceHelper::parseAfcFileInfo(char** info, int* kind, unsigned int* size)
{
    if (!info)
        return;
    for (int i = 0; info[i] && info[i + 1]; i += 2) {
        const char* key = info[i];
        const char* value = info[i + 1];
        if (strcmp(key, "st_ifmt") == 0) {
            if (strcmp(value, "S_IFREG") == 0) {
                *kind = 1;
            } else if (strcmp(value, "S_IFDIR") == 0) {
                *kind = 2;
                return;
            }
        } else if (strcmp(key, "st_size") == 0) {
            *size = static_cast<unsigned int>(atoi(value));
        }
    }
}

afc_error_t DeviceHelper::getAfcPathSize(afc_client_t afc, const char* path, unsigned int* total)
{
    afc_error_t error = AFC_E_SUCCESS;
    char** info = afcFileInfo(afc, path, &error);
    if (error != AFC_E_SUCCESS || !info) {
        qDebug("ERROR: %d, getting AFC file info for '%s' on device!\n", error, path);
        return error;
    }
    int kind = -1;
    unsigned int size = 0;
    parseAfcFileInfo(info, &kind, &size);
    Utility::freeStringList(info);
    if (kind == 1) {
        *total = size;
        return AFC_E_SUCCESS;
    }
    if (kind != 2) {
        qDebug("It's neither a file nor a path!\n");
        // 3 is this helper's own code for an unsupported kind of entry.
        return static_cast<afc_error_t>(3);
    }

    char** entries = nullptr;
    error = afc_read_directory(afc, path, &entries);
    if (error != AFC_E_SUCCESS || !entries) {
        qDebug("Failed to read directory: %s\n", path);
        if (entries)
            Utility::freeStringList(entries);
        return error;
    }
    unsigned int sum = 0;
    for (int i = 0; entries[i]; ++i) {
        if (strcmp(entries[i], ".") == 0 || strcmp(entries[i], "..") == 0)
            continue;
        QByteArray child(path);
        child += '/';
        child += entries[i];
        char** childInfo = afcFileInfo(afc, child.constData(), &error);
        if (error != AFC_E_SUCCESS) {
            qDebug("Failed to get file info: %s\n", child.constData());
            Utility::freeStringList(entries);
            return error;
        }
        // An entry without information is of no known kind and adds nothing.
        int childKind = -1;
        unsigned int childSize = 0;
        parseAfcFileInfo(childInfo, &childKind, &childSize);
        if (childInfo)
            Utility::freeStringList(childInfo);
        if (childKind == 1) {
            sum += childSize;
        } else if (childKind == 2) {
            // A subdirectory that cannot be measured counts as empty.
            unsigned int subTotal = 0;
            getAfcPathSize(afc, child.constData(), &subTotal);
            sum += subTotal;
        }
    }
    *total = sum;
    Utility::freeStringList(entries);
    return AFC_E_SUCCESS;
}
