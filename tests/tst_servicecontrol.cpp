// Service check and start: CProcCheckAMD/CProcStartAMD driven through the event loop
// against `sc` programs of the test's own, the shipped scripts/sc, and `kavrel service`.

#include "CProcCheckAMD.h"
#include "CProcStartAMD.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMetaMethod>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <cerrno>
#include <functional>
#include <memory>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QByteArray kRunningQuery = "\n"
                                 "SERVICE_NAME: Apple Mobile Device\n"
                                 "        TYPE               : 10  WIN32_OWN_PROCESS\n"
                                 "        STATE              : 4  RUNNING\n"
                                 "        WIN32_EXIT_CODE    : 0  (0x0)\n"
                                 "        SERVICE_EXIT_CODE  : 0  (0x0)\n";
const QByteArray kStoppedQuery = "\n"
                                 "SERVICE_NAME: Apple Mobile Device\n"
                                 "        STATE              : 1  STOPPED\n"
                                 "        SERVICE_EXIT_CODE  : 0  (0x0)\n";
const QByteArray kStartPending = "\n"
                                 "SERVICE_NAME: Apple Mobile Device\n"
                                 "        STATE              : 2  START_PENDING\n"
                                 "        SERVICE_EXIT_CODE  : 0  (0x0)\n"
                                 "        PID                : 1234\n";
const QByteArray kAlreadyRunning =
    "[SC] StartService FAILED 1056:\n\nAn instance of the service is already running.\n\n";

// Shell text that prints the given bytes.
QByteArray printing(const QByteArray& text)
{
    return "cat <<'EOF'\n" + text + "EOF\n";
}
const QByteArray kCrash = "kill -KILL $$\n";

// A folder put in front of PATH while the object lives, to hold an `sc` of the test's own.
class ScFolder
{
public:
    explicit ScFolder(bool withSystemPath = true) : mOldPath(qgetenv("PATH"))
    {
        QByteArray path = QFile::encodeName(mDir.path());
        if (withSystemPath)
            path += ":" + mOldPath;
        qputenv("PATH", path);
    }
    ~ScFolder() { qputenv("PATH", mOldPath); }
    QString path(const QString& name) const { return mDir.filePath(name); }
    bool writeSc(const QByteArray& body, bool executable = true) const
    {
        return writeScript(path("sc"), body, executable);
    }
    static bool writeScript(const QString& file, const QByteArray& body, bool executable = true)
    {
        QFile::remove(file);
        if (!kavreltest::writeFile(file, "#!/bin/sh\n" + body))
            return false;
        QFile::Permissions perms = QFile::ReadOwner | QFile::WriteOwner;
        if (executable)
            perms |= QFile::ExeOwner;
        return QFile::setPermissions(file, perms);
    }

private:
    QTemporaryDir mDir;
    QByteArray mOldPath;
};

