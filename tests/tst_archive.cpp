// DeviceHelper's archive helpers: reading .ipa entries with their size cap and result
// codes, and turning buffers into property lists.

#include "DeviceHelper.h"
#include "TestSupport.h"
#include "Utility.h"
#include "ZipBuilder.h"

#include <QTemporaryDir>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

const int kLimit = 10485760;
const char* const kInfo = "Payload/Demo.app/Info.plist";

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251) & 0xff);
    return bytes;
}

// A small plist rendered both ways.
QByteArray serialized(bool binary)
{
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "A", plist_new_uint(1));
    plist_dict_set_item(d, "B", plist_new_string("x"));
    return kavreltest::plistBytes(d, binary);
}

// A deflated entry whose data is garbage: opening works, decompressing does not.
bool writeBroken(const QString& path)
{
    if (!kavreltest::ZipBuilder().add(kInfo, QByteArray(5000, 'a')).write(path, true))
        return false;
    QByteArray bytes = kavreltest::readFile(path);
    // Local header: 30 fixed bytes, the name, the extra field, then the compressed data,
    // whose first byte 0xff announces a reserved block type.
    const int nameLength = uchar(bytes[26]) | uchar(bytes[27]) << 8;
    const int extraLength = uchar(bytes[28]) | uchar(bytes[29]) << 8;
    bytes[30 + nameLength + extraLength] = char(0xff);
    return nameLength == int(strlen(kInfo)) && kavreltest::writeFile(path, bytes);
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
    void plistFromBuffer_data();
    void plistFromBuffer();

private:
    QTemporaryDir mDir;
    QMap<QString, zip_t*> mArchives;
};

void TestArchive::initTestCase()
{
    QVERIFY(kavreltest::ZipBuilder()
                .addDir("Payload/")
                .addDir("Payload/Demo.app/")
                .add(kInfo, serialized(true))
                .add("Payload/Demo.app/exact.bin", pattern(kLimit))
                .add("Payload/Demo.app/over.bin", pattern(kLimit + 1))
                .add("Payload/Demo.app/empty", QByteArray())
                .write(mDir.filePath("App.ipa")));
    QVERIFY(writeBroken(mDir.filePath("broken.ipa")));
    for (const QString& name : {"App", "broken"}) {
        int err = 0;
        const QByteArray path = QFile::encodeName(mDir.filePath(name + ".ipa"));
        mArchives[name] = zip_open(path.constData(), ZIP_RDONLY, &err);
        QVERIFY(mArchives[name]);
    }
}

void TestArchive::cleanupTestCase()
{
    for (zip_t* archive : qAsConst(mArchives))
        zip_discard(archive);
}

void TestArchive::readZipEntry_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("flags");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("logLine");
    auto row = [](const char* tag, const char* archive, const char* name, int flags, int code,
                  const QByteArray& content, const QString& logLine = QString()) {
        QTest::newRow(tag) << archive << QByteArray(name) << flags << code << content << logLine;
    };
    const int nodir = ZIP_FL_NODIR;
    row("full path", "App", kInfo, 0, 0, serialized(true));
    row("exactly 10 MiB is read", "App", "Payload/Demo.app/exact.bin", 0, 0, pattern(kLimit));
    row("one byte more is refused", "App", "Payload/Demo.app/over.bin", 0, -3, QByteArray(),
        "ERROR: file 'Payload/Demo.app/over.bin' is too large!");
    row("empty entry", "App", "Payload/Demo.app/empty", 0, 0, QByteArray());
    row("missing entry", "App", "Payload/Demo.app/nothing", 0, -1, QByteArray(),
        "Warning: could not locate Payload/Demo.app/nothing in archive!");
    row("base name with NODIR", "App", "Info.plist", nodir, 0, serialized(true));
    row("short read", "broken", kInfo, 0, -5, QByteArray(),
        "ERROR: zip_fread 5000 bytes from 'Payload/Demo.app/Info.plist'");
}

void TestArchive::readZipEntry()
{
    QFETCH(QString, archive);
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
    QCOMPARE(
        DeviceHelper::readZipEntry(mArchives[archive], name.constData(), flags, &buffer, &size),
        code);
    QCOMPARE(buffer == nullptr, code != 0);
    QCOMPARE(size, unsigned(content.size()));
    QCOMPARE(QByteArray(buffer, int(size)), content);
    free(buffer);
    if (logLine.isEmpty())
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.dump()));
    else
        QVERIFY2(log.hasLine(logLine), qPrintable(log.dump()));
}

void TestArchive::plistFromBuffer_data()
{
    QTest::addColumn<QByteArray>("bytes"); // taken whole, with exactly its length
    QTest::addColumn<QString>("text");
    const QByteArray binary = serialized(true);
    const QByteArray xml = serialized(false);
    QTest::newRow("binary") << binary << "{\"A\":1,\"B\":\"x\"},";
    QTest::newRow("binary magic with XML after it") << "bplist00" + xml << "";
    QTest::newRow("truncated binary") << binary.left(binary.size() / 2) << "";
    QTest::newRow("garbage") << QByteArray("not a property list") << "";
}

void TestArchive::plistFromBuffer()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, text);
    // A buffer of exactly the given length, so reading past it is caught.
    std::vector<char> exact(bytes.constData(), bytes.constData() + bytes.size());
    plist_t result = reinterpret_cast<plist_t>(0x1);
    DeviceHelper::plistFromBuffer(exact.data(), unsigned(bytes.size()), &result);
    QCOMPARE(result != nullptr, !text.isEmpty());
    QString out;
    DeviceHelper::nodeToJson(out, result);
    plist_free(result);
    QCOMPARE(out, text);
}

KAVREL_TEST_MAIN(TestArchive)
#include "tst_archive.moc"
