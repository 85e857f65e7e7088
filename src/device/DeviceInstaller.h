#pragma once

#include "DeviceBase.h"
#include "kavrel_export.h"

#include <QMetaEnum>
#include <QObject>
#include <QString>

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

    // The failure line stored by the last installer step that ended with an error;
    // empty when none did since the last preparation. Safe to call from any thread.
    static QString lastFailureLine();

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