// Sets an environment variable while the object lives.
class EnvSetting
{
public:
    EnvSetting(const char* name, const QByteArray& value)
        : mName(name), mHad(qEnvironmentVariableIsSet(name)), mOld(qgetenv(name))
    {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~EnvSetting()
    {
        if (mHad)
            qputenv(mName, mOld);
        else
            qunsetenv(mName);
    }

private:
    const char* mName;
    bool mHad;
    QByteArray mOld;
};

// One of the two wrappers with a spy on its answer; "check" or "start".
struct Wrapper
{
    explicit Wrapper(const QString& kind)
    {
        if (kind == QLatin1String("check")) {
            auto* check = new CProcCheckAMD;
            object.reset(check);
            answers.reset(new QSignalSpy(check, &CProcCheckAMD::signalServiceRunning));
            request = [check] { check->checkIfRunning(); };
        } else {
            auto* start = new CProcStartAMD;
            object.reset(start);
            answers.reset(new QSignalSpy(start, &CProcStartAMD::signalStartAMD));
            request = [start] { start->startAMD(); };
        }
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
    std::unique_ptr<QSignalSpy> answers;
    std::unique_ptr<CProcBase> object;
    std::function<void()> request;
};

// A UNIX socket at a path while the object lives: listening (a running daemon), or bound
// but closed, so that the file stays and refuses connections (what a crashed one leaves).
class UnixSocket
{
public:
    UnixSocket(const QString& path, bool listening) : mPath(path)
    {
        mFd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        qstrncpy(addr.sun_path, QFile::encodeName(path).constData(), sizeof(addr.sun_path));
        mOk = mFd >= 0 && ::bind(mFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
              (!listening || ::listen(mFd, 8) == 0);
        if (!listening && mFd >= 0) {
            ::close(mFd);
            mFd = -1;
        }
    }
    ~UnixSocket()
    {
        if (mFd >= 0)
            ::close(mFd);
        QFile::remove(mPath);
    }
    bool ok() const { return mOk; }

private:
    QString mPath;
    int mFd = -1;
    bool mOk = false;
};

} // namespace

class TestServiceControl : public QObject
{
    Q_OBJECT
private slots:
    void metaObjectMethods_data();
    void metaObjectMethods();
    void commandKeepsQuotedServiceNameWhole_data();
    void commandKeepsQuotedServiceNameWhole();
    void answerFromOutput_data();
    void answerFromOutput();
    void logLinesOfOneRun_data();
    void logLinesOfOneRun();
    void secondRun_data();
    void secondRun();
    void destroyedWrapperEndsChildWithoutAnswer_data();
    void destroyedWrapperEndsChildWithoutAnswer();
    void unstartableScSendsNoAnswer_data();
    void unstartableScSendsNoAnswer();
    void shippedSc_data();
    void shippedSc();
    void wrappersAgainstShippedSc_data();
    void wrappersAgainstShippedSc();
    void hostCommand_data();
    void hostCommand();
};

void TestServiceControl::metaObjectMethods_data()
{
    QTest::addColumn<QString>("className");
    QTest::addColumn<int>("index");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("access");
    QTest::addColumn<QByteArrayList>("names");

    const int slot = QMetaMethod::Slot, sig = QMetaMethod::Signal;
    const int pub = QMetaMethod::Public, priv = QMetaMethod::Private;
    const QByteArrayList finishedNames{"exitCode", "exitStatus"};
    const QByteArray finished = "slotProcFinished(int,QProcess::ExitStatus)";
    QTest::newRow("base 0") << "CProcBase" << 0 << QByteArray("slotProcStartd()") << slot << pub
                            << QByteArrayList();
    QTest::newRow("base 1") << "CProcBase" << 1 << finished << slot << pub << finishedNames;
    QTest::newRow("base 2") << "CProcBase" << 2
                            << QByteArray("slotProcError(QProcess::ProcessError)") << slot << pub
                            << QByteArrayList{"error"};
    QTest::newRow("base 3") << "CProcBase" << 3
                            << QByteArray("slotProcStateChanged(QProcess::ProcessState)") << slot
                            << pub << QByteArrayList{""};
    QTest::newRow("check 0") << "CProcCheckAMD" << 0 << QByteArray("signalServiceRunning(bool)")
                             << sig << pub << QByteArrayList{"running"};
    QTest::newRow("check 1") << "CProcCheckAMD" << 1 << finished << slot << pub << finishedNames;
    QTest::newRow("start 0") << "CProcStartAMD" << 0 << QByteArray("signalStartAMD(bool)") << sig
                             << pub << QByteArrayList{"suc"};
    QTest::newRow("start 1") << "CProcStartAMD" << 1 << finished << slot << priv << finishedNames;
}

void TestServiceControl::metaObjectMethods()
{
    QFETCH(QString, className);
    QFETCH(int, index);
    QFETCH(QByteArray, signature);
    QFETCH(int, type);
    QFETCH(int, access);
    QFETCH(QByteArrayList, names);

    const QMetaObject* mo = className == "CProcBase"       ? &CProcBase::staticMetaObject
                            : className == "CProcCheckAMD" ? &CProcCheckAMD::staticMetaObject
                                                           : &CProcStartAMD::staticMetaObject;
    QCOMPARE(QString::fromLatin1(mo->className()), className);
    QCOMPARE(mo->methodCount() - mo->methodOffset(), className == "CProcBase" ? 4 : 2);
    const QMetaMethod method = mo->method(mo->methodOffset() + index);
    QCOMPARE(method.methodSignature(), signature);
    QCOMPARE(int(method.methodType()), type);
    QCOMPARE(int(method.access()), access);
    QCOMPARE(method.parameterNames(), names);
}

void TestServiceControl::commandKeepsQuotedServiceNameWhole_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("arguments");
    QTest::newRow("check") << "check" << QByteArray("query|Apple Mobile Device|\n");
    QTest::newRow("start") << "start" << QByteArray("start|Apple Mobile Device|\n");
}

void TestServiceControl::commandKeepsQuotedServiceNameWhole()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, arguments);
    ScFolder folder;
    const QString record = folder.path("arguments");
    QVERIFY(folder.writeSc("printf '%s|' \"$@\" > '" + QFile::encodeName(record) + "'\necho >> '" +
                           QFile::encodeName(record) + "'\n"));
    Wrapper wrapper(kind);
    QCOMPARE(wrapper.ask(), 0);
    QCOMPARE(kavreltest::readFile(record), arguments);
}

