#include "DBManager.h"

#include "SettingInfo.h"
#include "Utility.h"

#include <QDebug>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariantList>
#include <QVariantMap>

#include <mutex>

DBManager* DBManager::mInstance = nullptr;

namespace {

const QString kTableAppInfo = QStringLiteral("table_appinfo");
const QString kTableSetting = QStringLiteral("table_setting");
const QString kTableUtils = QStringLiteral("table_utils");
const QString kColumnDownloadings = QStringLiteral("downloadings");
const QString kColumnRunnings = QStringLiteral("runnings");

// Pool threads (size and icon jobs) and the host's thread all use the one connection.
// Qt hands the default connection only to the thread that created it and a connection
// must not be used by two threads at once, so the catalog keeps its own handle to the
// connection and every operation runs under one lock. Compound operations (look up,
// then insert or update) hold it throughout, so they stay whole. The standard mutexes are
// used because ThreadSanitizer follows them (Qt's own are invisible to it).
std::recursive_mutex& catalogLock()
{
    static std::recursive_mutex lock;
    return lock;
}

// Set when the connection is opened; never destroyed, as the catalog lives as long as
// the process does.
QSqlDatabase* gCatalogDb = nullptr;

QSqlQuery newQuery()
{
    return gCatalogDb ? QSqlQuery(*gCatalogDb) : QSqlQuery();
}

// A statement filled in with QString::arg. Values go between single quotes without
// escaping, so a value holding an apostrophe could change what the statement does;
// such a statement is remembered as unsafe and is never handed to SQLite.
struct Statement
{
    QString text;
    bool unsafe = false;
};

QString fill(const QString& value, bool& unsafe)
{
    if (value.contains(QLatin1Char('\'')))
        unsafe = true;
    return value;
}

QString fill(const Statement& part, bool& unsafe)
{
    if (part.unsafe)
        unsafe = true;
    return part.text;
}

QString fill(quint64 number, bool&)
{
    return QString::number(number);
}

QString fill(int number, bool&)
{
    return QString::number(number);
}

// All values are substituted in one pass, so a value that itself holds "%2" is not
// filled again by a later value.
template <typename... Values> Statement format(const char* pattern, const Values&... values)
{
    Statement s;
    s.text = QString::fromLatin1(pattern).arg(fill(values, s.unsafe)...);
    return s;
}

Statement& operator+=(Statement& lhs, const Statement& rhs)
{
    lhs.text += rhs.text;
    lhs.unsafe = lhs.unsafe || rhs.unsafe;
    return lhs;
}

// Runs a statement; an unsafe one fails exactly like a statement SQLite rejected.
bool run(QSqlQuery& query, const Statement& statement)
{
    if (statement.unsafe)
        return false;
    return query.exec(statement.text);
}

bool runYieldsRow(const Statement& statement)
{
    QSqlQuery query = newQuery();
    return run(query, statement) && query.next();
}

const char* flagText(bool flag)
{
    return flag ? "true" : "false";
}

// Sizes read back by position pass through a signed 32-bit integer, widened with its sign.
quint64 sizeFromColumn(const QVariant& value)
{
    return quint64(qint64(value.toInt()));
}

} // namespace

DBManager* DBManager::instance(QObject* parent)
{
    DBManager* existing = __atomic_load_n(&mInstance, __ATOMIC_ACQUIRE);
    if (existing)
        return existing;
    static std::mutex creationLock;
    std::lock_guard<std::mutex> locker(creationLock);
    if (!mInstance)
        __atomic_store_n(&mInstance, new DBManager(parent), __ATOMIC_RELEASE);
    return mInstance;
}

DBManager::DBManager(QObject* parent) : QObject(parent)
{
    if (!initDB())
        qDebug() << "Failed to initDB";
}

bool DBManager::createDBConnection()
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
    db.setDatabaseName(Utility::dataPath() + QStringLiteral("norvahelper.db"));
    if (!gCatalogDb)
        gCatalogDb = new QSqlDatabase(db);
    else
        *gCatalogDb = db;
    if (!db.open()) {
        qDebug() << "Error: failed to create database.";
        return false;
    }
    return true;
}

