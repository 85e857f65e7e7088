#pragma once

#include "DeviceBase.h"
#include "kavrel_export.h"

#include <QMetaEnum>
#include <QObject>
#include <QString>
#include <QStringList>

#include <libimobiledevice/afc.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/notification_proxy.h>
#include <plist/plist.h>

struct OperationInfo;

// Carries out one device operation (install, upgrade, uninstall, archive) from start to
// end inside its constructor, reporting each step as a progress line.
//
// Lines reach the manager on three paths: signalDevProgress (intermediate lines),
// signalFinished (lines that end the operation), and the stored failure line that
// lastFailureLine() returns once the installer's job has finished.
class KAVREL_EXPORT DeviceInstaller : public DeviceBase
{
    Q_OBJECT
public:
    // Error codes of the installer's own steps. The key names are part of the line
    // protocol (they appear in failure lines), the misspelt last one included.
    enum EInstError
    {
        KInstNoError = 0,
        KInstInitError,
        KInstInvalidInput,
        KInstServiceError,
        KInstInvalidPlist,
        KInstIpaOpenError,
        KInstIpaParseError,
        KInstArchiveCopyError,
        KInstInternalError,
        KInstMemoryError,
        KInstUnkownError
    };
    Q_ENUM(EInstError)

    // Runs the whole operation; owns the record from here on. Lines go to the manager's
    // slotDevProgress, slotInstallFinished and slotAppUninstalled.
    DeviceInstaller(QObject* manager, const OperationInfo* operation);
    // Session and services only, for the installed-app listing.
    DeviceInstaller(QObject* parent, const QString& udid);
    // Releases the installer's clients and its record (see cleanUp), then the session.
    ~DeviceInstaller() override;

    // Releases the service clients and the record; for an uninstall it tells the
    // manager the app is gone, whatever the device answered.
    void cleanUp() override;

    // The failure line stored by the last installer step that ended with an error;
    // empty when none did since the last preparation. Safe to call from any thread.
    static QString lastFailureLine();

    // Lists the installed apps (appType 0 all, 1 system, 2 user): the device's answer as
    // XML text when listFormat is 0, else a JSON array closed by an empty object, plus
    // the bundle ids in the device's order.
    bool getAppList(QString* list, QStringList* appIds, int appType, int listFormat);

signals:
    void signalDevProgress(QString status);
    void signalFinished(QString status);
    void signalAppUninstalled(QString appid);

private:
    bool prepare();
    void start();
    bool end(EInstError error);
    void emitLine(const QString& line, bool final);
    void waitForCommand();
    void resetOperationState();

    bool installIpa(const QString& ipaPath, bool upgrade);
    bool uploadIpa(const QByteArray& stagingPath, bool upgrade);
    bool uninstallApp(const QString& appId);
    bool archiveApp(const QString& appId, const QString& copyPath, bool appOnly,
                    bool skipUninstall);
    bool copyArchive(const QString& appId, const QByteArray& copyPath);
    bool removeArchive();

    static void statusCallback(plist_t command, plist_t status, void* installer);
    static void notifyCallback(const char* notification, void* userData);

    static void storeFailureLine(const QString& line);

    QMetaEnum mErrorEnum;
    OperationInfo* mOperation;
    char* mLocalPath;
    np_client_t mNpClient;
    instproxy_client_t mInstproxyClient;
    afc_client_t mAfcClient;
    int mCommand;
};
