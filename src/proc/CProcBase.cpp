#include "CProcBase.h"

#include <QDebug>
#include <QProcessEnvironment>
#include <QStringList>

CProcBase::CProcBase(QObject* parent) : QObject(parent)
{
    mProcess = new QProcess(this);
    mProcess->setReadChannel(QProcess::StandardOutput);
    mProcess->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    // Bound while this object is still a CProcBase: finished reaches a subclass's
    // slotProcFinished only through the virtual call.
    connect(mProcess, &QProcess::started, this, &CProcBase::slotProcStartd);
    connect(mProcess, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &CProcBase::slotProcFinished);
    connect(mProcess, &QProcess::errorOccurred, this, &CProcBase::slotProcError);
    connect(mProcess, &QProcess::stateChanged, this, &CProcBase::slotProcStateChanged);
}

CProcBase::~CProcBase()
{
    qDebug() << "CProcBase::~CProcBase";
    if (mProcess) {
        // Closing ends a command that still runs. Its finished signal then reaches this
        // class's own slot only, so no subclass answers from a half-destroyed object.
        mProcess->close();
        delete mProcess;
        mProcess = nullptr;
    }
}

void CProcBase::start(const QString& command)
{
    QStringList arguments = QProcess::splitCommand(command);
    // An empty command leaves the program empty, which QProcess reports as FailedToStart.
    const QString program = arguments.isEmpty() ? QString() : arguments.takeFirst();
    mProcess->start(program, arguments, QIODevice::ReadWrite);
}

bool CProcBase::getResult(QString& result)
{
    result = mResult;
    return !result.isEmpty();
}

void CProcBase::slotProcStartd() {}

void CProcBase::slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    qDebug().nospace() << "CProcBase::slotProcFinished, exitCode: " << exitCode;
    if (exitStatus != QProcess::NormalExit)
        return; // a crashed run leaves the earlier output in place
    const QByteArray output = mProcess->readAllStandardOutput();
    // Narrow text up to the first zero byte, as the command wrote it.
    mResult = QString::fromLatin1(output.constData());
}

void CProcBase::slotProcError(QProcess::ProcessError error)
{
    qDebug().nospace() << "CProcBase::slotProcError, error: " << int(error);
}

void CProcBase::slotProcStateChanged(QProcess::ProcessState state)
{
    qDebug().nospace() << "CProcBase::slotProcStateChanged, state: " << int(state);
}