bool DBManager::initDB()
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    if (!createDBConnection()) {
        qDebug() << "Failed to createDBConnection.";
        return false;
    }
    const Statement appInfo = format(
        "create table if not exists %1(appid VARCHAR(255) primary key, apptype VARCHAR(20), "
        "appname VARCHAR(255), appver VARCHAR(50), minos   VARCHAR(20), devices VARCHAR(50), "
        "appleid VARCHAR(50), ipapath VARCHAR(100), ipasize INTEGER,appsize INTEGER,docsize "
        "INTEGER,iconname VARCHAR(20),icondata BLOB,indevice BOOLEAN, inlocal "
        "BOOLEAN,fromdownload BOOLEAN)",
        kTableAppInfo);
    if (!execQuery(appInfo.text)) {
        qDebug() << "Failed to create table_appinfo";
        return false;
    }
    const Statement setting = format(
        "create table if not exists %1(pcversion VARCHAR(50),downloaddir VARCHAR(512),itunesdir "
        "VARCHAR(512),ipacheck INTEGER,ipainstall INTEGER,autoupgrade INTEGRER)",
        kTableSetting);
    if (!execQuery(setting.text)) {
        qDebug() << "Failed to create table_setting";
        return false;
    }
    const Statement utils = format("create table if not exists %1(%2 VARCHAR(8000), %3 INTEGER)",
                                   kTableUtils, kColumnDownloadings, kColumnRunnings);
    if (!execQuery(utils.text)) {
        qDebug() << "Failed to create table_utils";
        return false;
    }
    return true;
}

bool DBManager::execQuery(const QString& sql)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    QSqlQuery query = newQuery();
    if (!query.exec(sql)) {
        qDebug() << "Error: failed to exec query: " << sql;
        return false;
    }
    return true;
}

bool DBManager::appExists(const QString& appid)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    return runYieldsRow(format("SELECT appid from %1 WHERE  appid='%2'", kTableAppInfo, appid));
}

bool DBManager::saveAppinfo(IpaParser::IpaInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::saveAppinfo";
    if (appExists(info->mAppId))
        updateAppInfo(info);
    else
        insertAppInfo(info);
    return true;
}

void DBManager::insertAppInfo(IpaParser::IpaInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "insertAppInfo for appid: " << info->mAppId;
    QSqlQuery query = newQuery();
    query.prepare(
        QStringLiteral("INSERT INTO %1 (appid, apptype, appname, appver, minos, devices, appleid, "
                       "ipapath, ipasize, appsize, docsize, iconname, icondata, indevice, inlocal, "
                       "fromdownload) VALUES (:appid, :apptype, :appname, :appver, :minos, "
                       ":devices, :appleid, :ipapath, :ipasize, :appsize, :docsize, :iconname, "
                       ":icondata, :indevice, :inlocal, :fromdownload)")
            .arg(kTableAppInfo));
    query.bindValue(QStringLiteral(":appid"), info->mAppId);
    query.bindValue(QStringLiteral(":apptype"), info->mAppType);
    query.bindValue(QStringLiteral(":appname"), info->mAppName);
    query.bindValue(QStringLiteral(":appver"), info->mVersion);
    query.bindValue(QStringLiteral(":minos"), info->mMinOsVer);
    query.bindValue(QStringLiteral(":devices"), info->mDevices.join(QLatin1Char(',')));
    query.bindValue(QStringLiteral(":appleid"), info->mAppleId);
    query.bindValue(QStringLiteral(":ipapath"), info->mIpaPath);
    query.bindValue(QStringLiteral(":ipasize"), qulonglong(info->mIpaSize));
    query.bindValue(QStringLiteral(":appsize"), qulonglong(info->mAppSize));
    query.bindValue(QStringLiteral(":docsize"), qulonglong(info->mDocSize));
    query.bindValue(QStringLiteral(":iconname"), info->mIconName);
    query.bindValue(QStringLiteral(":indevice"), info->mInDevice ? 1 : 0);
    query.bindValue(QStringLiteral(":inlocal"), info->mInLocal ? 1 : 0);
    query.bindValue(QStringLiteral(":fromdownload"), info->mFromDownload ? 1 : 0);
    query.bindValue(QStringLiteral(":icondata"), info->mIcon, QSql::In | QSql::Binary);
    const bool ok = query.exec();
    qDebug() << "insertAppInfo result: " << flagText(ok);
}

