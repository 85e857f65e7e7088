// Service check and start: CProcCheckAMD/CProcStartAMD driven through the event loop
// against `sc` programs of the test's own, and `kavrel service`.

#include "CProcCheckAMD.h"
#include "CProcStartAMD.h"
#include "TestSupport.h"

#include <cerrno>
#include <memory>
#include <signal.h>
#include <unistd.h>

namespace {

// What `sc` prints when asked about the service, and when asked to start it.
const QByteArray kRunningQuery = "SERVICE_NAME: Apple Mobile Device\n"
                                 "        STATE              : 4  RUNNING\n";
const QByteArray kStoppedQuery = "SERVICE_NAME: Apple Mobile Device\n"
                                 "        STATE              : 1  STOPPED\n";
const QByteArray kStartPending = "SERVICE_NAME: Apple Mobile Device\n"
                                 "        STATE              : 2  START_PENDING\n"
                                 "        SERVICE_EXIT_CODE  : 0  (0x0)\n";
const QByteArray kAlreadyRunning =
    "[SC] StartService FAILED 1056:\n\nAn instance of the service is already running.\n\n";
const QByteArray kCrash = "kill -KILL $$\n";

// Shell text that prints the given bytes.
QByteArray printing(const QByteArray& text)
{
    return "cat <<'EOF'\n" + text + "EOF\n";
}

// A folder put in front of PATH while the object lives, holding an `sc` of the test's own
// that records its arguments (joined by "|") in the folder's file "arguments".
class ScFolder
{
public:
    explicit ScFolder(bool withSystemPath = true) : mOldPath(qgetenv("PATH"))
    {
        qputenv("PATH",
                QFile::encodeName(mDir.path()) + (withSystemPath ? ":" + mOldPath : QByteArray()));
    }
    ~ScFolder() { qputenv("PATH", mOldPath); }
    QString path(const QString& name) const { return mDir.filePath(name); }
    bool writeSc(const QByteArray& body, bool executable = true) const
    {
        const QString sc = path("sc");
        QFile::remove(sc);
        const QByteArray record = "printf '%s|' \"$@\" > '" + QFile::encodeName(path("arguments"));
        return kavreltest::writeFile(sc, "#!/bin/sh\n" + record + "'\n" + body) &&
               QFile::setPermissions(sc, QFile::ReadOwner | QFile::WriteOwner |
                                             (executable ? QFile::ExeOwner : QFile::Permission()));
    }

private:
    QTemporaryDir mDir;
    QByteArray mOldPath;
};

// One of the two wrappers, "check" or "start", with a spy on its answer.
struct Wrapper
{
    explicit Wrapper(const QString& kind) : check(kind == QLatin1String("check"))
    {
        object.reset(check ? static_cast<CProcBase*>(new CProcCheckAMD) : new CProcStartAMD);
        signal = check ? SIGNAL(signalServiceRunning(bool)) : SIGNAL(signalStartAMD(bool));
        answers.reset(new QSignalSpy(object.get(), signal));
    }
    void request()
    {
        if (check)
            static_cast<CProcCheckAMD*>(object.get())->checkIfRunning();
        else
            static_cast<CProcStartAMD*>(object.get())->startAMD();
    }
    // Runs one request; -1 when no answer came, else the answer. More than one answer
    // per request (the override reached twice) also fails.
    int ask()
    {
        const int before = answers->count();
        request();
        if (!answers->wait(10000))
            return -1;
        QTest::qWait(50);
        if (answers->count() != before + 1)
            return -2;
        return answers->last().at(0).toBool() ? 1 : 0;
    }
    bool check;
    const char* signal;
    std::unique_ptr<CProcBase> object;
    std::unique_ptr<QSignalSpy> answers;
};

} // namespace

class TestServiceControl : public QObject
{
    Q_OBJECT
private slots:
    void runs_data();
    void runs();
    void destroyedWrapperEndsChildWithoutAnswer();
    void unstartableScSendsNoAnswer();
    void hostCommand_data();
    void hostCommand();
};

void TestServiceControl::runs_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArrayList>("scripts"); // one sc per run of the same wrapper
    QTest::addColumn<QString>("answers");        // one digit per run
    auto row = [](const char* name, const QByteArrayList& scripts, const char* answers) {
        QTest::newRow(name) << QString(name).section(':', 0, 0) << scripts << answers;
    };
    const QByteArray running = printing(kRunningQuery), stopped = printing(kStoppedQuery);
    row("check: running", {running}, "1");
    row("check: stopped", {stopped}, "0");
    row("check: marker is case-sensitive", {"echo 'state: running'\n"}, "0");
    row("check: text ends at a zero byte", {"printf 'STOPPED\\000RUNNING\\n'\n"}, "0");
    row("check: exit code not judged", {"echo RUNNING; exit 3\n"}, "1");
    row("check: crash answers from the earlier output", {running, stopped + kCrash}, "11");
    row("check: crash output is never read", {stopped, running + kCrash}, "00");
    row("start: accepted", {printing(kStartPending)}, "1");
    row("start: already running", {printing(kAlreadyRunning)}, "0");
    row("start: failure exit code not judged", {"echo 'SERVICE_EXIT_CODE : 0'; exit 2\n"}, "1");
    row("start: no output", {"exit 0\n"}, "0");
}

