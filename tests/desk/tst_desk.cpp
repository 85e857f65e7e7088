// kavrel-desk's window driven as a person would, against kavrel-devsim: devices come and
// go, the apps view fills, a dropped .ipa installs through the queue (or fails with the
// device's error), and the window keeps turning its event loop meanwhile.

#include "AppsController.h"
#include "AppsView.h"
#include "DeskFormat.h"
#include "DevSim.h"
#include "DevicePanel.h"
#include "DiskUsageBar.h"
#include "MainWindow.h"
#include "QueuePanel.h"
#include "TestSupport.h"
#include "ZipBuilder.h"

#include <QApplication>
#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QMimeData>

using namespace kavreltest;

namespace {

const QString kDemoId = QStringLiteral("com.example.desk");

// An .ipa of one app with an icon.
QString writeIpa(const QString& dir)
{
    plist_t info = plist_new_dict();
    const char* const values[][2] = {{"CFBundleIdentifier", "com.example.desk"},
                                     {"CFBundleDisplayName", "Desk Demo"},
                                     {"CFBundleExecutable", "Demo"},
                                     {"CFBundleVersion", "3.1"},
                                     {"CFBundleIconFile", "Icon.png"}};
    for (const auto& value : values)
        plist_dict_set_item(info, value[0], plist_new_string(value[1]));
    QImage image(60, 60, QImage::Format_ARGB32);
    image.fill(QColor(0x3070c0));
    QBuffer icon;
    image.save(&icon, "PNG");
    const QString path = dir + QStringLiteral("/Demo.ipa");
    ZipBuilder()
        .add("Payload/Demo.app/Info.plist", plistBytes(info, false))
        .add("Payload/Demo.app/Demo", QByteArray(64 * 1024, '\x7f'))
        .add("Payload/Demo.app/Icon.png", icon.data())
        .write(path, true);
    return path;
}

void dropFile(QWidget* window, const QString& path)
{
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(path)});
    const QPoint at = window->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &drop);
}

} // namespace

class TestDesk : public QObject
{
    Q_OBJECT
    DevSim mSim;
    MainWindow* mWindow = nullptr;

private slots:
    void initTestCase()
    {
        QVERIFY(mSim.start({QStringLiteral("iphone")}));
        mWindow = new MainWindow;
        mWindow->show();
        // The phone attached before the window opened is found and shown.
        QTRY_COMPARE_WITH_TIMEOUT(mWindow->currentUdid(), kPhone, 20000);
    }
    void cleanupTestCase()
    {
        delete mWindow;
        mSim.stop();
    }

    void deviceComesAndGoes()
    {
        DeviceProfile spare(testUdid(1), QStringLiteral("Spare Phone"));
        QVERIFY(mSim.attach(spare));
        QTRY_VERIFY(mWindow->deviceUdids().contains(spare.udid()));
        mWindow->selectDevice(spare.udid());
        QTRY_COMPARE(mWindow->devicePanel()->field("name"), QStringLiteral("Spare Phone"));
        QVERIFY(mSim.detach(spare.udid()));
        QTRY_VERIFY(!mWindow->deviceUdids().contains(spare.udid()));
        // The window goes back to the device that is still there.
        QCOMPARE(mWindow->currentUdid(), kPhone);
    }

    void phoneAndAppsFill()
    {
        DevicePanel* panel = mWindow->devicePanel();
        QTRY_COMPARE(panel->field("name"), QStringLiteral("Kavrel's iPhone"));
        QCOMPARE(panel->field("ios"), QStringLiteral("14.4"));
        QCOMPARE(panel->field("battery"), QStringLiteral("87% charging"));
        QCOMPARE(panel->field("jailbreak"), QStringLiteral("no"));
        // Photos among the media kinds; Audio, at 0 bytes, is left out.
        const DiskUsageBar::Segment photos = panel->diskBar()->segments().value(4);
        QCOMPARE(photos.label + QString::number(photos.bytes), QStringLiteral("Photos6442450944"));

        AppsView* apps = mWindow->appsView();
        QTRY_COMPARE_WITH_TIMEOUT(apps->appIds().size(), 20, 60000);
        QTRY_VERIFY_WITH_TIMEOUT(apps->text("com.kavrel.sample.chat", AppsView::DocSizeColumn) ==
                                     DeskFormat::bytes(52428800),
                                 60000);
        QCOMPARE(apps->text("com.kavrel.sample.chat", AppsView::AppSizeColumn),
                 DeskFormat::bytes(88080384));
        for (const QString& appid : apps->appIds())
            QTRY_VERIFY2_WITH_TIMEOUT(apps->hasIcon(appid), qPrintable(appid), 60000);
        apps->setKind(AppsView::SystemApps);
        QCOMPARE(apps->visibleAppIds().size(), 5);
        apps->setKind(AppsView::AllApps);
    }