void DBManager::updateAppInfo(IpaParser::IpaInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "updateAppInfo for appid: " << info->mAppId;
    Statement clause = format("apptype='%1',", info->mAppType);
    clause += format("%1='%2',", QStringLiteral("appname"), info->mAppName);
    clause += format("%1='%2',", QStringLiteral("appver"), info->mVersion);
    clause += format("%1='%2',", QStringLiteral("minos"), info->mMinOsVer);
    clause += format("%1='%2',", QStringLiteral("devices"), info->mDevices.join(QLatin1Char(',')));
    clause += format("%1='%2',", QStringLiteral("appleid"), info->mAppleId);
    clause += format("%1='%2',", QStringLiteral("ipapath"), info->mIpaPath);
    clause += format("%1='%2',", QStringLiteral("iconname"), info->mIconName);
    // Presence flags are only ever set here; clearing them is removeAppById's job.
    if (info->mFromDownload)
        clause += format("%1=%2,", QStringLiteral("fromdownload"), 1);
    if (info->mInDevice)
        clause += format("%1=%2,", QStringLiteral("indevice"), 1);
    if (info->mInLocal)
        clause += format("%1=%2,", QStringLiteral("inlocal"), 1);
    clause += format("%1=%2,", QStringLiteral("ipasize"), info->mIpaSize);
    clause += format("%1=%2,", QStringLiteral("appsize"), info->mAppSize);
    clause += format("%1=%2", QStringLiteral("docsize"), info->mDocSize);
    qDebug() << "update content: " << clause.text;

    QSqlQuery query = newQuery();
    const bool ok = run(
        query, format("UPDATE %1 SET %2 WHERE appid='%3';", kTableAppInfo, clause, info->mAppId));
    qDebug() << "updateAppInfo result: " << flagText(ok);
}

bool DBManager::getAppById(const QString& appid, IpaParser::IpaInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::getAppById, appid: " << appid;
    QSqlQuery query = newQuery();
    if (!run(query, format("SELECT * from %1 WHERE appid='%2'", kTableAppInfo, appid)) ||
        !query.next())
        return false;
    // apptype, iconname and icondata are not read back: the caller's values stay.
    info->mFromDownload = query.value(15).toBool();
    info->mInDevice = query.value(13).toBool();
    info->mInLocal = query.value(14).toBool();
    info->mAppId = query.value(0).toString();
    info->mAppleId = query.value(6).toString();
    info->mAppName = query.value(2).toString();
    info->mVersion = query.value(3).toString();
    info->mMinOsVer = query.value(4).toString();
    info->mDevices =
        query.value(5).toString().split(QLatin1Char(','), Qt::KeepEmptyParts, Qt::CaseSensitive);
    info->mIpaPath = query.value(7).toString();
    info->mIpaSize = sizeFromColumn(query.value(8));
    info->mAppSize = sizeFromColumn(query.value(9));
    info->mDocSize = sizeFromColumn(query.value(10));
    return true;
}

void DBManager::removeAppById(const QString& appid, bool clearInDevice, bool clearInLocal,
                              bool clearFromDownload)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::removeAppById, appid: " << appid;
    // One flag per call, the first requested one.
    Statement clause;
    if (clearInDevice)
        clause = format("indevice=%1", 0);
    else if (clearInLocal)
        clause = format("inlocal=%1", 0);
    else if (clearFromDownload)
        clause = format("fromdownload=%1", 0);

    QSqlQuery update = newQuery();
    run(update, format("UPDATE %1 SET %2 WHERE appid='%3'", kTableAppInfo, clause, appid));
    QSqlQuery remove = newQuery();
    run(remove, format("DELETE FROM %1 WHERE appid='%2' AND indevice=0 AND inlocal=0 AND "
                       "fromdownload=0",
                       kTableAppInfo, appid));
}

