// DBManager: the SQLite catalog of apps, the settings row and the download slot.

#include "DBManager.h"
#include "SettingInfo.h"
#include "TestSupport.h"

#include <QSqlQuery>

namespace {

// The flags of one row as stored: -1 stands for NULL.
struct Flags
{
    int inDevice, inLocal, fromDownload;
};

QVariant column(const QString& appid, const QString& name)
{
    QSqlQuery q(QStringLiteral("SELECT %1 FROM table_appinfo WHERE appid = '%2'").arg(name, appid));
    return q.next() ? q.value(0) : QVariant(QStringLiteral("<no row>"));
}

IpaParser::IpaInfo record(const QString& appid, const QString& name = QStringLiteral("Name"))
{
    IpaParser::IpaInfo info;
    info.mAppId = appid;
    info.mAppName = name;
    info.mAppType = QStringLiteral("Games");
    info.mVersion = QStringLiteral("1.0");
    info.mMinOsVer = QStringLiteral("9.0");
    info.mDevices = QStringList{"iPhoneOS", "iPadOS"};
    info.mAppleId = QStringLiteral("buyer@example.com");
    info.mIpaPath = QStringLiteral("/ipas/") + appid + QStringLiteral(".ipa");
    info.mIpaSize = 1000;
    info.mAppSize = 2000;
    info.mDocSize = 3000;
    info.mIconName = QStringLiteral("Icon.png");
    info.mIcon = QByteArray("\x89PNG\0icon of ", 14) + appid.toUtf8();
    return info;
}

void storeWithFlags(const QString& appid, Flags f)
{
    const auto v = [](int flag) {
        return flag < 0 ? QStringLiteral("NULL") : QString::number(flag);
    };
    QVERIFY(QSqlQuery().exec(
        QStringLiteral("INSERT INTO table_appinfo(appid, appname, indevice, "
                       "inlocal, fromdownload) VALUES('%1', '%1 name', %2, %3, %4)")
            .arg(appid, v(f.inDevice), v(f.inLocal), v(f.fromDownload))));
}

int rowCount(const QString& table)
{
    QSqlQuery q(QStringLiteral("SELECT count(*) FROM ") + table);
    return q.next() ? q.value(0).toInt() : -1;
}

QStringList bundleIds(const QString& json)
{
    QStringList ids;
    for (const QJsonValue& app : QJsonDocument::fromJson(json.toUtf8())["apps"].toArray())
        ids << app["bundle_id"].toString();
    return ids;
}

} // namespace

Q_DECLARE_METATYPE(Flags)

class TestDBManager : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void saveInsertsThenUpdates();
    void removeClearsOneFlag_data();
    void removeClearsOneFlag();
    void iconOnlyRows();
    void appsAsJson_data();
    void appsAsJson();
    void jsonCarriesColumnValues();
    void apostrophesNeverReachSql();
    void settingsRow();
    void downloadSlotIsTakeOnce();

private:
    DBManager* mDb = nullptr;
};

void TestDBManager::initTestCase()
{
    mDb = DBManager::instance();
    QVERIFY(QFileInfo(kavreltest::TempHome::documentsPath() + "/norva/norvahelper.db").isFile());
}

void TestDBManager::init()
{
    for (const char* table : {"table_appinfo", "table_setting", "table_utils"})
        QVERIFY(QSqlQuery().exec(QStringLiteral("DELETE FROM ") + table));
}

void TestDBManager::saveInsertsThenUpdates()
{
    IpaParser::IpaInfo info = record("com.example.a", "First");
    info.mInLocal = true;
    kavreltest::LogCapture log;
    QVERIFY(mDb->saveAppinfo(&info));
    QVERIFY(log.hasLine(QStringLiteral("insertAppInfo result:  true")));
    QVERIFY(mDb->appExists("com.example.a"));
    QCOMPARE(mDb->getIconByAppid("com.example.a"), info.mIcon);

    info.mAppName = "Second";
    info.mVersion = QString();
    info.mIcon = "other icon"; // an update never touches the icon
    info.mInLocal = false;
    info.mInDevice = true;
    QVERIFY(mDb->saveAppinfo(&info));
    QVERIFY2(log.hasLine(QStringLiteral("updateAppInfo result:  true")), qPrintable(log.dump()));
    QCOMPARE(mDb->getIconByAppid("com.example.a"), record("com.example.a").mIcon);

    IpaParser::IpaInfo out;
    QVERIFY(mDb->getAppById("com.example.a", &out));
    // Empty texts overwrite stored ones; an update sets flags but never clears them.
    QCOMPARE(out.mAppName + out.mVersion, QStringLiteral("Second"));
    QVERIFY(out.mInDevice && out.mInLocal && !out.mFromDownload);
    QVERIFY(!mDb->getAppById("com.example.unknown", &out));
}

