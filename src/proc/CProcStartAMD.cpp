#include "CProcStartAMD.h"

#include <QDebug>

namespace {
const char* const kServiceName = "Apple Mobile Device";
const char* const kStartCommand = "sc start \"%1\"";
// Only a start request that was accepted reports the service's exit-code field.
const char* const kStartedMarker = "SERVICE_EXIT_CODE";
} // namespace

CProcStartAMD::CProcStartAMD(QObject* parent) : CProcBase(parent) {}

void CProcStartAMD::startAMD()
{
    qDebug() << "CProcStartAMD::startAMD";
    start(QString::fromLatin1(kStartCommand).arg(QLatin1String(kServiceName)));
}

void CProcStartAMD::slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    // Four items of the debug stream, written with a blank between each two.
    qDebug() << "CProcStartAMD::slotProcFinished, exitCode: " << exitCode << ", exitStatus"
             << int(exitStatus);
    CProcBase::slotProcFinished(exitCode, exitStatus);
    QString result;
    if (getResult(result)) {
        qDebug().nospace() << "result: " << result;
        if (result.contains(QLatin1String(kStartedMarker))) {
            emit signalStartAMD(true);
            return;
        }
    }
    emit signalStartAMD(false);
}
