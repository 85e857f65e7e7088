// Operation records, command names, installer error keys and every progress line the
// host can receive: the texts are the protocol between library and host.

#include "DeviceInstaller.h"
#include "OperationInfo.h"
#include "ProgressLine.h"
#include "TestSupport.h"

#include <QMetaEnum>
#include <QMetaMethod>
#include <functional>

using LineMaker = std::function<QString()>;
using RecordChange = std::function<void(OperationInfo&)>;
Q_DECLARE_METATYPE(LineMaker)
Q_DECLARE_METATYPE(RecordChange)

class TestProgressLine : public QObject
{
    Q_OBJECT
private slots:
    void commandName_data();
    void commandName();
    void recordEquality_data();
    void recordEquality();
    void errorKeys_data();
    void errorKeys();
    void installerMetaObject();

    void lines_data();
    void lines();
    void forEmission_data();
    void forEmission();
    void timedOut_data();
    void timedOut();
    void isInstallComplete_data();
    void isInstallComplete();
};

void TestProgressLine::commandName_data()
{
    QTest::addColumn<int>("command");
    QTest::addColumn<QString>("name");

    QTest::newRow("0") << 0 << "Install";
    QTest::newRow("1") << 1 << "Upgrade";
    QTest::newRow("2") << 2 << "Uninstall";
    QTest::newRow("3") << 3 << "Archive";
    QTest::newRow("4 kept although unused") << 4 << "Restore";
    QTest::newRow("5") << 5 << "ListApp";
    QTest::newRow("6 new installer") << 6 << "Unknown";
    QTest::newRow("past the end") << 7 << "Unknown";
    QTest::newRow("negative") << -1 << "Unknown";
}

void TestProgressLine::commandName()
{
    QFETCH(int, command);
    QFETCH(QString, name);
    QCOMPARE(OperationInfo::commandName(command), name);
    QCOMPARE(OperationInfo::commandCount(), 7);
}

void TestProgressLine::recordEquality_data()
{
    QTest::addColumn<RecordChange>("change");
    QTest::addColumn<bool>("equal");

    QTest::newRow("identical") << RecordChange([](OperationInfo&) {}) << true;
    QTest::newRow("app type takes no part")
        << RecordChange([](OperationInfo& o) { o.mAppType = 2; }) << true;
    QTest::newRow("list format takes no part")
        << RecordChange([](OperationInfo& o) { o.mListFormat = 1; }) << true;
    QTest::newRow("type") << RecordChange([](OperationInfo& o) { o.mType = KOperationUpgrade; })
                          << false;
    QTest::newRow("udid") << RecordChange([](OperationInfo& o) { o.mUdid += "x"; }) << false;
    QTest::newRow("app id is compared exactly")
        << RecordChange([](OperationInfo& o) { o.mAppid = o.mAppid.toUpper(); }) << false;
    QTest::newRow("ipa path") << RecordChange([](OperationInfo& o) { o.mIpaPath = "/b.ipa"; })
                              << false;
    QTest::newRow("copy path") << RecordChange([](OperationInfo& o) { o.mCopyPath = "/tmp"; })
                               << false;
    QTest::newRow("is update") << RecordChange([](OperationInfo& o) { o.mIsUpdate = true; })
                               << false;
    QTest::newRow("app only") << RecordChange([](OperationInfo& o) { o.mAppOnly = true; }) << false;
    QTest::newRow("skip uninstall")
        << RecordChange([](OperationInfo& o) { o.mSkipUninstall = true; }) << false;
}

void TestProgressLine::recordEquality()
{
    QFETCH(RecordChange, change);
    QFETCH(bool, equal);
    OperationInfo a;
    a.mType = KOperationInstall;
    a.mUdid = QStringLiteral("0123456789abcdef0123456789abcdef01234567");
    a.mAppid = QStringLiteral("com.example.app");
    a.mIpaPath = QStringLiteral("/a.ipa");
    OperationInfo b = a;
    change(b);
    QCOMPARE(a == b, equal);
    QCOMPARE(b == a, equal);
    QCOMPARE(a != b, !equal);
}