void TestDBManager::removeClearsOneFlag_data()
{
    QTest::addColumn<Flags>("before");
    QTest::addColumn<QString>("clear"); // the flags asked to be cleared
    QTest::addColumn<bool>("rowKept");
    QTest::addColumn<Flags>("after");

    QTest::newRow("last flag cleared: row deleted")
        << Flags{1, 0, 0} << "device" << false << Flags{};
    QTest::newRow("device and local asked: only device cleared")
        << Flags{1, 1, 0} << "device local" << true << Flags{0, 1, 0};
    QTest::newRow("local cleared, download stays")
        << Flags{0, 1, 1} << "local" << true << Flags{0, 0, 1};
    QTest::newRow("nothing asked: nothing changes")
        << Flags{1, 1, 1} << "" << true << Flags{1, 1, 1};
    QTest::newRow("NULL flags are never deleted")
        << Flags{1, -1, -1} << "device" << true << Flags{0, -1, -1};
}

void TestDBManager::removeClearsOneFlag()
{
    QFETCH(Flags, before);
    QFETCH(QString, clear);
    QFETCH(bool, rowKept);
    QFETCH(Flags, after);

    storeWithFlags("target", before);
    storeWithFlags("neighbour", {0, 1, 0});
    mDb->removeAppById("target", clear.contains("device"), clear.contains("local"),
                       clear.contains("download"));
    QCOMPARE(mDb->appExists("target"), rowKept);
    QVERIFY(mDb->appExists("neighbour"));
    if (!rowKept)
        return;
    const auto flag = [](const QVariant& v) { return v.isNull() ? -1 : v.toInt(); };
    QCOMPARE(flag(column("target", "indevice")), after.inDevice);
    QCOMPARE(flag(column("target", "inlocal")), after.inLocal);
    QCOMPARE(flag(column("target", "fromdownload")), after.fromDownload);
}

void TestDBManager::iconOnlyRows()
{
    kavreltest::LogCapture log;
    mDb->saveAppIcon("com.example.icon", "first icon");
    QCOMPARE(mDb->getIconByAppid("com.example.icon"), QByteArray("first icon"));
    QCOMPARE(column("com.example.icon", "indevice").toInt(), 1);

    // A stored icon is never replaced.
    mDb->saveAppIcon("com.example.icon", "second icon");
    QVERIFY(log.contains(QStringLiteral("icon already exists in db for appid: ")));
    QCOMPARE(mDb->getIconByAppid("com.example.icon"), QByteArray("first icon"));

    // Without a name the row is left out of the list.
    QVERIFY(bundleIds(mDb->getAppsAsJson(0)).isEmpty());

    // A row with an empty icon gets one.
    IpaParser::IpaInfo noIcon = record("com.example.noicon");
    noIcon.mIcon.clear();
    mDb->saveAppinfo(&noIcon);
    QVERIFY(!mDb->ifIconExistsByAppid("com.example.noicon"));
    mDb->saveAppIcon("com.example.noicon", "fetched icon");
    QCOMPARE(mDb->getIconByAppid("com.example.noicon"), QByteArray("fetched icon"));
}

void TestDBManager::appsAsJson_data()
{
    QTest::addColumn<int>("queryType");
    QTest::addColumn<QStringList>("ids");
    QTest::newRow("all") << 0 << QStringList{"dev", "dl", "local", "none"};
    QTest::newRow("downloaded") << 1 << QStringList{"dl"};
    QTest::newRow("local") << 2 << QStringList{"local"};
    QTest::newRow("device") << 3 << QStringList{"dev"};
    QTest::newRow("unknown type lists all") << 7 << QStringList{"dev", "dl", "local", "none"};
}

void TestDBManager::appsAsJson()
{
    QFETCH(int, queryType);
    storeWithFlags("dev", {1, 0, 0});
    storeWithFlags("dl", {0, 0, 1});
    storeWithFlags("local", {0, 1, 0});
    storeWithFlags("none", {0, 0, 0});
    QVERIFY(QSqlQuery().exec(
        "INSERT INTO table_appinfo(appid, appname, indevice) VALUES('noname', '', 1)"));
    QStringList ids = bundleIds(mDb->getAppsAsJson(queryType));
    ids.sort();
    QTEST(ids, "ids");
}

void TestDBManager::jsonCarriesColumnValues()
{
    IpaParser::IpaInfo info = record("com.example.json");
    info.mInLocal = true;
    mDb->saveAppinfo(&info);
    QCOMPARE(
        mDb->getAppsAsJson(2),
        QStringLiteral("{ \"apps\" : [ { \"appleid\" : \"buyer@example.com\", \"appname\" : "
                       "\"Name\", \"appsize\" : 2000, \"apptype\" : \"Games\", \"bundle_id\" : "
                       "\"com.example.json\", \"comp\" : \"9.0\", \"devices\" : "
                       "\"iPhoneOS,iPadOS\", \"docsize\" : 3000, \"ipasize\" : 1000, "
                       "\"version\" : \"1.0\" } ] }"));
}