void TestServiceControl::answerFromOutput_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("answer");

    QTest::newRow("check: running") << "check" << printing(kRunningQuery) << true;
    QTest::newRow("check: stopped") << "check" << printing(kStoppedQuery) << false;
    QTest::newRow("check: no output") << "check" << QByteArray("exit 0\n") << false;
    QTest::newRow("check: marker anywhere")
        << "check" << QByteArray("echo 'NOT RUNNING YET'\n") << true;
    QTest::newRow("check: marker is case-sensitive")
        << "check" << QByteArray("echo 'state: running'\n") << false;
    QTest::newRow("check: text ends at a zero byte")
        << "check" << QByteArray("printf 'STOPPED\\000RUNNING\\n'\n") << false;
    QTest::newRow("check: exit code not judged") << "check" << printing(kRunningQuery) + "exit 3\n"
                                                 << true;
    QTest::newRow("check: standard error not read")
        << "check" << QByteArray("echo RUNNING >&2\n") << false;
    QTest::newRow("start: accepted") << "start" << printing(kStartPending) << true;
    QTest::newRow("start: already running") << "start" << printing(kAlreadyRunning) << false;
    QTest::newRow("start: no output") << "start" << QByteArray("exit 0\n") << false;
    QTest::newRow("start: marker is case-sensitive")
        << "start" << QByteArray("echo service_exit_code\n") << false;
    QTest::newRow("start: failure exit code not judged")
        << "start" << printing(kStartPending) + "exit 1\n"
        << true;
}

void TestServiceControl::answerFromOutput()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, script);
    QFETCH(bool, answer);
    ScFolder folder;
    QVERIFY(folder.writeSc(script));
    Wrapper wrapper(kind);
    QCOMPARE(wrapper.ask(), answer ? 1 : 0);
}

void TestServiceControl::logLinesOfOneRun_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QString>("absent");

    QTest::newRow("check")
        << "check" << QByteArray("echo RUNNING; exit 3\n")
        << QStringList{"CProcCheckAMD::checkIfRunning",
                       "CProcBase::slotProcStateChanged, state: 1",
                       "CProcBase::slotProcStateChanged, state: 2",
                       "CProcBase::slotProcStateChanged, state: 0",
                       "CProcCheckAMD::slotProcFinished, exitCode: 3, exitStatus: 0",
                       "CProcBase::slotProcFinished, exitCode: 3",
                       "CProcCheckAMD::~CProcCheckAMD",
                       "CProcBase::~CProcBase"}
        << "result: ";
    QTest::newRow("start with output")
        << "start" << QByteArray("echo 'SERVICE_EXIT_CODE : 0'; exit 2\n")
        << QStringList{"CProcStartAMD::startAMD",
                       "CProcStartAMD::slotProcFinished, exitCode:  2 , exitStatus 0",
                       "CProcBase::slotProcFinished, exitCode: 2",
                       "result: \"SERVICE_EXIT_CODE : 0\\n\"", "CProcBase::~CProcBase"}
        << "";
    QTest::newRow("start without output")
        << "start" << QByteArray("exit 0\n")
        << QStringList{"CProcStartAMD::slotProcFinished, exitCode:  0 , exitStatus 0"}
        << "result: ";
}

void TestServiceControl::logLinesOfOneRun()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, script);
    QFETCH(QStringList, expected);
    QFETCH(QString, absent);
    ScFolder folder;
    QVERIFY(folder.writeSc(script));
    kavreltest::LogCapture log;
    {
        Wrapper wrapper(kind);
        QVERIFY(wrapper.ask() >= 0);
    }
    // Lines in the order they must appear: the override logs before the base stores the
    // output, and the destructors log last.
    const QStringList lines = log.lines();
    int previous = -1;
    for (const QString& line : expected) {
        const int found = lines.indexOf(line, previous + 1);
        QVERIFY2(found > previous, qPrintable(line + " not in order in:\n" + log.dump()));
        previous = found;
    }
    if (!absent.isEmpty())
        QVERIFY2(!log.contains(absent), qPrintable(log.dump()));
}

