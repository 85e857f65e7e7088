// App sizes and icons as a host gets them through DeviceManager, against kavrel-devsim:
// batches, the catalog as a cache (the simulator's request log shows what reached the
// device), values carried from one app to the next, failures, and replaced jobs.

#include "DBManager.h"
#include "DevSim.h"
#include "DeviceAppIcon.h"
#include "DeviceManager.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QThread>
#include <QThreadPool>

using namespace kavreltest;

class TestDeviceManagerAccess
{
public:
    static bool sizeJob(const DeviceManager& m) { return m.mAppSizeJob != nullptr; }
    static bool iconJob(const DeviceManager& m) { return m.mAppIconJob != nullptr; }
};

namespace {

const QString kMany = testUdid(1);  // 25 generated apps
const QString kCases = testUdid(2); // hand-made containers
const QString kLarge = testUdid(3); // apps of 300 files, icons handed out slowly

// A device of count generated apps with files of 1000 bytes each.
QJsonObject generated(const QString& udid, int count, int files, int documentsFiles)
{
    QJsonObject json = DeviceProfile(udid).json();
    json["generate"] = QJsonObject{{"count", count},
                                   {"prefix", "com.gen.app"},
                                   {"files", files},
                                   {"fileSize", 1000},
                                   {"documentsFiles", documentsFiles}};
    return json;
}

QJsonObject caseApps(DeviceProfile profile)
{
    QJsonObject docs{
        {"bundleId", "com.t.docs"},
        {"bundleSize", 20000},
        {"bundleFiles",
         QJsonArray{QJsonObject{{"path", "Frameworks/A.framework/A"}, {"size", 1000}},
                    QJsonObject{{"path", "Frameworks/Current"}, {"symlink", "A.framework"}}}},
        {"documentsSize", 700},
        {"files", QJsonArray{QJsonObject{{"path", "Documents/a/b/deep.bin"}, {"size", 300}}}},
        {"iTunesMetadata", QJsonObject{{"appleId", "a@example.com"}}}};
    QJsonObject noDocs{{"bundleId", "com.t.nodocs"}, {"bundleSize", 30000}, {"documents", false}};
    QJsonObject locked{{"bundleId", "com.t.locked"}, {"unreadableContainer", true}};
    QJsonObject noIcon{{"bundleId", "com.t.noicon"}, {"icon", false}, {"bundleSize", 100}};
    return profile.apps({docs, noDocs, locked, noIcon}).json();
}

QList<QJsonArray> batchesOf(const QSignalSpy& spy)
{
    QList<QJsonArray> out;
    for (const QList<QVariant>& args : spy)
        out << QJsonDocument::fromJson(args.at(1).toString().toUtf8())
                   .object()
                   .value("apps")
                   .toArray();
    return out;
}

// Runs one request and collects its batches until the job has been released.
QList<QJsonArray> run(DeviceManager& manager, bool sizes, const QString& udid,
                      const QStringList& ids, QStringList* udids = nullptr)
{
    QSignalSpy spy(&manager,
                   sizes ? &DeviceManager::signalAppSize : &DeviceManager::signalAppIconsReady);
    if (sizes)
        manager.getAppSizes(udid, ids);
    else
        manager.getAppIcons(udid, ids);
    if (!QTest::qWaitFor(
            [&] {
                return !(sizes ? TestDeviceManagerAccess::sizeJob(manager)
                               : TestDeviceManagerAccess::iconJob(manager));
            },
            60000))
        return {};
    // Released jobs go once their worker has returned; let that happen here.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    for (int i = 0; udids && i < spy.size(); ++i)
        *udids << spy.at(i).at(0).toString();
    return batchesOf(spy);
}

QStringList generatedIds(int count)
{
    QStringList ids;
    for (int n = 1; n <= count; ++n)
        ids << QStringLiteral("com.gen.app%1").arg(n);
    return ids;
}

} // namespace