void DBManager::saveAppIcon(const QString& appid, const QByteArray& data)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    if (ifIconExistsByAppid(appid)) {
        qDebug() << "icon already exists in db for appid: " << appid;
        return;
    }
    QSqlQuery query = newQuery();
    bool ok = false;
    if (!appExists(appid)) {
        query.prepare(QStringLiteral("INSERT INTO %1(appid, icondata, indevice)VALUES(:appid, "
                                     ":icondata, :indevice)")
                          .arg(kTableAppInfo));
        query.bindValue(QStringLiteral(":appid"), appid);
        query.bindValue(QStringLiteral(":indevice"), 1);
        query.bindValue(QStringLiteral(":icondata"), data, QSql::In | QSql::Binary);
        ok = query.exec();
    } else {
        const Statement update =
            format("UPDATE %1 SET icondata = :icondata WHERE appid='%2'", kTableAppInfo, appid);
        if (!update.unsafe && query.prepare(update.text)) {
            query.bindValue(QStringLiteral(":icondata"), data, QSql::In);
            ok = query.exec();
        }
    }
    if (!ok)
        qDebug() << "Error: failed to update icon.";
}

bool DBManager::ifIconExistsByAppid(const QString& appid)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    return runYieldsRow(
        format("SELECT * FROM %1 WHERE appid='%2' and length(icondata) > 0", kTableAppInfo, appid));
}

QByteArray DBManager::getIconByAppid(const QString& appid)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    QByteArray icon;
    QSqlQuery query = newQuery();
    if (run(query, format("SELECT icondata FROM %1 WHERE appid='%2'", kTableAppInfo, appid)) &&
        query.next())
        icon = query.value(0).toByteArray();
    return icon;
}

QString DBManager::getAppsAsJson(int queryType)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::getAppsAsJson, queryType: " << queryType;
    QSqlQuery query = newQuery();
    // NULL names are left out too: a comparison with NULL is never true.
    if (!run(query, format("SELECT * FROM %1 WHERE appname<>''", kTableAppInfo)))
        return QString();

    QVariantList apps;
    while (query.next()) {
        bool included = true;
        switch (queryType) {
        case 1:
            included = query.value(15).toBool();
            break;
        case 2:
            included = query.value(14).toBool();
            break;
        case 3:
            included = query.value(13).toBool();
            break;
        default:
            break;
        }
        if (!included)
            continue;
        QVariantMap app;
        app.insert(QStringLiteral("bundle_id"), query.value(0));
        app.insert(QStringLiteral("apptype"), query.value(1));
        app.insert(QStringLiteral("appname"), query.value(2));
        app.insert(QStringLiteral("version"), query.value(3));
        app.insert(QStringLiteral("appleid"), query.value(6));
        app.insert(QStringLiteral("ipasize"), query.value(8));
        app.insert(QStringLiteral("appsize"), query.value(9));
        app.insert(QStringLiteral("docsize"), query.value(10));
        app.insert(QStringLiteral("comp"), query.value(4));
        app.insert(QStringLiteral("devices"), query.value(5));
        apps.append(app);
    }
    QVariantMap result;
    result.insert(QStringLiteral("apps"), apps);
    return Utility::toJsonString(result);
}

void DBManager::drop()
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::drop";
    if (gCatalogDb)
        gCatalogDb->close();
}

void DBManager::debugTable()
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::debugTable";
    QSqlQuery query = newQuery();
    run(query, format("SELECT * FROM %1", kTableAppInfo));
    qDebug() << "count of record: " << query.size();
    while (query.next()) {
        const QSqlRecord record = query.record();
        const auto text = [&](const char* column) {
            return record.value(QLatin1String(column)).toString();
        };
        const auto flag = [&](const char* column) {
            return flagText(record.value(QLatin1String(column)).toBool());
        };
        qDebug() << "************ record ****************";
        qDebug() << "   appid: " << text("appid");
        qDebug() << " appname: " << text("appname");
        qDebug() << "  appver: " << text("appver");
        qDebug() << " appleid: " << text("appleid");
        qDebug() << "iconname: " << text("iconname");
        qDebug() << "devices: " << text("devices");
        qDebug() << "icondata: " << record.value(QStringLiteral("icondata")).toByteArray().size();
        qDebug() << "indevice: " << flag("indevice");
        qDebug() << "inlocal: " << flag("inlocal");
        qDebug() << "fromdownload: " << flag("fromdownload");
        qDebug() << "ipapath: " << text("ipapath");
    }
}

// Settings row: whichever row has a non-empty pcversion.