    void droppedIpaInstalls_data()
    {
        QTest::addColumn<int>("device");
        QTest::addColumn<QJsonObject>("faults");
        QTest::addColumn<QString>("error"); // empty: the install succeeds
        QTest::newRow("installs") << 2 << QJsonObject() << QString();
        QTest::newRow("device refuses") << 3 << QJsonObject{{"installError", "APIInternalError"}}
                                        << QStringLiteral("APIInternalError");
        // Every status message of the device comes late: the install takes seconds.
        QTest::newRow("slow device") << 4 << QJsonObject{{"statusDelayMs", 300}} << QString();
    }
    void droppedIpaInstalls()
    {
        QFETCH(int, device);
        QFETCH(QJsonObject, faults);
        QFETCH(QString, error);
        DeviceProfile profile(testUdid(device), QStringLiteral("Tester"));
        profile.faults(faults);
        QVERIFY(mSim.attach(profile));
        QTRY_VERIFY(mWindow->deviceUdids().contains(profile.udid()));
        mWindow->selectDevice(profile.udid());
        QTRY_VERIFY(!mWindow->appsController()->isListing());

        // The event loop's longest pause while the install runs.
        QElapsedTimer sinceTick;
        qint64 longestPause = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout,
                [&] { longestPause = qMax(longestPause, sinceTick.restart()); });
        QueuePanel* queue = mWindow->queuePanel();
        const int row = queue->rowCount();
        QElapsedTimer took;
        took.start();
        sinceTick.start();
        ticker.start(10);
        dropFile(mWindow, writeIpa(mSim.tempDir()));
        QCOMPARE(queue->rowCount(), row + 1);
        QTRY_VERIFY_WITH_TIMEOUT(queue->state(row) != QueuePanel::Waiting &&
                                     queue->state(row) != QueuePanel::Running,
                                 60000);
        ticker.stop();
        if (error.isEmpty()) {
            QCOMPARE(queue->state(row), QueuePanel::Done);
            QCOMPARE(queue->percent(row), 100);
            QTRY_VERIFY_WITH_TIMEOUT(mWindow->appsView()->contains(kDemoId), 30000);
            QCOMPARE(mWindow->appsView()->text(kDemoId, AppsView::VersionColumn), "3.1");
        } else {
            QCOMPARE(queue->state(row), QueuePanel::Failed);
            QVERIFY2(queue->statusText(row).contains(error), qPrintable(queue->statusText(row)));
        }
        if (faults.contains("statusDelayMs")) {
            QVERIFY2(took.elapsed() > 3000, "the install was not slow");
            QVERIFY2(longestPause < 1000, qPrintable(QString::number(longestPause)));
        }
        QVERIFY(mSim.detach(profile.udid()));
        QTRY_VERIFY(!mWindow->deviceUdids().contains(profile.udid()));
    }

    // An archive runs while a later uninstall of the same app waits and is cancelled;
    // asked again, the uninstall takes the app off the list.
    void archiveCancelUninstall()
    {
        const QString appid = QStringLiteral("com.kavrel.sample.notes");
        const QString folder = mSim.tempDir() + QStringLiteral("/archives");
        QVERIFY(QDir().mkpath(folder));
        QTRY_COMPARE(mWindow->currentUdid(), kPhone);
        AppsView* apps = mWindow->appsView();
        QTRY_VERIFY_WITH_TIMEOUT(apps->contains(appid), 30000);
        QueuePanel* queue = mWindow->queuePanel();
        const int row = queue->rowCount();
        apps->selectApp(appid);
        mWindow->archiveSelected(folder);
        mWindow->uninstallSelected();
        QVERIFY(queue->isCancellable(row + 1));
        queue->cancel(row + 1);
        QTRY_COMPARE_WITH_TIMEOUT(queue->state(row), QueuePanel::Done, 60000);
        QCOMPARE(queue->state(row + 1), QueuePanel::Cancelled);
        QVERIFY(!QDir(folder).isEmpty());
        // A fresh list queues behind whatever the manager still holds.
        mWindow->refreshApps();
        QTRY_VERIFY_WITH_TIMEOUT(!mWindow->appsController()->isListing(), 30000);
        QVERIFY(apps->contains(appid));
        mWindow->uninstallSelected();
        QTRY_COMPARE_WITH_TIMEOUT(queue->state(row + 2), QueuePanel::Done, 60000);
        QVERIFY(!apps->contains(appid));
    }
};

int main(int argc, char** argv)
{
    TempHome home;
    QApplication app(argc, argv);
    Q_INIT_RESOURCE(kavrel);
    TestDesk test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_desk.moc"
