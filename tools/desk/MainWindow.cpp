#include "MainWindow.h"

#include "AppsController.h"
#include "AppsView.h"
#include "CatalogView.h"
#include "DevicePanel.h"
#include "QueuePanel.h"
#include "ServiceIndicator.h"

#include "DBManager.h"
#include "DeviceListener.h"
#include "DeviceManager.h"
#include "IpaParser.h"
#include "OperationInfo.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMimeData>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSplitter>
#include <QStatusBar>
#include <QTabWidget>
#include <QThreadPool>
#include <QUrl>
#include <QVBoxLayout>

namespace {

QStringList ipaFiles(const QMimeData* mime)
{
    QStringList files;
    for (const QUrl& url : mime->urls()) {
        if (url.isLocalFile() &&
            url.toLocalFile().endsWith(QLatin1String(".ipa"), Qt::CaseInsensitive))
            files << url.toLocalFile();
    }
    return files;
}

QGroupBox* group(const QString& title, QWidget* content)
{
    auto* box = new QGroupBox(title);
    auto* layout = new QVBoxLayout(box);
    layout->addWidget(content);
    return box;
}

} // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent), mManager(new DeviceManager(this))
{
    setWindowTitle(tr("kavrel desk"));
    setAcceptDrops(true);
    // A phone that never answers an operation must not hold the queue for good.
    mManager->setGuardFromStart(true);
    // The catalog is opened here, on the window's thread, before any job needs it.
    DBManager::instance();

    mDevices = new QListWidget;
    mDevices->setMaximumHeight(90);
    mDevicePanel = new DevicePanel;
    auto* left = new QWidget;
    auto* leftLayout = new QVBoxLayout(left);
    leftLayout->setContentsMargins(0, 0, 0, 0);
    leftLayout->addWidget(group(tr("Devices"), mDevices));
    leftLayout->addWidget(group(tr("Device"), mDevicePanel), 1);

    mCatalog = new CatalogView;
    mTabs = new QTabWidget;
    mTabs->addTab(buildAppsTab(), tr("Apps"));
    mTabs->addTab(mCatalog, tr("Local catalog"));

    mQueue = new QueuePanel;
    auto* top = new QSplitter(Qt::Horizontal);
    top->addWidget(left);
    top->addWidget(mTabs);
    top->setStretchFactor(1, 1);
    top->setSizes({300, 700});
    auto* main = new QSplitter(Qt::Vertical);
    main->addWidget(top);
    main->addWidget(group(tr("Queue"), mQueue));
    main->setStretchFactor(0, 1);
    main->setSizes({520, 170});
    setCentralWidget(main);

    mService = new ServiceIndicator;
    statusBar()->addPermanentWidget(mService);

    mAppsController = new AppsController(mManager, mApps, this);
    connect(mDevices, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row >= 0)
            selectDevice(mDevices->item(row)->data(Qt::UserRole).toString());
    });
    connect(mManager, &DeviceManager::signalDevInfo, this, &MainWindow::slotDevInfo);
    connect(mManager, &DeviceManager::signalDevProgress, this, &MainWindow::slotProgress);
    connect(mQueue, &QueuePanel::operationEnded, this, &MainWindow::slotOperationEnded);
    connect(mQueue, &QueuePanel::cancelRequested, this, &MainWindow::slotCancel);
    connect(mApps, &AppsView::selectionChanged, this, &MainWindow::updateActions);
    connect(mCatalog, &CatalogView::installRequested, this, &MainWindow::installFiles);
    connect(mCatalog, &CatalogView::message, this, &MainWindow::say);

    mCatalog->reload();
    mService->check();
    listenForDevices();
    updateActions();
    resize(1100, 720);
}

MainWindow::~MainWindow()
{
    // The listener unsubscribes on destruction, so no device event reaches this window
    // once it is gone.
    if (mListener) {
        mListener->quit();
        mListener->wait();
        delete mListener;
    }
    // Device work still running on the thread pool calls back into the manager's jobs,
    // so the manager goes only after it (the pool would wait for it at exit anyway).
    QThreadPool::globalInstance()->waitForDone();
    delete mManager;
}