bool DBManager::settingExists()
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    return runYieldsRow(format("select * from %1 where pcversion <> ''", kTableSetting));
}

void DBManager::saveSetting(SettingInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::saveSetting";
    QSqlQuery query = newQuery();
    if (!query.prepare(QStringLiteral("insert into %1 (pcversion, downloaddir, "
                                      "itunesdir,ipacheck, ipainstall, autoupgrade) values "
                                      "(:pcversion, :downloaddir, :itunesdir, :ipacheck, "
                                      ":ipainstall, :autoupgrade)")
                           .arg(kTableSetting))) {
        qDebug() << "Failed to prepare to saveSetting.";
        return;
    }
    query.bindValue(QStringLiteral(":pcversion"), info->mVersion);
    query.bindValue(QStringLiteral(":downloaddir"), info->mDownloadDir);
    query.bindValue(QStringLiteral(":itunesdir"), info->mItunesDir);
    query.bindValue(QStringLiteral(":ipacheck"), info->mIpaCheck);
    query.bindValue(QStringLiteral(":ipainstall"), info->mIpaInstall);
    query.bindValue(QStringLiteral(":autoupgrade"), info->mAutoUpgrade);
    query.exec();
}

void DBManager::setDefaultSettingIfNotExists(SettingInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    if (!runYieldsRow(format("select * from %1 where pcversion <> ''", kTableSetting)))
        saveSetting(info);
}

void DBManager::updateSetting(SettingInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::updateSetting";
    Statement values = format("pcversion='%1',", info->mVersion);
    values += format("downloaddir='%1',", info->mDownloadDir);
    values += format("itunesdir='%1',", info->mItunesDir);
    values += format("ipacheck=%1,", info->mIpaCheck);
    values += format("ipainstall=%1,", info->mIpaInstall);
    values += format("autoupgrade=%1", info->mAutoUpgrade);
    const Statement update =
        format("UPDATE %1 SET %2 WHERE pcversion <> ''", kTableSetting, values);
    qDebug() << update.text;
    QSqlQuery query = newQuery();
    run(query, update);
}

bool DBManager::deserialize(SettingInfo* info)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    qDebug() << "DBManager::deserialize";
    if (!info) {
        qDebug() << "info couldn't be empty.";
        return false;
    }
    QSqlQuery query = newQuery();
    if (!run(query, format("select * from %1 where pcversion <> ''", kTableSetting)) ||
        !query.next()) {
        qDebug() << "failed to get data for setting.";
        return false;
    }
    info->mVersion = query.value(0).toString();
    info->mDownloadDir = query.value(1).toString();
    info->mItunesDir = query.value(2).toString();
    info->mIpaCheck = query.value(3).toInt();
    info->mIpaInstall = query.value(4).toInt();
    info->mAutoUpgrade = query.value(5).toInt();
    return true;
}

void DBManager::saveDownloading(const QString& text)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    if (runYieldsRow(format("select * from %1", kTableUtils))) {
        QSqlQuery update = newQuery();
        if (!run(update, format("update %1 set %2='%3'", kTableUtils, kColumnDownloadings, text)))
            qDebug() << "failed saveDownloading when update";
        return;
    }
    QSqlQuery insert = newQuery();
    insert.prepare(QStringLiteral("insert into %1 (%2) values(:downloading)")
                       .arg(kTableUtils, kColumnDownloadings));
    insert.bindValue(QStringLiteral(":downloading"), text);
    if (!insert.exec())
        qDebug() << "failed saveDownloading when inserted.";
}

bool DBManager::getDownloading(QString& text)
{
    std::lock_guard<std::recursive_mutex> locker(catalogLock());
    QSqlQuery query = newQuery();
    if (!run(query, format("select * from %1 where %2 <> ''", kTableUtils, kColumnDownloadings)) ||
        !query.next())
        return false;
    text = query.value(0).toString();
    // The slot is take-once: reading empties it (the row itself stays).
    QSqlQuery clear = newQuery();
    if (!run(clear, format("UPDATE %1 SET %2 = '' WHERE %3 <> ''", kTableUtils, kColumnDownloadings,
                           kColumnDownloadings)))
        qDebug() << "Warning, failed to clear downloading info.";
    return true;
}
