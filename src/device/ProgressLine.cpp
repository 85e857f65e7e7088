#include "ProgressLine.h"

#include "OperationInfo.h"

#include <QStringList>

const QChar ProgressLine::kSeparator = QLatin1Char(':');

namespace {

QString flag(bool on)
{
    return on ? QStringLiteral("1") : QStringLiteral("0");
}

// Status-callback lines spell a missing app id in capitals, failure lines in lower case.
QString orUnknownUpper(const QString& text)
{
    return text.isNull() ? QStringLiteral("UNKNOWN") : text;
}

QString orUnknownLower(const QString& text)
{
    return text.isNull() ? QStringLiteral("unknown") : text;
}

// The device's percentage truncated to a signed 32-bit value, as the host has always
// received it.
QString percentText(quint64 percent)
{
    return QString::number(static_cast<qint32>(static_cast<quint32>(percent)));
}

} // namespace

QString ProgressLine::copying(const QString& operation, const QString& stagingPath,
                              const QString& appid)
{
    return QStringLiteral("%1:Copying-%2:%3:50:1:0").arg(operation, stagingPath, appid);
}

QString ProgressLine::copyingDone(const QString& operation, const QString& appid)
{
    return QStringLiteral("%1:Copying done:%2:100:1:0").arg(operation, appid);
}

QString ProgressLine::stagingPath(const QString& appid)
{
    return QStringLiteral("PublicStaging/") + appid;
}

QString ProgressLine::archiveCopying(const QString& appid)
{
    return QStringLiteral("Archive:CopyingArchive:%1:20:1:0").arg(appid);
}

QString ProgressLine::archiveCopyingDone(const QString& appid)
{
    return QStringLiteral("Archive:Copying done:%1:100:1:0").arg(appid);
}

QString ProgressLine::statusPercent(const QString& operation, const QString& status,
                                    const QString& appid, quint64 percent, bool finalStage)
{
    return QStringLiteral("%1:%2:%3:%4:1:%5")
        .arg(operation, status, orUnknownUpper(appid), percentText(percent), flag(finalStage));
}

QString ProgressLine::statusComplete(const QString& operation, const QString& status,
                                     const QString& appid, bool finalStage)
{
    return QStringLiteral("%1:%2:%3:100:1:%4")
        .arg(operation, status, orUnknownUpper(appid), flag(finalStage));
}

QString ProgressLine::statusPending(const QString& operation, const QString& status,
                                    const QString& appid, bool finalStage)
{
    return QStringLiteral("%1:%2:%3:100:0:%4")
        .arg(operation, status, orUnknownUpper(appid), flag(finalStage));
}

QString ProgressLine::statusError(const QString& operation, const QString& error,
                                  const QString& appid)
{
    return QStringLiteral("%1:%2:%3:100:0:1").arg(operation, error, orUnknownUpper(appid));
}

QString ProgressLine::wrongState(const QString& operation, const QString& appid)
{
    return QStringLiteral("%1:wrong state:%2:100:0:1")
        .arg(orUnknownLower(operation), orUnknownUpper(appid));
}

QString ProgressLine::wrongOperationType(const QString& appid)
{
    return QStringLiteral("wrong operation:not started:%1:0:0:1").arg(appid);
}

QString ProgressLine::noOperation(int command)
{
    return QStringLiteral("%1:wrong operation:unknown:0:0:1").arg(command);
}

QString ProgressLine::failure(int command, const QString& status, const QString& appid)
{
    return QStringLiteral("%1:%2:%3:0:0:1")
        .arg(OperationInfo::commandName(command), status, orUnknownLower(appid));
}

QString ProgressLine::installCompleted(const QString& appid)
{
    return QStringLiteral("Install:Completed:%1:100:1:1").arg(appid);
}

QString ProgressLine::installTimedOut(const QString& appid)
{
    return operationTimedOut(QStringLiteral("Install"), appid);
}

QString ProgressLine::operationTimedOut(const QString& operation, const QString& appid)
{
    return QStringLiteral("%1:ErrorOnTimeout:%2:100:0:1").arg(operation, appid);
}

QString ProgressLine::timedOut(const QString& lastLine, const QString& appid)
{
    if (!lastLine.isEmpty()) {
        QStringList parts = lastLine.split(kSeparator);
        if (parts.size() == kFieldCount) {
            parts[1] = QStringLiteral("ErrorOnTimeout");
            parts[4] = QStringLiteral("0");
            return parts.join(kSeparator);
        }
    }
    return installTimedOut(appid);
}

bool ProgressLine::isInstallComplete(const QString& line)
{
    const QStringList parts = line.split(kSeparator);
    return parts.size() == kFieldCount && parts[0].contains(QLatin1String("Install")) &&
           parts[1].contains(QLatin1String("Complete")) &&
           parts[3].contains(QLatin1String("100")) && parts[4].contains(QLatin1Char('1')) &&
           parts[5].contains(QLatin1Char('1'));
}

QString ProgressLine::forEmission(const QString& line)
{
    QString copy = line;
    copy.replace(QLatin1String("RemoveArchive"), QLatin1String("Archive"));
    return copy;
}