class TestAppSizeIcons : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QJsonObject largeJson = generated(kLarge, 40, 300, 0);
        largeJson["faults"] = QJsonObject{{"iconDelayMs", 30}};
        QString error;
        QVERIFY2(mSim.start({mSim.writeProfile(generated(kMany, 25, 3, 2)),
                             mSim.writeProfile(caseApps(DeviceProfile(kCases))),
                             mSim.writeProfile(largeJson)},
                            &error, {"--verbose"}),
                 qPrintable(error));
    }

    void batches_data()
    {
        QTest::addColumn<bool>("sizes");
        QTest::addColumn<QString>("udid");
        QTest::addColumn<QStringList>("ids");
        QTest::addColumn<QList<int>>("batchSizes");
        QTest::addColumn<QString>("request"); // as the simulator logs each device request
        QTest::addColumn<int>("requests");
        const QString vend = "house_arrest VendContainer com.gen.app";
        const QString icon = "springboardservices icon of com.gen.app";
        // Rows run in order: the second of each pair finds the first one's catalog rows.
        const QList<int> sizes{10, 10, 5}, icons{10, 2};
        const QStringList failing{"com.t.noicon", "com.t.docs"};
        QTest::newRow("25 sizes") << true << kMany << generatedIds(25) << sizes << vend << 25;
        QTest::newRow("25 sizes, cached")
            << true << kMany << generatedIds(25) << sizes << vend << 0;
        QTest::newRow("12 icons") << false << kMany << generatedIds(12) << icons << icon << 12;
        QTest::newRow("12 icons, cached")
            << false << kMany << generatedIds(12) << icons << icon << 0;
        // A failing icon is listed and, with nothing stored, asked for again.
        QTest::newRow("failing icon")
            << false << kCases << failing << QList<int>{2} << "icon of com.t." << 2;
        QTest::newRow("failing icon again")
            << false << kCases << failing << QList<int>{2} << "icon of com.t." << 1;
    }
    void batches()
    {
        QFETCH(bool, sizes);
        QFETCH(QString, udid);
        QFETCH(QStringList, ids);
        QFETCH(QList<int>, batchSizes);
        QFETCH(QString, request);
        QFETCH(int, requests);
        LogCapture log;
        const int before = mSim.log().count(request);
        QStringList udids;
        const QList<QJsonArray> batches = run(mManager, sizes, udid, ids, &udids);
        QStringList listed;
        QList<int> counts;
        for (const QJsonArray& batch : batches) {
            counts << batch.size();
            for (const QJsonValue& app : batch)
                listed << (sizes ? app.toObject().value("appid").toString() : app.toString());
        }
        QCOMPARE(counts, batchSizes);
        QCOMPARE(listed, ids);
        // Size batches carry an empty udid, icon batches the device's.
        QCOMPARE(udids.size(), batches.size());
        udids.removeDuplicates();
        QCOMPARE(udids, QStringList{sizes ? QString() : udid});
        QTRY_COMPARE(mSim.log().count(request) - before, requests);
        QVERIFY(log.hasLine(sizes ? "DeviceManager::slotAppSizeDone"
                                  : "DeviceManager::slotAppIconsDone"));
        if (sizes) {
            const QJsonObject first = batches.first().first().toObject();
            QCOMPARE(first.value("appleid").toString(), QString("user1@example.com"));
            QCOMPARE(first.value("docsize").toInt(), 2000);
        }
        for (const QString& id : ids)
            QCOMPARE(DBManager::instance()->getIconByAppid(id).startsWith("\x89PNG"),
                     !sizes && id != "com.t.noicon");
    }

    void sizeValues()
    {
        // The values of an app that cannot be measured fully are the previous app's:
        // no Documents, no metadata, an unreadable container, an empty appid.
        LogCapture log;
        const QList<QJsonArray> batches =
            run(mManager, true, kCases, {"com.t.docs", "com.t.nodocs", "com.t.locked", ""});
        QCOMPARE(batches.size(), 1);
        QStringList rows;
        for (const QJsonValue& v : batches.first()) {
            const QJsonObject app = v.toObject();
            rows << QStringLiteral("%1 %2 %3 %4")
                        .arg(app.value("appid").toString())
                        .arg(app.value("appsize").toVariant().toULongLong())
                        .arg(app.value("docsize").toVariant().toULongLong())
                        .arg(app.value("appleid").toString());
        }
        // The bundle's files are measured through its nested folders, past the link.
        QCOMPARE(rows, QStringList({"com.t.docs 21000 1000 a@example.com",
                                    "com.t.nodocs 30000 1000 a@example.com",
                                    "com.t.locked 30000 1000 a@example.com",
                                    " 30000 1000 a@example.com"}));
        QVERIFY(log.hasLine("appid couldn't be empty."));
        QCOMPARE(log.count("Warning, failed to get documents size"), 2);
        IpaParser::IpaInfo stored;
        QVERIFY(DBManager::instance()->getAppById("com.t.locked", &stored));
        QVERIFY(stored.mInDevice);
        QCOMPARE(stored.mDocSize, quint64(1000));
    }

    void singleIcon()
    {
        const QByteArray icon = mManager.getAppIcon(kCases, "com.t.docs");
        QVERIFY(icon.startsWith("\x89PNG"));
        DeviceAppIcon session(nullptr, kCases);
        QVERIFY(session.prepare());
        QByteArray twice;
        QVERIFY(session.getAppIcon("com.t.docs", twice) && session.getAppIcon("com.t.docs", twice));
        QCOMPARE(twice, icon + icon);

        const int before = mSim.log().count("icon of no.such.app");
        QVERIFY(mManager.getAppIcon(kCases, "no.such.app").isEmpty());
        QTRY_COMPARE(mSim.log().count("icon of no.such.app") - before, 10);
    }

    void replacement_data()
    {
        QTest::addColumn<bool>("sizes");
        QTest::newRow("sizes") << true;
        QTest::newRow("icons") << false;
    }
    void replacement()
    {
        // The first job walks the large device; once its first batch is in, a second
        // request replaces it. Its worker goes on, but nothing of it reaches the host.
        QFETCH(bool, sizes);
        LogCapture log;
        QSignalSpy spy(&mManager,
                       sizes ? &DeviceManager::signalAppSize : &DeviceManager::signalAppIconsReady);
        QStringList ids = generatedIds(40);
        if (sizes)
            mManager.getAppSizes(kLarge, ids);
        else
            mManager.getAppIcons(kLarge, ids);
        QVERIFY(spy.wait(60000));
        // Without handling events, let the worker post its next batch: one is then
        // queued for the manager when the job is replaced.
        const char* notify = sizes ? "notifyAppSizesReady" : "notifyAppIconsReady";
        for (int i = 0; i < 3000 && log.count(notify) < 2; ++i)
            QThread::msleep(10);
        QThread::msleep(200); // the line comes just before the batch is sent
        spy.clear();
        const QList<QJsonArray> batches = run(mManager, sizes, kCases, {"com.t.docs"});
        QVERIFY(log.hasLine("will cancel the previous process"));
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        QCOMPARE(batchesOf(spy), batches);
        QCOMPARE(batches.size(), 1);
        QCOMPARE(batches.first().size(), 1);
        // The replaced worker was still walking when it was cut off.
        QVERIFY(log.count(notify) > 2);
        if (sizes)
            QTRY_COMPARE(log.count("DeviceAppSizeParallel::~DeviceAppSizeParallel"), 2);
    }

private:
    DevSim mSim;
    DeviceManager mManager;
};

KAVREL_TEST_MAIN(TestAppSizeIcons)
#include "tst_appsizeicons.moc"
