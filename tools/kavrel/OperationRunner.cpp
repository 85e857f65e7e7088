#include "OperationRunner.h"

#include "Command.h"

#include "DeviceManager.h"

#include <QEventLoop>
#include <QTimer>

#include <unistd.h>

namespace kavrelcli {

OperationRunner::OperationRunner(DeviceManager& manager, const QString& command, bool rawLines)
    : mManager(manager), mCommand(command), mRawLines(rawLines), mTerminal(isatty(1) != 0)
{
    // A device that never answers must not hold the command for good.
    mManager.setGuardFromStart(true);
    QObject::connect(&mManager, &DeviceManager::signalDevProgress,
                     [this](const QString& line) { onLine(line); });
}

void OperationRunner::expect(const QString& appid, const QString& label)
{
    Operation operation;
    operation.appid = appid;
    operation.label = label;
    mOperations << operation;
}

// A line is operation:status:appid:percent:ok:done. An operation's verdict is its last
// line: the device's completion with ok and done set, or else a failure whose status
// field holds the device's error text (or the library's error key).
void OperationRunner::onLine(const QString& line)
{
    const QStringList fields = line.split(QLatin1Char(':'));
    if (mRawLines) {
        out() << line << "\n";
        out().flush();
    } else if (mTerminal && fields.size() >= 6) {
        const int percent = qBound(0, fields.at(3).toInt(), 100);
        const int filled = percent * 30 / 100;
        out() << "\r\033[K[" << QString(filled, QLatin1Char('#')) << QString(30 - filled, ' ')
              << "] " << QString::number(percent).rightJustified(3) << "% " << fields.at(0) << " "
              << fields.at(2) << ": " << fields.at(1);
        out().flush();
    }
    if (fields.size() < 6)
        return;
    for (Operation& operation : mOperations) {
        // One operation takes every line; several are told apart by their app ids.
        if (mOperations.size() > 1 && operation.appid != fields.at(2))
            continue;
        operation.succeeded = fields.at(1).startsWith(QLatin1String("Complete")) &&
                              fields.at(4) == QLatin1String("1") &&
                              fields.at(5) == QLatin1String("1");
        operation.failure = operation.succeeded ? QString() : fields.at(1);
    }
}

int OperationRunner::wait()
{
    QEventLoop loop;
    QTimer poll;
    // The manager starts the next queued operation as soon as one ends, so an idle
    // manager has nothing left to run.
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (mManager.canInstall())
            loop.quit();
    });
    poll.start(20);
    loop.exec();
    // Lines the device sends after the operation ended (an archive's last status).
    QTimer::singleShot(150, &loop, &QEventLoop::quit);
    loop.exec();
    if (mTerminal && !mRawLines)
        out() << "\r\033[K";
    int failures = 0;
    for (const Operation& operation : mOperations) {
        if (operation.succeeded && operation.failure.isEmpty()) {
            out() << operation.label << ": done\n";
            continue;
        }
        ++failures;
        err() << "kavrel " << mCommand << ": " << operation.label << ": failed: "
              << (operation.failure.isEmpty() ? QStringLiteral("no completion reported")
                                              : operation.failure)
              << "\n";
    }
    out().flush();
    err().flush();
    return failures == 0 ? 0 : 1;
}

} // namespace kavrelcli
