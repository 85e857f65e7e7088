// DeviceHelper's archive helpers: reading .ipa entries with their size cap and result
// codes, turning buffers into property lists, and parsing AFC file information.

#include "DeviceHelper.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QTemporaryDir>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

const int kLimit = 10485760;

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251) & 0xff);
    return bytes;
}

zip_t* openArchive(const QString& path)
{
    int err = 0;
    return zip_open(QFile::encodeName(path).constData(), ZIP_RDONLY, &err);
}

// A small plist rendered both ways, for the buffer tests.
QByteArray serialized(bool binary)
{
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "A", plist_new_uint(1));
    plist_dict_set_item(d, "B", plist_new_string("x"));
    return kavreltest::plistBytes(d, binary);
}

} // namespace

class TestArchive : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void readZipEntry_data();
    void readZipEntry();
    void readZipEntryFailsToOpenEncryptedEntry();
    void readZipEntryReportsShortRead();
    void plistFromBuffer_data();
    void plistFromBuffer();
    void parseAfcFileInfo_data();
    void parseAfcFileInfo();

private:
    QTemporaryDir mDir;
    QString mIpa;
    zip_t* mArchive = nullptr;
};

void TestArchive::initTestCase()
{
    QVERIFY(mDir.isValid());
    mIpa = mDir.filePath(QStringLiteral("App.ipa"));
    kavreltest::ZipBuilder zip;
    zip.addDir(QStringLiteral("Payload/"))
        .addDir(QStringLiteral("Payload/Demo.app/"))
        .add(QStringLiteral("Payload/Demo.app/Info.plist"), serialized(true))
        .add(QStringLiteral("Payload/Demo.app/exact.bin"), pattern(kLimit))
        .add(QStringLiteral("Payload/Demo.app/over.bin"), pattern(kLimit + 1))
        .add(QStringLiteral("Payload/Demo.app/empty"), QByteArray())
        .add(QStringLiteral("iTunesMetadata.plist"), serialized(false));
    QVERIFY(zip.write(mIpa));
    mArchive = openArchive(mIpa);
    QVERIFY(mArchive);
}

void TestArchive::cleanupTestCase()
{
    if (mArchive)
        zip_discard(mArchive);
}

void TestArchive::readZipEntry_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("flags");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("full path") << QByteArray("Payload/Demo.app/Info.plist") << 0 << 0
                               << serialized(true) << QString();
    QTest::newRow("exactly 10 MiB is read")
        << QByteArray("Payload/Demo.app/exact.bin") << 0 << 0 << pattern(kLimit) << QString();
    QTest::newRow("one byte more is refused")
        << QByteArray("Payload/Demo.app/over.bin") << 0 << -3 << QByteArray()
        << "ERROR: file 'Payload/Demo.app/over.bin' is too large!";
    QTest::newRow("empty entry") << QByteArray("Payload/Demo.app/empty") << 0 << 0 << QByteArray()
                                 << QString();
    QTest::newRow("missing entry")
        << QByteArray("Payload/Demo.app/nothing") << 0 << -1 << QByteArray()
        << "Warning: could not locate Payload/Demo.app/nothing in archive!";
    QTest::newRow("base name without NODIR is missing")
        << QByteArray("Info.plist") << 0 << -1 << QByteArray()
        << "Warning: could not locate Info.plist in archive!";
    QTest::newRow("base name with NODIR")
        << QByteArray("Info.plist") << int(ZIP_FL_NODIR) << 0 << serialized(true) << QString();
    QTest::newRow("NODIR finds the top-level entry too")
        << QByteArray("iTunesMetadata.plist") << int(ZIP_FL_NODIR) << 0 << serialized(false)
        << QString();
    QTest::newRow("NODIR with a path does not match")
        << QByteArray("Demo.app/Info.plist") << int(ZIP_FL_NODIR) << -1 << QByteArray()
        << "Warning: could not locate Demo.app/Info.plist in archive!";
    QTest::newRow("NOCASE") << QByteArray("payload/demo.app/INFO.plist") << int(ZIP_FL_NOCASE) << 0
                            << serialized(true) << QString();
    QTest::newRow("case matters by default")
        << QByteArray("payload/demo.app/INFO.plist") << 0 << -1 << QByteArray()
        << "Warning: could not locate payload/demo.app/INFO.plist in archive!";
}