void TestServiceControl::secondRun_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("first");
    QTest::addColumn<QByteArray>("second");
    QTest::addColumn<bool>("firstAnswer");
    QTest::addColumn<bool>("secondAnswer");

    QTest::newRow("check: crash answers from the earlier output")
        << "check" << printing(kRunningQuery) << printing(kStoppedQuery) + kCrash << true << true;
    QTest::newRow("check: crash output is never read")
        << "check" << printing(kStoppedQuery) << printing(kRunningQuery) + kCrash << false << false;
    QTest::newRow("check: crash on the first run") << "check" << kCrash << kCrash << false << false;
    QTest::newRow("check: a normal run replaces the output")
        << "check" << printing(kRunningQuery) << printing(kStoppedQuery) << true << false;
    QTest::newRow("check: a silent normal run clears it")
        << "check" << printing(kRunningQuery) << QByteArray("exit 0\n") << true << false;
    QTest::newRow("start: crash answers from the earlier output")
        << "start" << printing(kStartPending) << kCrash << true << true;
    QTest::newRow("start: crash after a refusal")
        << "start" << printing(kAlreadyRunning) << printing(kStartPending) + kCrash << false
        << false;
}

void TestServiceControl::secondRun()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, first);
    QFETCH(QByteArray, second);
    QFETCH(bool, firstAnswer);
    QFETCH(bool, secondAnswer);
    ScFolder folder;
    QVERIFY(folder.writeSc(first));
    Wrapper wrapper(kind);
    QCOMPARE(wrapper.ask(), firstAnswer ? 1 : 0);
    QVERIFY(folder.writeSc(second));
    kavreltest::LogCapture log;
    QCOMPARE(wrapper.ask(), secondAnswer ? 1 : 0);
    if (second.contains(kCrash) && kind == "check")
        QVERIFY2(log.contains(", exitStatus: 1"), qPrintable(log.dump()));
}

void TestServiceControl::destroyedWrapperEndsChildWithoutAnswer_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("check") << "check";
    QTest::newRow("start") << "start";
}

void TestServiceControl::destroyedWrapperEndsChildWithoutAnswer()
{
    QFETCH(QString, kind);
    ScFolder folder;
    const QString pidFile = folder.path("pid");
    QVERIFY(folder.writeSc("echo $$ > '" + QFile::encodeName(pidFile) + ".tmp'\nmv '" +
                           QFile::encodeName(pidFile) + ".tmp' '" + QFile::encodeName(pidFile) +
                           "'\nexec sleep 60\n"));
    auto wrapper = std::make_unique<Wrapper>(kind);
    QSignalSpy answers(wrapper->object.get(), kind == "check" ? SIGNAL(signalServiceRunning(bool))
                                                              : SIGNAL(signalStartAMD(bool)));
    wrapper->request();
    QTRY_VERIFY(QFile::exists(pidFile));
    const pid_t pid = kavreltest::readFile(pidFile).trimmed().toInt();
    QVERIFY(pid > 0);
    QCOMPARE(::kill(pid, 0), 0);

    kavreltest::LogCapture log;
    QElapsedTimer timer;
    timer.start();
    wrapper.reset();
    QVERIFY(timer.elapsed() < 20000);
    QTest::qWait(100);
    QCOMPARE(answers.count(), 0);
    // Ended and reaped: the pid names no process any more.
    errno = 0;
    QCOMPARE(::kill(pid, 0), -1);
    QCOMPARE(errno, ESRCH);
    QVERIFY2(log.hasLine("CProcBase::~CProcBase"), qPrintable(log.dump()));
    QVERIFY2(!log.contains("AMD::slotProcFinished"), qPrintable(log.dump()));
}

void TestServiceControl::unstartableScSendsNoAnswer_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("present");
    QTest::newRow("check: no sc on PATH") << "check" << false;
    QTest::newRow("start: no sc on PATH") << "start" << false;
    QTest::newRow("check: sc not executable") << "check" << true;
}

