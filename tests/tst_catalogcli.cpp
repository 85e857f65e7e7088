// The kavrel host's catalog commands: ipa, catalog and icon, run as a user would.

#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>

namespace {

struct Run
{
    int code = -1;
    QString out;
    QString err;
};

QByteArray infoPlist(const QString& id, const QString& name, const QString& icon)
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                     "<key>CFBundleIdentifier</key><string>" +
                     id.toUtf8() +
                     "</string>"
                     "<key>CFBundleVersion</key><string>42</string>"
                     "<key>MinimumOSVersion</key><string>12.0</string>";
    if (!name.isEmpty())
        xml += "<key>CFBundleDisplayName</key><string>" + name.toUtf8() + "</string>";
    if (!icon.isEmpty())
        xml += "<key>CFBundleIconFile</key><string>" + icon.toUtf8() + "</string>";
    return xml + "</dict></plist>";
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
    void hostSuppliesDefaultIcon();
    void usageErrors_data();
    void usageErrors();

private:
    Run kavrel(const QStringList& args);
    QString writeIpa(const QString& name, const QString& id, const QString& displayName,
                     const QByteArray& icon);
    QScopedPointer<QTemporaryDir> mHome;
};

void TestCatalogCli::init()
{
    mHome.reset(new QTemporaryDir);
    QVERIFY(mHome->isValid());
}

Run TestCatalogCli::kavrel(const QStringList& args)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", mHome->path()); // a fresh catalog per test
    env.remove("KAVREL_DEBUG");
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(KAVREL_CLI), args);
    Run r;
    if (!p.waitForFinished(60000))
        return r;
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QString TestCatalogCli::writeIpa(const QString& name, const QString& id, const QString& displayName,
                                 const QByteArray& icon)
{
    kavreltest::ZipBuilder zip;
    zip.add("Payload/App.app/Info.plist",
            infoPlist(id, displayName, icon.isEmpty() ? "" : "AppIcon.png"));
    if (!icon.isEmpty())
        zip.add("Payload/App.app/AppIcon.png", icon);
    const QString path = mHome->filePath(name);
    zip.write(path, true);
    return path;
}

void TestCatalogCli::ipaThenCatalogThenIcon()
{
    const QByteArray icon("\x89PNG\r\n\x1a\n pretend icon bytes", 28);
    const QString path = writeIpa("My Game ü.ipa", "com.example.game", "My Game", icon);
    const QString unnamed = writeIpa("Unnamed Tool.ipa", "com.example.tool", QString(), icon);

    const Run added = kavrel({"ipa", path, unnamed});
    QCOMPARE(added.code, 0);
    QVERIFY2(!added.err.contains("kavrel ipa"), qPrintable(added.err));
    const QStringList lines = added.out.trimmed().split('\n');
    QCOMPARE(lines.size(), 2);
    const QJsonObject record = QJsonDocument::fromJson(lines[0].toUtf8()).object();
    QCOMPARE(record["bundle_id"].toString(), QStringLiteral("com.example.game"));
    QCOMPARE(record["appname"].toString(), QStringLiteral("My Game"));
    QCOMPARE(record["version"].toString(), QStringLiteral("42"));
    QCOMPARE(record["inlocal"].toBool(), true);
    QCOMPARE(record["ipapath"].toString(), QFileInfo(path).absoluteFilePath());
    QCOMPARE(qint64(record["ipasize"].toDouble()), QFileInfo(path).size());
    // Without a display name the file's name stands in, so the app is listed.
    QCOMPARE(QJsonDocument::fromJson(lines[1].toUtf8()).object()["appname"].toString(),
             QStringLiteral("Unnamed Tool"));

    const Run local = kavrel({"catalog", "local"});
    QCOMPARE(local.code, 0);
    const QJsonArray apps = QJsonDocument::fromJson(local.out.toUtf8()).object()["apps"].toArray();
    QStringList ids;
    for (const QJsonValue& app : apps)
        ids << app.toObject()["bundle_id"].toString();
    ids.sort();
    QCOMPARE(ids, (QStringList{"com.example.game", "com.example.tool"}));
    QCOMPARE(kavrel({"catalog", "device"}).out.trimmed(), QStringLiteral("{ \"apps\" : [  ] }"));
    QCOMPARE(kavrel({"catalog"}).out, local.out);
    QVERIFY(QFileInfo(mHome->filePath("Documents/norva/norvahelper.db")).isFile());

    const QString iconOut = mHome->filePath("icon out.png");
    QCOMPARE(kavrel({"icon", "com.example.game", iconOut}).code, 0);
    QCOMPARE(kavreltest::readFile(iconOut), icon);

    // Adding the same file again updates the row instead of failing.
    QCOMPARE(kavrel({"ipa", path}).code, 0);
    QCOMPARE(kavrel({"catalog", "local"}).out, local.out);
}

