// kavrel service check|start: whether the "Apple Mobile Device" service runs, and
// starting it, through CProcCheckAMD and CProcStartAMD (which run `sc` from PATH).

#include "CProcCheckAMD.h"
#include "CProcStartAMD.h"
#include "Command.h"

#include <QEventLoop>
#include <QLoggingCategory>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>

using namespace kavrelcli;

namespace {

const char* const kService = "Apple Mobile Device service";

enum class Outcome
{
    Yes,
    No,
    NotRun,
    TimedOut
};

struct Run
{
    Outcome outcome = Outcome::TimedOut;
    QString error;  // why sc could not be run
    QString output; // what sc printed (the last normal run)
};

// Starts the request through the wrapper and waits for its answer. The wrappers send no
// answer when sc cannot be started, so the wrapper's own process reports that case.
template <typename Wrapper, typename Signal>
Run await(Wrapper& wrapper, Signal answer, void (Wrapper::*request)(), int timeoutMs)
{
    Run run;
    QEventLoop loop;
    QObject::connect(&wrapper, answer, &loop, [&](bool yes) {
        run.outcome = yes ? Outcome::Yes : Outcome::No;
        loop.quit();
    });
    if (QProcess* process = wrapper.template findChild<QProcess*>()) {
        QObject::connect(process, &QProcess::errorOccurred, &loop,
                         [&run, &loop, process](QProcess::ProcessError error) {
                             if (error != QProcess::FailedToStart)
                                 return;
                             run.outcome = Outcome::NotRun;
                             run.error = process->errorString();
                             loop.quit();
                         });
    }
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    (wrapper.*request)();
    if (run.outcome == Outcome::TimedOut) // the answer may already have come
        loop.exec();
    wrapper.getResult(run.output);
    return run;
}

// sc's text on one line, for messages.
QString oneLine(const QString& text)
{
    return text.simplified();
}

int reportNotRun(const Run& run, int timeoutMs)
{
    if (run.outcome == Outcome::TimedOut) {
        err() << "kavrel service: sc gave no answer within " << timeoutMs / 1000 << " s\n";
        return 2;
    }
    err() << "kavrel service: cannot run sc: " << run.error << "\n";
    if (QStandardPaths::findExecutable(QStringLiteral("sc")).isEmpty())
        err() << "kavrel service: no 'sc' program on PATH; put kavrel's scripts folder on PATH"
                 " (scripts/run.sh does)\n";
    return 2;
}

int check(bool verbose, int timeoutMs)
{
    CProcCheckAMD wrapper;
    const Run run = await(wrapper, &CProcCheckAMD::signalServiceRunning,
                          &CProcCheckAMD::checkIfRunning, timeoutMs);
    if (run.outcome == Outcome::NotRun || run.outcome == Outcome::TimedOut)
        return reportNotRun(run, timeoutMs);
    if (verbose && !run.output.isEmpty())
        out() << run.output.trimmed() << "\n";
    const bool running = run.outcome == Outcome::Yes;
    out() << kService << ": " << (running ? "running" : "not running") << "\n";
    if (!running && !verbose && !run.output.isEmpty() && !run.output.contains("STATE"))
        err() << "sc: " << oneLine(run.output) << "\n"; // an error rather than a state
    return running ? 0 : 1;
}

int start(bool verbose, int timeoutMs)
{
    CProcStartAMD wrapper;
    const Run run =
        await(wrapper, &CProcStartAMD::signalStartAMD, &CProcStartAMD::startAMD, timeoutMs);
    if (run.outcome == Outcome::NotRun || run.outcome == Outcome::TimedOut)
        return reportNotRun(run, timeoutMs);
    if (verbose && !run.output.isEmpty())
        out() << run.output.trimmed() << "\n";
    if (run.outcome == Outcome::Yes) {
        out() << kService << ": started\n";
        return 0;
    }
    // sc refuses to start a service that already runs; that is what the user wanted.
    CProcCheckAMD checker;
    const Run checked = await(checker, &CProcCheckAMD::signalServiceRunning,
                              &CProcCheckAMD::checkIfRunning, timeoutMs);
    if (checked.outcome == Outcome::Yes) {
        out() << kService << ": already running\n";
        return 0;
    }
    out() << kService << ": not started\n";
    if (!verbose && !run.output.isEmpty())
        err() << "sc: " << oneLine(run.output) << "\n";
    return 1;
}

int runService(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("action"),
                                 QStringLiteral("check: is the service running? start: start it."),
                                 QStringLiteral("check|start"));
    const QCommandLineOption verboseOption(
        {QStringLiteral("v"), QStringLiteral("verbose")},
        QStringLiteral("Show the library's log and everything sc printed."));
    const QCommandLineOption timeoutOption(QStringLiteral("timeout"),
                                           QStringLiteral("Seconds to wait for sc (default 60)."),
                                           QStringLiteral("S"), QStringLiteral("60"));
    parser.addOption(verboseOption);
    parser.addOption(timeoutOption);
    int exitCode = 0;
    if (!parseCommandLine(parser, QStringLiteral("service"), args, exitCode))
        return exitCode;

    const QStringList words = parser.positionalArguments();
    const QString action = words.value(0);
    if (words.size() != 1 ||
        (action != QLatin1String("check") && action != QLatin1String("start"))) {
        err() << "kavrel service: give one action, check or start\n";
        return 2;
    }
    bool ok = false;
    const int timeoutSeconds = parser.value(timeoutOption).toInt(&ok);
    if (!ok || timeoutSeconds <= 0 || timeoutSeconds > 24 * 3600) {
        err() << "kavrel service: --timeout needs a number of seconds from 1 to 86400\n";
        return 2;
    }
    const bool verbose = parser.isSet(verboseOption);
    if (!verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));

    const int rc = action == QLatin1String("check") ? check(verbose, timeoutSeconds * 1000)
                                                    : start(verbose, timeoutSeconds * 1000);
    out().flush();
    err().flush();
    return rc;
}

} // namespace

KAVREL_COMMAND("service", "check|start",
               "Check whether the Apple Mobile Device service runs, or start it (runs sc)",
               runService);
