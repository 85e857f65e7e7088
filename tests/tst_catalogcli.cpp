// The kavrel host's catalog commands: ipa, catalog and icon, run as a user would.

#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QImage>
#include <QSqlDatabase>
#include <QSqlQuery>

namespace {

QStringList bundleIds(const QByteArray& json)
{
    QStringList ids;
    for (const QJsonValue& app : QJsonDocument::fromJson(json)["apps"].toArray())
        ids << app["bundle_id"].toString();
    ids.sort();
    return ids;
}

} // namespace

class TestCatalogCli : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void ipaThenCatalogThenIcon();
    void brokenFilesLeaveCatalogAsItWas();
    void readdingKeepsDeviceSizes();
    void refusedUpdateIsReported();
    void usageErrors_data();
    void usageErrors();

private:
    kavreltest::ProgramRun kavrel(const QStringList& args);
    QString writeIpa(const QString& name, const QString& id, const QString& displayName,
                     const QByteArray& icon);
    QScopedPointer<QTemporaryDir> mHome;
};

void TestCatalogCli::init()
{
    mHome.reset(new QTemporaryDir);
    QVERIFY(mHome->isValid());
}

kavreltest::ProgramRun TestCatalogCli::kavrel(const QStringList& args)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", mHome->path()); // a fresh catalog per test
    env.remove("KAVREL_DEBUG");
    return kavreltest::runProgram(QStringLiteral(KAVREL_CLI), args, env);
}

QString TestCatalogCli::writeIpa(const QString& name, const QString& id, const QString& displayName,
                                 const QByteArray& icon)
{
    const auto entry = [](const char* key, const QString& value) {
        return value.isEmpty()
                   ? QByteArray()
                   : "<key>" + QByteArray(key) + "</key><string>" + value.toUtf8() + "</string>";
    };
    kavreltest::ZipBuilder zip;
    zip.add("Payload/App.app/Info.plist",
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" +
                entry("CFBundleIdentifier", id) + entry("CFBundleVersion", "42") +
                entry("MinimumOSVersion", "12.0") + entry("CFBundleDisplayName", displayName) +
                entry("CFBundleIconFile", icon.isEmpty() ? "" : "AppIcon.png") + "</dict></plist>");
    if (!icon.isEmpty())
        zip.add("Payload/App.app/AppIcon.png", icon);
    const QString path = mHome->filePath(name);
    return zip.write(path, true) ? path : QString();
}

void TestCatalogCli::ipaThenCatalogThenIcon()
{
    const QByteArray icon("\x89PNG\r\n\x1a\n pretend icon bytes", 28);
    const QString path = writeIpa("My Game ü.ipa", "com.example.game", "My Game", icon);
    const QString unnamed = writeIpa("Unnamed Tool.ipa", "com.example.tool", QString(), icon);
    // A one-letter name, given relative to the current folder.
    writeIpa("p", "com.example.plain", "Plain", QByteArray());
    QVERIFY(QDir::setCurrent(mHome->path()));

    const kavreltest::ProgramRun added = kavrel({"ipa", path, unnamed, "p"});
    QVERIFY2(added.exitCode == 0, added.err.constData());
    const QList<QByteArray> lines = added.out.trimmed().split('\n');
    QCOMPARE(lines.size(), 3);
    const QJsonObject record = QJsonDocument::fromJson(lines[0]).object();
    QCOMPARE(record["appname"].toString(), QStringLiteral("My Game"));
    QCOMPARE(record["ipapath"].toString(), QFileInfo(path).absoluteFilePath());
    QCOMPARE(qint64(record["ipasize"].toDouble()), QFileInfo(path).size());
    // Without a display name the file's name stands in, so the app is listed.
    QCOMPARE(QJsonDocument::fromJson(lines[1]).object()["appname"].toString(),
             QStringLiteral("Unnamed Tool"));

    const kavreltest::ProgramRun local = kavrel({"catalog", "local"});
    QCOMPARE(local.exitCode, 0);
    QCOMPARE(bundleIds(local.out),
             (QStringList{"com.example.game", "com.example.plain", "com.example.tool"}));
    QCOMPARE(kavrel({"catalog", "device"}).out, QByteArray("{ \"apps\" : [  ] }\n"));
    QCOMPARE(kavrel({"catalog"}).out, local.out);

    const QString iconOut = mHome->filePath("icon out.png");
    QCOMPARE(kavrel({"icon", "com.example.game", iconOut}).exitCode, 0);
    QCOMPARE(kavreltest::readFile(iconOut), icon);
    // Without an icon in the archive the host's compiled-in default icon is stored.
    QCOMPARE(kavrel({"icon", "com.example.plain", iconOut}).exitCode, 0);
    QCOMPARE(QImage(iconOut, "PNG").size(), QSize(57, 57));
}