void TestProgressLine::errorKeys_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("key");

    const char* keys[] = {"KInstNoError",       "KInstInitError",        "KInstInvalidInput",
                          "KInstServiceError",  "KInstInvalidPlist",     "KInstIpaOpenError",
                          "KInstIpaParseError", "KInstArchiveCopyError", "KInstInternalError",
                          "KInstMemoryError",   "KInstUnkownError"};
    for (int i = 0; i < 11; ++i)
        QTest::newRow(keys[i]) << i << QString::fromLatin1(keys[i]);
}

void TestProgressLine::errorKeys()
{
    QFETCH(int, value);
    QFETCH(QString, key);
    // Failure lines carry these keys, looked up by value through the meta-enumeration.
    const QMetaEnum e = QMetaEnum::fromType<DeviceInstaller::EInstError>();
    QVERIFY(e.isValid());
    QCOMPARE(QString::fromLatin1(e.name()), QStringLiteral("EInstError"));
    QCOMPARE(QString::fromLatin1(e.scope()), QStringLiteral("DeviceInstaller"));
    QCOMPARE(e.keyCount(), 11);
    QCOMPARE(QString::fromLatin1(e.valueToKey(value)), key);
    QCOMPARE(QString::fromLatin1(e.key(value)), key);
}

void TestProgressLine::installerMetaObject()
{
    const QMetaObject& mo = DeviceInstaller::staticMetaObject;
    QCOMPARE(QString::fromLatin1(mo.className()), QStringLiteral("DeviceInstaller"));
    QCOMPARE(QString::fromLatin1(mo.superClass()->className()), QStringLiteral("DeviceBase"));
    QCOMPARE(mo.indexOfEnumerator("EInstError"), mo.enumeratorOffset());
    // The manager connects to these by signature, in this order, and nothing else.
    const QStringList expected{"signalDevProgress(QString)", "signalFinished(QString)",
                               "signalAppUninstalled(QString)"};
    QStringList own;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i) {
        const QMetaMethod m = mo.method(i);
        own << QString::fromLatin1(m.methodSignature());
        QCOMPARE(m.methodType(), QMetaMethod::Signal);
    }
    QCOMPARE(own, expected);
}