void TestArchive::readZipEntry()
{
    QFETCH(QByteArray, name);
    QFETCH(int, flags);
    QFETCH(int, code);
    QFETCH(QByteArray, content);
    QFETCH(QString, logLine);

    // Outputs are reset before anything else, so stale values never leak out.
    char sentinel = 0;
    char* buffer = &sentinel;
    unsigned int size = 12345;
    kavreltest::LogCapture log;
    QCOMPARE(DeviceHelper::readZipEntry(mArchive, name.constData(), flags, &buffer, &size), code);
    if (code == 0) {
        QVERIFY(buffer != &sentinel);
        QCOMPARE(size, unsigned(content.size()));
        QVERIFY(memcmp(buffer, content.constData(), size) == 0);
        free(buffer);
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.dump()));
    } else {
        QVERIFY(buffer == nullptr);
        QCOMPARE(size, 0u);
        QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
    }
}

void TestArchive::readZipEntryFailsToOpenEncryptedEntry()
{
    if (!zip_encryption_method_supported(ZIP_EM_AES_256, 1))
        QSKIP("libzip built without AES support");
    const QString path = mDir.filePath(QStringLiteral("locked.ipa"));
    int err = 0;
    zip_t* out = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &err);
    QVERIFY(out);
    static const char text[] = "secret";
    zip_source_t* src = zip_source_buffer(out, text, sizeof text - 1, 0);
    const zip_int64_t index = zip_file_add(out, "Payload/Demo.app/Info.plist", src, 0);
    QVERIFY(index >= 0);
    QCOMPARE(zip_file_set_encryption(out, zip_uint64_t(index), ZIP_EM_AES_256, "pw"), 0);
    QCOMPARE(zip_close(out), 0);

    zip_t* archive = openArchive(path);
    QVERIFY(archive);
    char* buffer = nullptr;
    unsigned int size = 0;
    kavreltest::LogCapture log;
    const int code =
        DeviceHelper::readZipEntry(archive, "Info.plist", ZIP_FL_NODIR, &buffer, &size);
    zip_discard(archive);
    QCOMPARE(code, -4);
    QVERIFY(buffer == nullptr);
    QVERIFY2(log.hasLine(QStringLiteral("ERROR: zip_fopen 'Info.plist' failed!")),
             qPrintable(log.dump()));
}

void TestArchive::readZipEntryReportsShortRead()
{
    // A deflated entry whose data is garbage: opening works, decompressing does not.
    const QString path = mDir.filePath(QStringLiteral("broken.ipa"));
    const QByteArray name("Payload/Demo.app/Info.plist");
    QVERIFY(kavreltest::ZipBuilder()
                .add(QString::fromLatin1(name), QByteArray(5000, 'a'))
                .write(path, true));
    QByteArray bytes = kavreltest::readFile(path);
    // Local header: 30 fixed bytes, the name, the extra field, then the compressed data,
    // whose first byte 0xff announces a reserved block type.
    const int nameLength = uchar(bytes[26]) | uchar(bytes[27]) << 8;
    const int extraLength = uchar(bytes[28]) | uchar(bytes[29]) << 8;
    QCOMPARE(nameLength, name.size());
    bytes[30 + nameLength + extraLength] = char(0xff);
    QVERIFY(kavreltest::writeFile(path, bytes));

    zip_t* archive = openArchive(path);
    QVERIFY(archive);
    char* buffer = nullptr;
    unsigned int size = 0;
    kavreltest::LogCapture log;
    const int code = DeviceHelper::readZipEntry(archive, name.constData(), 0, &buffer, &size);
    zip_discard(archive);
    QCOMPARE(code, -5);
    QVERIFY(buffer == nullptr);
    QCOMPARE(size, 0u);
    QVERIFY2(log.hasLine(
                 QStringLiteral("ERROR: zip_fread 5000 bytes from 'Payload/Demo.app/Info.plist'")),
             qPrintable(log.dump()));
}