void TestCatalogCli::brokenFilesLeaveCatalogAsItWas()
{
    const QString notZip = mHome->filePath("notzip.ipa");
    QVERIFY(kavreltest::writeFile(notZip, "definitely not a zip archive"));
    const QString missing = mHome->filePath("missing.ipa");
    const QString later = writeIpa("later.ipa", "com.example.later", "Later", "icon");

    const kavreltest::ProgramRun r = kavrel({"ipa", notZip, missing, later});
    QCOMPARE(r.exitCode, 1);
    const QList<QByteArray> errors = r.err.trimmed().split('\n');
    QCOMPARE(errors.size(), 2);
    QVERIFY2(QString(errors[0]).contains(notZip), errors[0].constData());
    QVERIFY2(QString(errors[1]).contains(missing), errors[1].constData());
    // The process went on with the next file.
    QVERIFY(r.out.contains("com.example.later"));
    QCOMPARE(bundleIds(kavrel({"catalog", "all"}).out), QStringList{"com.example.later"});
}

void TestCatalogCli::readdingKeepsDeviceSizes()
{
    const QString path = writeIpa("sized.ipa", "com.example.sized", "Sized", "icon");
    QCOMPARE(kavrel({"ipa", path}).exitCode, 0);
    {
        // The app is also on a device, whose sizes were measured meanwhile; the bundle
        // size is out of reach of a signed 32-bit integer.
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "catalog");
        db.setDatabaseName(mHome->filePath("Documents/norva/norvahelper.db"));
        QVERIFY(db.open());
        QVERIFY(QSqlQuery(db).exec("UPDATE table_appinfo SET appsize=5000000000, docsize=600, "
                                   "indevice=1 WHERE appid='com.example.sized'"));
    }
    QSqlDatabase::removeDatabase("catalog");

    QCOMPARE(kavrel({"ipa", path}).exitCode, 0);
    const QJsonObject app = QJsonDocument::fromJson(kavrel({"catalog", "device"}).out)
                                .object()["apps"]
                                .toArray()
                                .first()
                                .toObject();
    QCOMPARE(app["appsize"].toDouble(), 5000000000.0);
    QCOMPARE(app["docsize"].toInt(), 600);
    QCOMPARE(qint64(app["ipasize"].toDouble()), QFileInfo(path).size());
}

void TestCatalogCli::refusedUpdateIsReported()
{
    // A name with an apostrophe is stored by the first save (a bound insert), but the
    // catalog refuses to update the row with it: the second file must not pass as added.
    const QString first = writeIpa("first.ipa", "com.example.toms", "Tom's Game", "icon");
    const QString second = writeIpa("second.ipa", "com.example.toms", "Tom's Game", "icon");
    QCOMPARE(kavrel({"ipa", first}).exitCode, 0);
    const QByteArray before = kavrel({"catalog", "local"}).out;
    QVERIFY(before.contains("Tom's Game"));

    // Adding the same file again updates the row: nothing changes, so it passes.
    QCOMPARE(kavrel({"ipa", first}).exitCode, 0);
    const kavreltest::ProgramRun r = kavrel({"ipa", second});
    QCOMPARE(r.exitCode, 1);
    QVERIFY(r.out.isEmpty());
    QVERIFY2(QString(r.err).contains(second) && r.err.contains("apostrophe"), r.err.constData());
    QCOMPARE(kavrel({"catalog", "local"}).out, before);
}

void TestCatalogCli::usageErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("ipa without files") << QStringList{"ipa"} << 2 << QByteArray("at least one");
    QTest::newRow("unknown catalog kind")
        << QStringList{"catalog", "phone"} << 2 << QByteArray("expected one of");
    QTest::newRow("icon without file")
        << QStringList{"icon", "com.example.x"} << 2 << QByteArray("APPID FILE");
    QTest::newRow("icon not stored") << QStringList{"icon", "com.example.x", "/tmp/x.png"} << 1
                                     << QByteArray("no icon stored for com.example.x");
}

void TestCatalogCli::usageErrors()
{
    QFETCH(QStringList, args);
    const kavreltest::ProgramRun r = kavrel(args);
    QTEST(r.exitCode, "code");
    QFETCH(QByteArray, message);
    QVERIFY2(r.err.contains(message), r.err.constData());
}

KAVREL_TEST_MAIN(TestCatalogCli)
#include "tst_catalogcli.moc"