void TestDBManager::apostrophesNeverReachSql()
{
    const QString crafted = QStringLiteral("x' OR '1'='1");
    for (const char* id : {"com.example.one", "com.example.two"}) {
        IpaParser::IpaInfo info = record(id);
        info.mInDevice = info.mInLocal = true;
        mDb->saveAppinfo(&info);
    }
    const QString before = mDb->getAppsAsJson(0) + mDb->getAppsAsJson(3);
    kavreltest::LogCapture log;
    mDb->removeAppById(crafted, true, false, false);
    QVERIFY(!mDb->appExists(crafted)); // lookups by such an id behave as if nothing matched
    // An apostrophe in a value of an update fails it, even where the text would still be
    // valid SQL (here it would rename the app); the old values stay.
    IpaParser::IpaInfo named = record("com.example.two", "Rock',appname='Roll");
    mDb->saveAppinfo(&named);
    QVERIFY(log.hasLine(QStringLiteral("updateAppInfo result:  false")));
    QVERIFY(!log.contains(QStringLiteral("Error: failed to exec query")));
    QCOMPARE(mDb->getAppsAsJson(0) + mDb->getAppsAsJson(3), before);
}

void TestDBManager::settingsRow()
{
    QVERIFY(!mDb->settingExists());
    SettingInfo missing;
    QVERIFY(!mDb->deserialize(&missing));

    SettingInfo info;
    info.mVersion = "1.0";
    info.mDownloadDir = "/home/u/Downloads";
    info.mItunesDir = "/home/u/Music/iTunes";
    info.mIpaInstall = 0;
    mDb->setDefaultSettingIfNotExists(&info);
    SettingInfo other;
    other.mVersion = "9.9";
    mDb->setDefaultSettingIfNotExists(&other); // a row exists: nothing is inserted
    QVERIFY(mDb->settingExists());

    SettingInfo read;
    QVERIFY(mDb->deserialize(&read));
    const auto fields = [](const SettingInfo& s) {
        return QStringLiteral("%1|%2|%3|%4|%5|%6")
            .arg(s.mVersion, s.mDownloadDir, s.mItunesDir)
            .arg(s.mIpaCheck)
            .arg(s.mIpaInstall)
            .arg(s.mAutoUpgrade);
    };
    QCOMPARE(fields(read), QStringLiteral("1.0|/home/u/Downloads|/home/u/Music/iTunes|1|0|1"));

    read.mVersion = "1.1";
    read.mAutoUpgrade = 0;
    kavreltest::LogCapture log;
    mDb->updateSetting(&read);
    QVERIFY(log.hasLine(
        QStringLiteral("\"UPDATE table_setting SET pcversion='1.1',downloaddir='/home/u/"
                       "Downloads',itunesdir='/home/u/Music/iTunes',ipacheck=1,"
                       "ipainstall=0,autoupgrade=0 WHERE pcversion <> ''\"")));
    // A folder with an apostrophe cannot be stored by an update: the old values stay,
    // also where the text would be valid SQL that rewrites another column.
    SettingInfo quoted = read;
    quoted.mDownloadDir = "/home/x',pcversion='hijacked";
    mDb->updateSetting(&quoted);

    SettingInfo again;
    QVERIFY(mDb->deserialize(&again));
    QCOMPARE(fields(again), fields(read));
    QCOMPARE(rowCount("table_setting"), 1);
}

void TestDBManager::downloadSlotIsTakeOnce()
{
    QString text = "untouched";
    QVERIFY(!mDb->getDownloading(text));

    // The first save inserts through a bound value, so an apostrophe is fine.
    mDb->saveDownloading("it's a list");
    QVERIFY(mDb->getDownloading(text));
    QCOMPARE(text, QStringLiteral("it's a list"));
    text = "untouched";
    QVERIFY(!mDb->getDownloading(text));
    QCOMPARE(text, QStringLiteral("untouched"));

    // Later saves update in place: an apostrophe is refused and the slot keeps its text.
    mDb->saveDownloading("kept");
    kavreltest::LogCapture log;
    mDb->saveDownloading("x' OR '1'='1");
    QVERIFY(log.hasLine(QStringLiteral("failed saveDownloading when update")));
    QVERIFY(mDb->getDownloading(text));
    QCOMPARE(text, QStringLiteral("kept"));

    mDb->saveDownloading(QString());
    QVERIFY(!mDb->getDownloading(text));
    QCOMPARE(rowCount("table_utils"), 1); // the slot row is kept, never duplicated
}

KAVREL_TEST_MAIN(TestDBManager)
#include "tst_dbmanager.moc"