void TestArchive::plistFromBuffer_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("length");
    QTest::addColumn<QString>("text");

    const QByteArray binary = serialized(true);
    const QByteArray xml = serialized(false);
    QTest::newRow("binary") << binary << binary.size() << "{\"A\":1,\"B\":\"x\"},";
    QTest::newRow("XML") << xml << xml.size() << "{\"A\":1,\"B\":\"x\"},";
    const QByteArray disguised = "bplist00" + xml;
    QTest::newRow("binary magic with XML after it") << disguised << disguised.size() << QString();
    QTest::newRow("truncated binary") << binary << binary.size() / 2 << QString();
    QTest::newRow("garbage") << QByteArray("not a property list") << 19 << QString();
    QTest::newRow("magic only") << QByteArray("bplist00") << 8 << QString();
    QTest::newRow("nothing") << QByteArray("") << 0 << QString();
}

void TestArchive::plistFromBuffer()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, length);
    QFETCH(QString, text);
    // Copy into a buffer of exactly the given length, so reading past it is caught.
    std::vector<char> exact(bytes.constData(), bytes.constData() + length);
    plist_t result = reinterpret_cast<plist_t>(0x1);
    DeviceHelper::plistFromBuffer(exact.data(), unsigned(length), &result);
    if (text.isEmpty()) {
        QVERIFY(result == nullptr);
        return;
    }
    QVERIFY(result);
    QString out;
    DeviceHelper::nodeToJson(out, result);
    plist_free(result);
    QCOMPARE(out, text);
}

void TestArchive::parseAfcFileInfo_data()
{
    QTest::addColumn<QStringList>("info");
    QTest::addColumn<int>("kind");
    QTest::addColumn<unsigned>("size");

    // Kind and size start at -5 and 77: keys that are absent leave them as they are.
    QTest::newRow("regular file") << QStringList{"st_size",  "100", "st_blocks", "8",
                                                 "st_nlink", "1",   "st_ifmt",   "S_IFREG"}
                                  << 1 << 100u;
    QTest::newRow("directory stops the walk")
        << QStringList{"st_ifmt", "S_IFDIR", "st_size", "102"} << 2 << 77u;
    QTest::newRow("directory size read before its kind")
        << QStringList{"st_size", "102", "st_ifmt", "S_IFDIR"} << 2 << 102u;
    QTest::newRow("link is no known kind")
        << QStringList{"st_size", "12", "st_ifmt", "S_IFLNK", "LinkTarget", "/x"} << -5 << 12u;
    QTest::newRow("no keys") << QStringList{} << -5 << 77u;
    QTest::newRow("other keys only") << QStringList{"st_nlink", "1"} << -5 << 77u;
    QTest::newRow("size is parsed like atoi")
        << QStringList{"st_size", "42abc", "st_ifmt", "S_IFREG"} << 1 << 42u;
    QTest::newRow("keys are exact")
        << QStringList{"st_size_x", "9", "ST_IFMT", "S_IFREG"} << -5 << 77u;
    QTest::newRow("dangling key is ignored")
        << QStringList{"st_ifmt", "S_IFREG", "st_size"} << 1 << 77u;
}

void TestArchive::parseAfcFileInfo()
{
    QFETCH(QStringList, info);
    QFETCH(int, kind);
    QFETCH(unsigned, size);

    // Built like the list the device library hands out: malloc'ed, null-terminated.
    char** list = static_cast<char**>(calloc(size_t(info.size()) + 1, sizeof(char*)));
    for (int i = 0; i < info.size(); ++i)
        list[i] = strdup(info.at(i).toLatin1().constData());
    int gotKind = -5;
    unsigned int gotSize = 77;
    DeviceHelper::parseAfcFileInfo(list, &gotKind, &gotSize);
    for (int i = 0; i < info.size(); ++i)
        free(list[i]);
    free(list);
    QCOMPARE(gotKind, kind);
    QCOMPARE(gotSize, size);
}

KAVREL_TEST_MAIN(TestArchive)
#include "tst_archive.moc"