void TestProgressLine::lines_data()
{
    QTest::addColumn<LineMaker>("make");
    QTest::addColumn<QString>("line");

    const QString id = QStringLiteral("com.example.app");
    const QString none; // a value the device did not send

    // Copying an .ipa to the device.
    QTest::newRow("copying") << LineMaker([=] {
        return ProgressLine::copying("Install", ProgressLine::stagingPath(id), id);
    }) << "Install:Copying-PublicStaging/com.example.app:com.example.app:50:1:0";
    QTest::newRow("copying, upgrade") << LineMaker([=] {
        return ProgressLine::copying("Upgrade", ProgressLine::stagingPath(id), id);
    }) << "Upgrade:Copying-PublicStaging/com.example.app:com.example.app:50:1:0";
    QTest::newRow("copying done") << LineMaker([=] {
        return ProgressLine::copyingDone("Install", id);
    }) << "Install:Copying done:com.example.app:100:1:0";

    // Copying an archive to the computer.
    QTest::newRow("archive copying") << LineMaker([=] { return ProgressLine::archiveCopying(id); })
                                     << "Archive:CopyingArchive:com.example.app:20:1:0";
    QTest::newRow("archive copying done")
        << LineMaker([=] { return ProgressLine::archiveCopyingDone(id); })
        << "Archive:Copying done:com.example.app:100:1:0";

    // Status callback.
    QTest::newRow("percent") << LineMaker([=] {
        return ProgressLine::statusPercent("Install", "Installing", id, 40, false);
    }) << "Install:Installing:com.example.app:40:1:0";
    QTest::newRow("percent 100 Complete stays progress-shaped") << LineMaker([=] {
        return ProgressLine::statusPercent("Install", "Complete", id, 100, true);
    }) << "Install:Complete:com.example.app:100:1:1";
    QTest::newRow("percent without app id") << LineMaker([=] {
        return ProgressLine::statusPercent("Uninstall", "RemovingApplication", none, 50, false);
    }) << "Uninstall:RemovingApplication:UNKNOWN:50:1:0";
    QTest::newRow("percent truncated to 32-bit signed") << LineMaker([=] {
        return ProgressLine::statusPercent("Install", "X", id, Q_UINT64_C(0x1FFFFFFFF), false);
    }) << "Install:X:com.example.app:-1:1:0";
    QTest::newRow("percent high bits dropped") << LineMaker([=] {
        return ProgressLine::statusPercent("Install", "X", id, Q_UINT64_C(0x100000005), false);
    }) << "Install:X:com.example.app:5:1:0";
    QTest::newRow("complete, final stage")
        << LineMaker([=] { return ProgressLine::statusComplete("Archive", "Complete", id, true); })
        << "Archive:Complete:com.example.app:100:1:1";
    QTest::newRow("complete, not final stage")
        << LineMaker([=] { return ProgressLine::statusComplete("Archive", "Complete", id, false); })
        << "Archive:Complete:com.example.app:100:1:0";
    QTest::newRow("pending") << LineMaker([=] {
        return ProgressLine::statusPending("Install", "CreatingStagingDirectory", id, false);
    }) << "Install:CreatingStagingDirectory:com.example.app:100:0:0";
    QTest::newRow("pending, missing status text") << LineMaker([=] {
        return ProgressLine::statusPending("Install", QString(""), none, true);
    }) << "Install::UNKNOWN:100:0:1";
    QTest::newRow("device error") << LineMaker([=] {
        return ProgressLine::statusError("Upgrade", "APIInternalError", id);
    }) << "Upgrade:APIInternalError:com.example.app:100:0:1";
    QTest::newRow("device error with a colon is not escaped") << LineMaker([=] {
        return ProgressLine::statusError("Install", "Failed: disk full", none);
    }) << "Install:Failed: disk full:UNKNOWN:100:0:1";
    QTest::newRow("device texts holding place markers are kept")
        << LineMaker([=] { return ProgressLine::statusError("Install", "%1 %2", "%3"); })
        << "Install:%1 %2:%3:100:0:1";
    QTest::newRow("wrong state") << LineMaker([=] {
        return ProgressLine::wrongState("Install", id);
    }) << "Install:wrong state:com.example.app:100:0:1";
    QTest::newRow("wrong state, nothing known")
        << LineMaker([=] { return ProgressLine::wrongState(none, none); })
        << "unknown:wrong state:UNKNOWN:100:0:1";

    // Dispatcher.
    QTest::newRow("invalid operation type")
        << LineMaker([=] { return ProgressLine::wrongOperationType(id); })
        << "wrong operation:not started:com.example.app:0:0:1";
    QTest::newRow("no operation") << LineMaker([] {
        return ProgressLine::noOperation(KCommandUnknown);
    }) << "6:wrong operation:unknown:0:0:1";

    // Stored failure lines.
    QTest::newRow("failure of a new installer")
        << LineMaker([=] { return ProgressLine::failure(KCommandUnknown, "KInstInitError", none); })
        << "Unknown:KInstInitError:unknown:0:0:1";
    QTest::newRow("failure of an install") << LineMaker([=] {
        return ProgressLine::failure(KCommandInstall, "KInstServiceError", id);
    }) << "Install:KInstServiceError:com.example.app:0:0:1";
    QTest::newRow("failure of a listing without error key")
        << LineMaker([=] { return ProgressLine::failure(KCommandListApp, "", none); })
        << "ListApp::unknown:0:0:1";
    QTest::newRow("failure with the device's error text")
        << LineMaker([=] { return ProgressLine::failure(KCommandArchive, "ArchiveFailed", id); })
        << "Archive:ArchiveFailed:com.example.app:0:0:1";

    // Manager's time-out lines.
    QTest::newRow("install completed")
        << LineMaker([=] { return ProgressLine::installCompleted(id); })
        << "Install:Completed:com.example.app:100:1:1";
    QTest::newRow("install timed out")
        << LineMaker([=] { return ProgressLine::installTimedOut(id); })
        << "Install:ErrorOnTimeout:com.example.app:100:0:1";
    QTest::newRow("install timed out without job")
        << LineMaker([] { return ProgressLine::installTimedOut(QString()); })
        << "Install:ErrorOnTimeout::100:0:1";
}

