// Operation records, command names and every progress line the host can receive: the texts are the
// protocol between library and host.

#include "OperationInfo.h"
#include "ProgressLine.h"
#include "TestSupport.h"

class TestProgressLine : public QObject
{
    Q_OBJECT
private slots:
    void recordEquality();
    void lines_data();
    void lines();
    void isInstallComplete_data();
    void isInstallComplete();
};

void TestProgressLine::recordEquality()
{
    OperationInfo a;
    a.mType = KOperationInstall;
    a.mUdid = QStringLiteral("0123456789abcdef0123456789abcdef01234567");
    a.mAppid = QStringLiteral("com.example.app");
    a.mIpaPath = QStringLiteral("/a.ipa");
    OperationInfo b = a;
    b.mAppType = 2; // takes no part
    QVERIFY(a == b && b == a && !(a != b));
    b.mUdid += "x";
    QVERIFY(!(a == b) && !(b == a) && a != b);
    b = a;
    b.mSkipUninstall = true;
    QVERIFY(!(a == b) && !(b == a) && a != b);
}

void TestProgressLine::lines_data()
{
    using PL = ProgressLine;
    QTest::addColumn<QString>("made");
    QTest::addColumn<QString>("line");
    auto row = [](const char* name, const QString& made, const QString& line) {
        QTest::newRow(name) << made << line;
    };
    const QString id = QStringLiteral("com.x");
    const QString none; // a value the device did not send

    // Copying an .ipa to the device, and an archive to the computer.
    row("copying", PL::copying("Upgrade", PL::stagingPath(id), id),
        "Upgrade:Copying-PublicStaging/com.x:com.x:50:1:0");
    row("copying done", PL::copyingDone("Install", id), "Install:Copying done:com.x:100:1:0");
    row("archive copying", PL::archiveCopying(id), "Archive:CopyingArchive:com.x:20:1:0");
    row("archive copying done", PL::archiveCopyingDone(id), "Archive:Copying done:com.x:100:1:0");
    // Status callback.
    row("percent", PL::statusPercent("Install", "Installing", id, 40, false),
        "Install:Installing:com.x:40:1:0");
    row("percent 100 Complete stays progress-shaped",
        PL::statusPercent("Install", "Complete", id, 100, true), "Install:Complete:com.x:100:1:1");
    row("percent without app id", PL::statusPercent("Uninstall", "Removing", none, 50, false),
        "Uninstall:Removing:UNKNOWN:50:1:0");
    row("percent truncated to 32-bit signed",
        PL::statusPercent("Install", "X", id, Q_UINT64_C(0x1FFFFFFFF), false),
        "Install:X:com.x:-1:1:0");
    row("complete, final stage", PL::statusComplete("Archive", "Complete", id, true),
        "Archive:Complete:com.x:100:1:1");
    row("pending", PL::statusPending("Install", "CreatingStagingDirectory", id, false),
        "Install:CreatingStagingDirectory:com.x:100:0:0");
    row("device error", PL::statusError("Upgrade", "APIInternalError", id),
        "Upgrade:APIInternalError:com.x:100:0:1");
    row("device error with a colon is not escaped",
        PL::statusError("Install", "Failed: disk full", none),
        "Install:Failed: disk full:UNKNOWN:100:0:1");
    row("wrong state, nothing known", PL::wrongState(none, none),
        "unknown:wrong state:UNKNOWN:100:0:1");
    // Dispatcher.
    row("invalid operation type", PL::wrongOperationType(id),
        "wrong operation:not started:com.x:0:0:1");
    row("no operation", PL::noOperation(KCommandUnknown), "6:wrong operation:unknown:0:0:1");
    // Stored failure lines.
    row("failure of an install", PL::failure(KCommandInstall, "KInstServiceError", id),
        "Install:KInstServiceError:com.x:0:0:1");
    // An index outside the command-name table names "Unknown".
    row("failure of an archive", PL::failure(KCommandArchive, "X", id), "Archive:X:com.x:0:0:1");
    row("failure, index past the table", PL::failure(7, "X", id), "Unknown:X:com.x:0:0:1");
    // Manager's time-out lines: the last line with fields 2 and 5 replaced, when it has six.
    row("install completed", PL::installCompleted(id), "Install:Completed:com.x:100:1:1");
    row("install timed out", PL::installTimedOut(id), "Install:ErrorOnTimeout:com.x:100:0:1");
    row("timed out, percent and done flag kept", PL::timedOut("Archive:Copying:com.y:40:1:0", id),
        "Archive:ErrorOnTimeout:com.y:40:0:0");
    row("timed out, no last line", PL::timedOut("", id), "Install:ErrorOnTimeout:com.x:100:0:1");
    // Emitted form: the device's "RemoveArchive" is named "Archive", everywhere, by case.
    row("archive removal is named Archive",
        PL::forEmission("RemoveArchive:RemoveArchive-step:com.RemoveArchive:1:1:0"),
        "Archive:Archive-step:com.Archive:1:1:0");
}

void TestProgressLine::lines()
{
    QFETCH(QString, made);
    QTEST(made, "line");
}

void TestProgressLine::isInstallComplete_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("complete");
    for (const char* line : {"Install:Complete:com.x:100:1:1", "Install:Completed:com.x:100:1:1"})
        QTest::newRow(line) << line << true;
    for (const char* line : {"Upgrade:Complete:com.x:100:1:1", "Install:Complete:com.x:100:1:0",
                             "Install:Complete:com.x:100:0:1", "Install:Complete:x:com.x:100:1:1"})
        QTest::newRow(line) << line << false;
}

void TestProgressLine::isInstallComplete()
{
    QFETCH(QString, line);
    QTEST(ProgressLine::isInstallComplete(line), "complete");
}

KAVREL_TEST_MAIN(TestProgressLine)
#include "tst_progressline.moc"
