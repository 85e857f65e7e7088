#include "CProcCheckAMD.h"

#include <QDebug>

namespace {
const char* const kServiceName = "Apple Mobile Device";
const char* const kQueryCommand = "sc query \"%1\"";
const char* const kRunningMarker = "RUNNING";
} // namespace

CProcCheckAMD::CProcCheckAMD(QObject* parent) : CProcBase(parent) {}

CProcCheckAMD::~CProcCheckAMD()
{
    qDebug() << "CProcCheckAMD::~CProcCheckAMD";
}

void CProcCheckAMD::checkIfRunning()
{
    qDebug() << "CProcCheckAMD::checkIfRunning";
    start(QString::fromLatin1(kQueryCommand).arg(QLatin1String(kServiceName)));
}

void CProcCheckAMD::slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    qDebug("CProcCheckAMD::slotProcFinished, exitCode: %d, exitStatus: %d", exitCode,
           int(exitStatus));
    CProcBase::slotProcFinished(exitCode, exitStatus);
    // The stored output may come from an earlier run when this one crashed.
    QString result;
    if (getResult(result) && result.contains(QLatin1String(kRunningMarker))) {
        emit signalServiceRunning(true);
        return;
    }
    emit signalServiceRunning(false);
}
