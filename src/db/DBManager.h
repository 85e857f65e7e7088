#pragma once

#include "kavrel_export.h"

#include "IpaParser.h"

#include <QByteArray>
#include <QObject>
#include <QString>

class SettingInfo;

// The local SQLite catalog: one row per known app, the host's settings row and its
// download bookkeeping, all in norvahelper.db inside the data directory. One
// process-wide instance, reached through instance(), serves every thread.
class KAVREL_EXPORT DBManager : public QObject
{
    Q_OBJECT
public:
    // The single instance, created (with this parent) on the first call.
    static DBManager* instance(QObject* parent = nullptr);

    explicit DBManager(QObject* parent = nullptr);

    // Adds the default SQL connection to the catalog file and opens it.
    static bool createDBConnection();
    // Opens the connection and creates the three tables when missing.
    bool initDB();
    bool execQuery(const QString& sql);

    // App records.
    bool appExists(const QString& appid);
    // Updates the row when the app is known, inserts it otherwise; always true.
    bool saveAppinfo(IpaParser::IpaInfo* info);
    void insertAppInfo(IpaParser::IpaInfo* info);
    // Sets presence flags but never clears them, and never touches the icon.
    void updateAppInfo(IpaParser::IpaInfo* info);
    // Leaves mAppType, mIconName and mIcon of the record as they were.
    bool getAppById(const QString& appid, IpaParser::IpaInfo* info);
    // Clears the first requested presence flag; deletes the row when none is left.
    void removeAppById(const QString& appid, bool clearInDevice, bool clearInLocal,
                       bool clearFromDownload);
    // Stores an icon unless the app already has one.
    void saveAppIcon(const QString& appid, const QByteArray& data);
    bool ifIconExistsByAppid(const QString& appid);
    QByteArray getIconByAppid(const QString& appid);
    // queryType: 1 downloaded apps, 2 local apps, 3 apps on a device, anything else all.
    QString getAppsAsJson(int queryType);
    // Closes the connection (tables and file stay).
    void drop();
    void debugTable();

    // Settings row.
    bool settingExists();
    void saveSetting(SettingInfo* info);
    void setDefaultSettingIfNotExists(SettingInfo* info);
    void updateSetting(SettingInfo* info);
    bool deserialize(SettingInfo* info);

    // Download slot: a text the host parks between runs; reading it empties it.
    void saveDownloading(const QString& text);
    bool getDownloading(QString& text);

    static DBManager* mInstance;
};