QWidget* MainWindow::buildAppsTab()
{
    mApps = new AppsView;
    mInstallButton = new QPushButton(tr("Install .ipa..."));
    mUninstallButton = new QPushButton(tr("Uninstall"));
    mArchiveButton = new QPushButton(tr("Archive..."));
    mRefreshButton = new QPushButton(tr("Refresh"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(mInstallButton);
    buttons->addWidget(mUninstallButton);
    buttons->addWidget(mArchiveButton);
    buttons->addStretch(1);
    buttons->addWidget(mRefreshButton);
    auto* tab = new QWidget;
    auto* layout = new QVBoxLayout(tab);
    layout->addLayout(buttons);
    layout->addWidget(mApps, 1);

    connect(mInstallButton, &QPushButton::clicked, this, [this] {
        installFiles(QFileDialog::getOpenFileNames(this, tr("Install apps"), QString(),
                                                   tr("iOS apps (*.ipa)")));
    });
    connect(mUninstallButton, &QPushButton::clicked, this, &MainWindow::uninstallSelected);
    connect(mArchiveButton, &QPushButton::clicked, this, [this] { archiveSelected(); });
    connect(mRefreshButton, &QPushButton::clicked, this, &MainWindow::refreshApps);
    return tab;
}

void MainWindow::listenForDevices()
{
    mListener = new DeviceListener;
    // The udid text lives only during the emission, on the device library's event
    // thread: copy it there and hand the copy to the window's thread.
    connect(
        mListener, &DeviceListener::DeviceAdded, mListener,
        [this](const char* uuid) {
            const QString udid = QString::fromLatin1(uuid);
            QMetaObject::invokeMethod(
                this, [this, udid] { slotDeviceAdded(udid); }, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    connect(
        mListener, &DeviceListener::DeviceRemoved, mListener,
        [this](const char* uuid) {
            const QString udid = QString::fromLatin1(uuid);
            QMetaObject::invokeMethod(
                this, [this, udid] { slotDeviceRemoved(udid); }, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    mListener->start();
    // The listener subscribes as it is constructed, so the announcement of a device
    // attached before the window opened may have come before the connections above.
    const QString first = DeviceManager::getFirstUdid();
    if (!first.isEmpty())
        slotDeviceAdded(first);
}

QStringList MainWindow::deviceUdids() const
{
    QStringList udids;
    for (int i = 0; i < mDevices->count(); ++i)
        udids << mDevices->item(i)->data(Qt::UserRole).toString();
    return udids;
}

void MainWindow::slotDeviceAdded(const QString& udid)
{
    if (deviceUdids().contains(udid))
        return;
    auto* item = new QListWidgetItem(udid, mDevices);
    item->setData(Qt::UserRole, udid);
    item->setToolTip(udid);
    mManager->getDevInfo(udid); // for its name in the list
    say(tr("Device attached: %1").arg(udid));
    if (mUdid.isEmpty())
        mDevices->setCurrentItem(item);
}

void MainWindow::slotDeviceRemoved(const QString& udid)
{
    const int row = deviceUdids().indexOf(udid);
    if (row < 0)
        return;
    const QString name = mDevices->item(row)->text().section(QLatin1Char('\n'), 0, 0);
    const bool shown = udid == mUdid;
    if (shown) {
        mUdid.clear();
        mAppsController->load(QString());
        mDevicePanel->showMessage(tr("%1 was detached.").arg(name));
    }
    {
        // The list would move its selection on by itself; the window chooses below.
        const QSignalBlocker quiet(mDevices);
        delete mDevices->takeItem(row);
    }
    mQueue->deviceGone(udid);
    say(tr("Device detached: %1").arg(name));
    if (shown && mDevices->count() > 0)
        selectDevice(deviceUdids().first());
    updateActions();
}

void MainWindow::selectDevice(const QString& udid)
{
    if (udid == mUdid)
        return;
    mUdid = udid;
    const int row = deviceUdids().indexOf(udid);
    if (row >= 0 && mDevices->currentRow() != row) {
        const QSignalBlocker quiet(mDevices);
        mDevices->setCurrentRow(row);
    }
    mDevicePanel->showMessage(tr("Reading the device..."));
    mManager->getDevInfo(udid);
    mAppsController->load(udid);
    updateActions();
}

void MainWindow::slotDevInfo(const QString& udid, const QString& report)
{
    const int row = deviceUdids().indexOf(udid);
    const QString name = DevicePanel::reportValue(report, QStringLiteral("DeviceName"));
    if (row >= 0 && !name.isEmpty())
        mDevices->item(row)->setText(
            QStringLiteral("%1\n%2 - iOS %3")
                .arg(name, DevicePanel::reportValue(report, QStringLiteral("ProductType")),
                     DevicePanel::reportValue(report, QStringLiteral("ProductVersion"))));
    if (udid == mUdid)
        mDevicePanel->showReport(report);
}

void MainWindow::installFiles(const QStringList& paths)
{
    if (mUdid.isEmpty()) {
        if (!paths.isEmpty())
            say(tr("Attach a device to install apps."));
        return;
    }
    for (const QString& path : paths) {
        // The app's identifier names the queue row and tells an upgrade from an install.
        IpaParser::IpaInfo info;
        const QString file = QFileInfo(path).absoluteFilePath();
        if (!IpaParser::parseIpa(file, &info) || info.mAppId.isEmpty()) {
            say(tr("%1 is not an app package.").arg(QFileInfo(path).fileName()));
            continue;
        }
        const bool upgrade = mApps->contains(info.mAppId);
        const int type = upgrade ? KOperationUpgrade : KOperationInstall;
        const QString title = info.mAppName.isEmpty() ? info.mAppId : info.mAppName;
        if (!mQueue->addOperation(type, mUdid, info.mAppId, title))
            continue;
        mManager->installIpa(mUdid, file, info.mAppId, upgrade);
    }
}

void MainWindow::uninstallSelected()
{
    for (const QString& appid : mApps->selectedAppIds()) {
        if (!mQueue->addOperation(KOperationUninstall, mUdid, appid,
                                  mApps->text(appid, AppsView::NameColumn)))
            continue;
        mManager->uninstallApp(mUdid, appid);
    }
}

void MainWindow::archiveSelected(const QString& folder)
{
    const QStringList apps = mApps->selectedAppIds();
    if (apps.isEmpty())
        return;
    const QString target = folder.isEmpty()
                               ? QFileDialog::getExistingDirectory(this, tr("Archive apps into"))
                               : folder;
    if (target.isEmpty())
        return;
    for (const QString& appid : apps) {
        if (!mQueue->addOperation(KOperationArchive, mUdid, appid,
                                  mApps->text(appid, AppsView::NameColumn)))
            continue;
        // A backup: the app and its data stay on the device.
        mManager->archiveApp(mUdid, appid, target, false, true);
    }
}

void MainWindow::refreshApps()
{
    mAppsController->load(mUdid);
}

void MainWindow::slotProgress(const QString& line)
{
    mQueue->applyLine(line);
}

void MainWindow::slotOperationEnded(int type, const QString& appid, bool ok)
{
    if (!ok) {
        say(tr("%1 failed; see the queue for the device's answer.").arg(appid));
        return;
    }
    if (type == KOperationUninstall)
        mApps->removeApp(appid);
    // The new list queues behind the remaining operations.
    if (type == KOperationInstall || type == KOperationUpgrade)
        refreshApps();
}

void MainWindow::slotCancel(int type, const QString& udid, const QString& appid)
{
    OperationInfo target;
    target.mType = type;
    target.mUdid = udid;
    target.mAppid = appid;
    mManager->cancelInstallByAppid(&target);
}

void MainWindow::updateActions()
{
    const bool device = !mUdid.isEmpty();
    const bool selected = device && !mApps->selectedAppIds().isEmpty();
    mInstallButton->setEnabled(device);
    mUninstallButton->setEnabled(selected);
    mArchiveButton->setEnabled(selected);
    mRefreshButton->setEnabled(device);
}

void MainWindow::say(const QString& text)
{
    statusBar()->showMessage(text, 10000);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (!ipaFiles(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event)
{
    const QStringList files = ipaFiles(event->mimeData());
    if (files.isEmpty())
        return;
    event->acceptProposedAction();
    installFiles(files);
}
