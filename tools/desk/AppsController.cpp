#include "AppsController.h"

#include "AppsView.h"
#include "DBManager.h"
#include "DeviceManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

AppsController::AppsController(DeviceManager* manager, AppsView* view, QObject* parent)
    : QObject(parent), mManager(manager), mView(view)
{
    connect(mManager, &DeviceManager::signalAppList, this, &AppsController::slotAppList);
    connect(mManager, &DeviceManager::signalAppIconsReady, this, &AppsController::slotIcons);
    connect(mManager, &DeviceManager::signalAppSize, this, &AppsController::slotSizes);
}

void AppsController::load(const QString& udid)
{
    if (udid != mUdid)
        mView->clear();
    mUdid = udid;
    if (udid.isEmpty())
        return;
    if (isListing()) {
        mReloadWanted = true;
        return;
    }
    mListed.clear();
    request(UserList);
}

void AppsController::request(ListKind kind)
{
    mPendingKind = kind;
    mManager->getAppList(mUdid, kind, 1);
}

void AppsController::slotAppList(const QString& udid, const QString& jsonApps,
                                 const QStringList& appIds)
{
    const ListKind kind = mPendingKind;
    mPendingKind = NoList;
    if (mReloadWanted || udid != mUdid) {
        mReloadWanted = false;
        load(mUdid);
        return;
    }
    mView->addApps(jsonApps, kind == SystemList);
    mListed += appIds;
    if (kind == UserList)
        request(SystemList);
    else
        finishListing();
}

void AppsController::finishListing()
{
    // Apps gone since the last listing leave the view.
    const QSet<QString> stillThere(mListed.begin(), mListed.end());
    for (const QString& appid : mView->appIds()) {
        if (!stillThere.contains(appid))
            mView->removeApp(appid);
    }
    mManager->getAppIcons(mUdid, mListed);
    mManager->getAppSizes(mUdid, mListed);
    emit listed(mUdid);
}

void AppsController::slotIcons(const QString& udid, const QString& jsonApps)
{
    if (udid != mUdid)
        return;
    // The icons themselves are in the catalog; the batch names the apps dealt with.
    DBManager* db = DBManager::instance();
    const QJsonArray apps =
        QJsonDocument::fromJson(jsonApps.toUtf8()).object().value(QLatin1String("apps")).toArray();
    for (const QJsonValue& appid : apps)
        mView->setIcon(appid.toString(), db->getIconByAppid(appid.toString()));
}

void AppsController::slotSizes(const QString& udid, const QString& jsonSizes)
{
    // The manager measures a freshly installed app on the first device, with no udid.
    if (udid == mUdid || udid.isEmpty())
        mView->setSizes(jsonSizes);
}
