#pragma once

#include <QMainWindow>
#include <QStringList>

class AppsController;
class AppsView;
class CatalogView;
class DeviceListener;
class DeviceManager;
class DevicePanel;
class QListWidget;
class QPushButton;
class QTabWidget;
class QueuePanel;
class ServiceIndicator;

// The assistant's window: attached devices and the selected one's information on the
// left, its apps and the local catalog on the right, the operation queue below. Every
// device request goes to the manager and comes back as its signals, so the window never
// waits for a device.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    QString currentUdid() const { return mUdid; }
    QStringList deviceUdids() const;
    DevicePanel* devicePanel() const { return mDevicePanel; }
    AppsView* appsView() const { return mApps; }
    AppsController* appsController() const { return mAppsController; }
    QueuePanel* queuePanel() const { return mQueue; }
    CatalogView* catalogView() const { return mCatalog; }
    ServiceIndicator* serviceIndicator() const { return mService; }
    DeviceManager* deviceManager() const { return mManager; }

public slots:
    // Queues an install (or an upgrade of an app the device has) for each .ipa file.
    void installFiles(const QStringList& paths);
    void uninstallSelected();
    // Archives the selected apps into folder (asks for one when empty).
    void archiveSelected(const QString& folder = QString());
    void refreshApps();
    void selectDevice(const QString& udid);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private slots:
    void slotDeviceAdded(const QString& udid);
    void slotDeviceRemoved(const QString& udid);
    void slotDevInfo(const QString& udid, const QString& report);
    void slotProgress(const QString& line);
    void slotOperationEnded(int type, const QString& appid, bool ok);
    void slotCancel(int type, const QString& udid, const QString& appid);

private:
    QWidget* buildAppsTab();
    void listenForDevices();
    void updateActions();
    void say(const QString& text);

    DeviceManager* mManager;
    DeviceListener* mListener = nullptr;
    QString mUdid;
    QListWidget* mDevices;
    DevicePanel* mDevicePanel;
    QTabWidget* mTabs;
    AppsView* mApps;
    AppsController* mAppsController;
    CatalogView* mCatalog;
    QueuePanel* mQueue;
    ServiceIndicator* mService;
    QPushButton* mInstallButton;
    QPushButton* mUninstallButton;
    QPushButton* mArchiveButton;
    QPushButton* mRefreshButton;
};