void TestServiceControl::unstartableScSendsNoAnswer()
{
    QFETCH(QString, kind);
    QFETCH(bool, present);
    ScFolder folder(false);
    if (present)
        QVERIFY(folder.writeSc(printing(kRunningQuery), false));
    kavreltest::LogCapture log;
    Wrapper wrapper(kind);
    wrapper.request();
    QTRY_VERIFY2(log.hasLine("CProcBase::slotProcError, error: 0"), qPrintable(log.dump()));
    QTRY_VERIFY2(log.hasLine("CProcBase::slotProcStateChanged, state: 0"), qPrintable(log.dump()));
    QTest::qWait(200);
    QCOMPARE(wrapper.answers->count(), 0);
    QVERIFY(!log.contains("slotProcFinished"));
}

void TestServiceControl::shippedSc_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("socket"); // listening, missing, dead
    QTest::addColumn<QString>("daemon"); // none, ok, fails
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray missing = "The specified service does not exist as an installed service.\n\n";
    const QStringList query{"query", "Apple Mobile Device"};
    const QStringList start{"start", "Apple Mobile Device"};
    QTest::newRow("query, running")
        << query << "listening"
        << "none" << 0 << QByteArray("        STATE              : 4  RUNNING\n");
    QTest::newRow("query, name in any case")
        << QStringList{"QUERY", "apple mobile DEVICE"} << "listening"
        << "none" << 0 << QByteArray("SERVICE_NAME: Apple Mobile Device\n");
    QTest::newRow("query, no socket")
        << query << "missing"
        << "none" << 0 << QByteArray("        STATE              : 1  STOPPED\n");
    QTest::newRow("query, socket refuses")
        << query << "dead"
        << "none" << 0 << QByteArray("STATE              : 1  STOPPED\n");
    QTest::newRow("query, other service")
        << QStringList{"query", "Spooler"} << "listening"
        << "none" << 1 << "[SC] EnumQueryServicesStatus:OpenService FAILED 1060:\n\n" + missing;
    QTest::newRow("start, other service")
        << QStringList{"start", "Spooler"} << "listening"
        << "none" << 1 << "[SC] StartService: OpenService FAILED 1060:\n\n" + missing;
    QTest::newRow("start, running") << start << "listening"
                                    << "none" << 1 << kAlreadyRunning;
    QTest::newRow("start, simulated device cannot be started")
        << start << "missing"
        << "none" << 1 << QByteArray("[SC] StartService FAILED 1058:\n");
    QTest::newRow("start, daemon starts")
        << start << "missing"
        << "ok" << 0 << QByteArray("        STATE              : 2  START_PENDING\n");
    QTest::newRow("start, daemon fails")
        << start << "dead"
        << "fails" << 1
        << QByteArray(::geteuid() == 0 ? "[SC] StartService FAILED 1053:\n"
                                       : "[SC] StartService FAILED 5:\n");
    QTest::newRow("unknown command") << QStringList{"stop", "Apple Mobile Device"} << "listening"
                                     << "none" << 1 << QByteArray("ERROR:  Unrecognized command");
}

void TestServiceControl::shippedSc()
{
    QFETCH(QStringList, args);
    QFETCH(QString, socket);
    QFETCH(QString, daemon);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, expected);

    QTemporaryDir dir;
    const QString socketPath = dir.filePath("sim.sock");
    std::unique_ptr<UnixSocket> server;
    if (socket != "missing") {
        server = std::make_unique<UnixSocket>(socketPath, socket == "listening");
        QVERIFY(server->ok());
    }

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KAVREL_SIM_SOCKET", socketPath);
    env.remove("USBMUXD_SOCKET_ADDRESS");
    env.remove("KAVREL_USBMUXD");
    const QString daemonRecord = dir.filePath("daemon-ran");
    if (daemon != "none") {
        const QString program = dir.filePath("fake-usbmuxd");
        QVERIFY(ScFolder::writeScript(program, "touch '" + QFile::encodeName(daemonRecord) +
                                                   "'\nexit " + (daemon == "ok" ? "0" : "1") +
                                                   "\n"));
        env.insert("KAVREL_USBMUXD", program);
    }

    const kavreltest::ProgramRun run =
        kavreltest::runProgram(QStringLiteral(KAVREL_SOURCE_DIR "/scripts/sc"), args, env);
    QVERIFY2(run.out.contains(expected), run.out.constData());
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(QFile::exists(daemonRecord), daemon != "none");
    // Only an accepted start request carries the exit-code field the start check looks for.
    if (args.first() == "start")
        QCOMPARE(run.out.contains("SERVICE_EXIT_CODE"), exitCode == 0);
}