void TestServiceControl::runs()
{
    QFETCH(QString, kind);
    QFETCH(QByteArrayList, scripts);
    QFETCH(QString, answers);
    ScFolder folder;
    Wrapper wrapper(kind);
    for (int run = 0; run < scripts.size(); ++run) {
        QVERIFY(folder.writeSc(scripts[run]));
        QCOMPARE(wrapper.ask(), answers.mid(run, 1).toInt());
        // One command text, the quoted service name kept as one argument.
        QCOMPARE(kavreltest::readFile(folder.path("arguments")),
                 QByteArray(kind == "check" ? "query" : "start") + "|Apple Mobile Device|");
    }
}

void TestServiceControl::destroyedWrapperEndsChildWithoutAnswer()
{
    ScFolder folder;
    const QByteArray pidFile = QFile::encodeName(folder.path("pid"));
    QVERIFY(folder.writeSc("echo $$ > '" + pidFile + ".tmp'\nmv '" + pidFile + ".tmp' '" + pidFile +
                           "'\nexec sleep 60\n"));
    auto wrapper = std::make_unique<Wrapper>("check");
    QSignalSpy answers(wrapper->object.get(), wrapper->signal);
    wrapper->request();
    QTRY_VERIFY(QFile::exists(pidFile));
    const pid_t pid = kavreltest::readFile(pidFile).trimmed().toInt();
    QCOMPARE(::kill(pid, 0), 0);
    wrapper.reset();
    QTest::qWait(100);
    QCOMPARE(answers.count(), 0);
    // Ended and reaped: the pid names no process any more.
    errno = 0;
    QCOMPARE(::kill(pid, 0), -1);
    QCOMPARE(errno, ESRCH);
}

void TestServiceControl::unstartableScSendsNoAnswer()
{
    // Check with no sc on PATH, start with an sc that is not executable.
    for (const bool present : {false, true}) {
        ScFolder folder(false);
        if (present)
            QVERIFY(folder.writeSc(printing(kStartPending), false));
        kavreltest::LogCapture log;
        Wrapper wrapper(present ? "start" : "check");
        wrapper.request();
        QTRY_VERIFY2(log.hasLine("CProcBase::slotProcError, error: 0"), qPrintable(log.dump()));
        QTest::qWait(200);
        QCOMPARE(wrapper.answers->count(), 0);
    }
}

void TestServiceControl::hostCommand_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QByteArray>("script"); // empty: no sc at all
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");
    auto row = [](const char* name, const QStringList& args, const QByteArray& script, int exitCode,
                  const QByteArray& out, const QByteArray& err = QByteArray()) {
        QTest::newRow(name) << args << script << exitCode << out << err;
    };
    const QByteArray refused = "case $1 in start) " + printing(kAlreadyRunning) + ";;\n";
    const QByteArray service = "Apple Mobile Device service: ";
    row("check, running", {"check"}, printing(kRunningQuery), 0, service + "running\n");
    row("check, stopped", {"check"}, printing(kStoppedQuery), 1, service + "not running\n");
    row("start, started", {"start"}, printing(kStartPending), 0, service + "started\n");
    row("start, already running", {"start"},
        refused + "*) " + printing(kRunningQuery) + ";; esac\n", 0, service + "already running\n");
    row("start, refused and not running", {"start"},
        refused + "*) " + printing(kStoppedQuery) + ";; esac\n", 1, service + "not started\n",
        "sc: [SC] StartService FAILED 1056:");
    row("no sc", {"check"}, "", 2, "", "no 'sc' program on PATH");
    row("sc never answers", {"check", "--timeout", "1"}, "exec sleep 30\n", 2, "",
        "sc gave no answer within 1 s");
}

void TestServiceControl::hostCommand()
{
    QFETCH(QStringList, args);
    QFETCH(QByteArray, script);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, err);
    // Without a script the folder alone, so that no other sc can be found.
    ScFolder folder(!script.isEmpty());
    if (!script.isEmpty())
        QVERIFY(folder.writeSc(script));
    const kavreltest::ProgramRun run =
        kavreltest::runProgram(QStringLiteral(KAVREL_CLI), QStringList{"service"} + args);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.out.contains(out), run.out.constData());
    QVERIFY2(run.err.contains(err), run.err.constData());
}

KAVREL_TEST_MAIN(TestServiceControl)
#include "tst_servicecontrol.moc"