void TestCatalogCli::brokenFilesLeaveCatalogAsItWas()
{
    QCOMPARE(kavrel({"ipa", writeIpa("good.ipa", "com.example.good", "Good", "icon")}).code, 0);
    const QString before = kavrel({"catalog", "all"}).out;

    const QString notZip = mHome->filePath("notzip.ipa");
    QVERIFY(kavreltest::writeFile(notZip, "definitely not a zip archive"));
    const QString empty = mHome->filePath("empty.ipa");
    QVERIFY(kavreltest::writeFile(empty, QByteArray()));
    kavreltest::ZipBuilder noPlist;
    noPlist.add("Payload/App.app/App", "binary");
    const QString noInfo = mHome->filePath("noinfo.ipa");
    QVERIFY(noPlist.write(noInfo));
    const QString later = writeIpa("later.ipa", "com.example.later", "Later", "icon");

    const Run r = kavrel({"ipa", notZip, empty, noInfo, mHome->filePath("missing.ipa"), later});
    QCOMPARE(r.code, 1);
    const QStringList errors = r.err.trimmed().split('\n').filter("kavrel ipa: ");
    QCOMPARE(errors.size(), 4);
    QVERIFY(errors[0].contains(notZip));
    QVERIFY(errors[1].contains(empty));
    QVERIFY(errors[2].contains(noInfo));
    QVERIFY(errors[3].contains("missing.ipa"));
    // The process went on with the next file.
    QVERIFY(r.out.contains("com.example.later"));

    const Run onlyBroken = kavrel({"ipa", notZip});
    QCOMPARE(onlyBroken.code, 1);
    QVERIFY(onlyBroken.out.isEmpty());
    const QString after = kavrel({"catalog", "all"}).out;
    QVERIFY(after.contains("com.example.later"));
    QCOMPARE(QString(after).replace(QRegularExpression(", \\{[^}]*com.example.later[^}]*\\}"), ""),
             before);
}

void TestCatalogCli::readdingKeepsDeviceSizes()
{
    const QString path = writeIpa("sized.ipa", "com.example.sized", "Sized", "icon");
    QCOMPARE(kavrel({"ipa", path}).code, 0);
    {
        // The app is also on a device, whose sizes were measured meanwhile.
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "catalog");
        db.setDatabaseName(mHome->filePath("Documents/norva/norvahelper.db"));
        QVERIFY(db.open());
        // The bundle size is above 2 GiB, out of reach of a signed 32-bit integer.
        QVERIFY(QSqlQuery(db).exec("UPDATE table_appinfo SET appsize=5000000000, docsize=600, "
                                   "indevice=1 WHERE appid='com.example.sized'"));
        db.close();
    }
    QSqlDatabase::removeDatabase("catalog");

    QCOMPARE(kavrel({"ipa", path}).code, 0);
    const QJsonObject app = QJsonDocument::fromJson(kavrel({"catalog", "device"}).out.toUtf8())
                                .object()["apps"]
                                .toArray()
                                .first()
                                .toObject();
    QCOMPARE(app["bundle_id"].toString(), QStringLiteral("com.example.sized"));
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
    QCOMPARE(kavrel({"ipa", first}).code, 0);
    const QString before = kavrel({"catalog", "local"}).out;
    QVERIFY(before.contains("Tom's Game"));

    QCOMPARE(kavrel({"ipa", first}).code, 0); // nothing to change: the row already says so
    const Run r = kavrel({"ipa", second});
    QCOMPARE(r.code, 1);
    QVERIFY(r.out.isEmpty());
    QVERIFY2(r.err.contains(second) && r.err.contains("apostrophe"), qPrintable(r.err));
    QCOMPARE(kavrel({"catalog", "local"}).out, before);
}

void TestCatalogCli::hostSuppliesDefaultIcon()
{
    QCOMPARE(
        kavrel({"ipa", writeIpa("plain.ipa", "com.example.plain", "Plain", QByteArray())}).code, 0);
    const QString iconOut = mHome->filePath("default.png");
    QCOMPARE(kavrel({"icon", "com.example.plain", iconOut}).code, 0);
    const QImage image(iconOut, "PNG");
    QVERIFY(!image.isNull());
    QCOMPARE(image.size(), QSize(57, 57));
}

void TestCatalogCli::usageErrors_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::newRow("ipa without files") << QStringList{"ipa"} << 2 << "at least one";
    QTest::newRow("unknown catalog kind")
        << QStringList{"catalog", "phone"} << 2 << "expected one of";
    QTest::newRow("icon without file") << QStringList{"icon", "com.example.x"} << 2 << "APPID FILE";
    QTest::newRow("icon not stored") << QStringList{"icon", "com.example.x", "/tmp/x.png"} << 1
                                     << "no icon stored for com.example.x";
}

void TestCatalogCli::usageErrors()
{
    QFETCH(QStringList, args);
    const Run r = kavrel(args);
    QTEST(r.code, "code");
    QFETCH(QString, message);
    QVERIFY2(r.err.contains(message), qPrintable(r.err));
}

KAVREL_TEST_MAIN(TestCatalogCli)
#include "tst_catalogcli.moc"