void TestServiceControl::wrappersAgainstShippedSc_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("listening");
    QTest::addColumn<bool>("answer");
    QTest::newRow("check, simulated device runs") << "check" << true << true;
    QTest::newRow("check, simulated device gone, socket left") << "check" << false << false;
    QTest::newRow("start, already running") << "start" << true << false;
}

void TestServiceControl::wrappersAgainstShippedSc()
{
    QFETCH(QString, kind);
    QFETCH(bool, listening);
    QFETCH(bool, answer);
    QTemporaryDir dir;
    const QString socketPath = dir.filePath("sim.sock");
    UnixSocket server(socketPath, listening);
    QVERIFY(server.ok());
    EnvSetting path("PATH", KAVREL_SOURCE_DIR "/scripts:" + qgetenv("PATH"));
    EnvSetting sim("KAVREL_SIM_SOCKET", QFile::encodeName(socketPath));
    EnvSetting daemon("KAVREL_USBMUXD", QByteArray());
    Wrapper wrapper(kind);
    QCOMPARE(wrapper.ask(), answer ? 1 : 0);
}

void TestServiceControl::hostCommand_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QByteArray>("script"); // empty: no sc at all
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");

    const QByteArray startRefused = "case $1 in start) " + printing(kAlreadyRunning) + ";;\n";
    QTest::newRow("check, running")
        << QStringList{"check"} << printing(kRunningQuery) << 0
        << QByteArray("Apple Mobile Device service: running\n") << QByteArray();
    QTest::newRow("check, stopped")
        << QStringList{"check"} << printing(kStoppedQuery) << 1
        << QByteArray("Apple Mobile Device service: not running\n") << QByteArray();
    QTest::newRow("check, verbose shows sc")
        << QStringList{"check", "-v"} << printing(kStoppedQuery) << 1
        << QByteArray("STATE              : 1  STOPPED\n") << QByteArray("CProcBase::~CProcBase");
    QTest::newRow("start, started")
        << QStringList{"start"} << printing(kStartPending) << 0
        << QByteArray("Apple Mobile Device service: started\n") << QByteArray();
    QTest::newRow("start, already running")
        << QStringList{"start"} << startRefused + "*) " + printing(kRunningQuery) + ";; esac\n"
        << 0 << QByteArray("Apple Mobile Device service: already running\n") << QByteArray();
    QTest::newRow("start, refused and not running")
        << QStringList{"start"} << startRefused + "*) " + printing(kStoppedQuery) + ";; esac\n"
        << 1 << QByteArray("Apple Mobile Device service: not started\n")
        << QByteArray("sc: [SC] StartService FAILED 1056:");
    QTest::newRow("no sc") << QStringList{"check"} << QByteArray() << 2 << QByteArray()
                           << QByteArray("no 'sc' program on PATH");
    QTest::newRow("sc never answers")
        << QStringList{"check", "--timeout", "1"} << QByteArray("exec sleep 30\n") << 2
        << QByteArray() << QByteArray("sc gave no answer within 1 s");
    QTest::newRow("bad action") << QStringList{"stop"} << printing(kRunningQuery) << 2
                                << QByteArray() << QByteArray("give one action, check or start");
}

void TestServiceControl::hostCommand()
{
    QFETCH(QStringList, args);
    QFETCH(QByteArray, script);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, err);
    QTemporaryDir dir;
    if (!script.isEmpty())
        QVERIFY(ScFolder::writeScript(dir.filePath("sc"), script));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Without a script the folder alone, so that no other sc can be found.
    env.insert("PATH", script.isEmpty() ? dir.path() : dir.path() + ":/usr/bin:/bin");
    const kavreltest::ProgramRun run =
        kavreltest::runProgram(QStringLiteral(KAVREL_CLI), QStringList{"service"} + args, env);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.out.contains(out), run.out.constData());
    QVERIFY2(run.err.contains(err), run.err.constData());
}

KAVREL_TEST_MAIN(TestServiceControl)
#include "tst_servicecontrol.moc"