void TestProgressLine::lines()
{
    QFETCH(LineMaker, make);
    QFETCH(QString, line);
    QCOMPARE(make(), line);
}

void TestProgressLine::forEmission_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("emitted");

    QTest::newRow("archive removal is named Archive") << "RemoveArchive:Complete:com.x:100:1:1"
                                                      << "Archive:Complete:com.x:100:1:1";
    QTest::newRow("every occurrence") << "RemoveArchive:RemoveArchive-step:com.RemoveArchive:1:1:0"
                                      << "Archive:Archive-step:com.Archive:1:1:0";
    QTest::newRow("case-sensitive") << "removearchive:Complete:com.x:100:1:1"
                                    << "removearchive:Complete:com.x:100:1:1";
    QTest::newRow("other lines unchanged") << "Install:Installing:com.x:40:1:0"
                                           << "Install:Installing:com.x:40:1:0";
}

void TestProgressLine::forEmission()
{
    QFETCH(QString, line);
    QFETCH(QString, emitted);
    QCOMPARE(ProgressLine::forEmission(line), emitted);
}

void TestProgressLine::timedOut_data()
{
    QTest::addColumn<QString>("last");
    QTest::addColumn<QString>("line");

    QTest::newRow("percent and done flag kept") << "Install:Installing:com.x:40:1:0"
                                                << "Install:ErrorOnTimeout:com.x:40:0:0";
    QTest::newRow("archive copy") << "Archive:CopyingArchive:com.y:20:1:0"
                                  << "Archive:ErrorOnTimeout:com.y:20:0:0";
    QTest::newRow("empty fields kept") << "Install::UNKNOWN:100:0:1"
                                       << "Install:ErrorOnTimeout:UNKNOWN:100:0:1";
    QTest::newRow("seven fields") << "Install:Failed: x:com.y:100:0:1"
                                  << "Install:ErrorOnTimeout:com.run:100:0:1";
    QTest::newRow("no last line") << ""
                                  << "Install:ErrorOnTimeout:com.run:100:0:1";
}

void TestProgressLine::timedOut()
{
    QFETCH(QString, last);
    QFETCH(QString, line);
    QCOMPARE(ProgressLine::timedOut(last, QStringLiteral("com.run")), line);
}

void TestProgressLine::isInstallComplete_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("complete");

    QTest::newRow("device's completion") << "Install:Complete:com.x:100:1:1" << true;
    QTest::newRow("manager's completion") << "Install:Completed:com.x:100:1:1" << true;
    QTest::newRow("upgrade never") << "Upgrade:Complete:com.x:100:1:1" << false;
    QTest::newRow("not final") << "Install:Complete:com.x:100:1:0" << false;
    QTest::newRow("failed") << "Install:Complete:com.x:100:0:1" << false;
    QTest::newRow("seven fields") << "Install:Complete:x:com.x:100:1:1" << false;
    QTest::newRow("time-out") << "Install:ErrorOnTimeout:com.x:100:0:1" << false;
}

void TestProgressLine::isInstallComplete()
{
    QFETCH(QString, line);
    QFETCH(bool, complete);
    QCOMPARE(ProgressLine::isInstallComplete(line), complete);
}

KAVREL_TEST_MAIN(TestProgressLine)
#include "tst_progressline.moc"
