#pragma once

#include <QObject>
#include <QStringList>

class AppsView;
class DeviceManager;

// Fills the apps view of one device through the manager: the user apps, then the system
// apps (an app list names no kind, so each kind is its own request), then their icons
// and sizes, which arrive in batches while the device is read.
class AppsController : public QObject
{
    Q_OBJECT
public:
    AppsController(DeviceManager* manager, AppsView* view, QObject* parent = nullptr);

    // Lists the apps of the device anew; an empty udid empties the view. A reload of the
    // shown device keeps its rows until the new lists are in.
    void load(const QString& udid);
    QString udid() const { return mUdid; }
    bool isListing() const { return mPendingKind != NoList; }

signals:
    // Both lists of the device are in the view; icons and sizes follow.
    void listed(const QString& udid);

private slots:
    void slotAppList(const QString& udid, const QString& jsonApps, const QStringList& appIds);
    void slotIcons(const QString& udid, const QString& jsonApps);
    void slotSizes(const QString& udid, const QString& jsonSizes);

private:
    enum ListKind
    {
        NoList = -1,
        SystemList = 1,
        UserList = 2
    };
    void request(ListKind kind);
    void finishListing();

    DeviceManager* mManager;
    AppsView* mView;
    QString mUdid;
    QStringList mListed;
    // Only one list request is out at a time: the manager drops a second list request
    // for a device while an equal one still waits, and would never answer it.
    ListKind mPendingKind = NoList;
    bool mReloadWanted = false;
};
