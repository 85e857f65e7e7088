#pragma once

#include "kavrel_export.h"

#include <QObject>
#include <QProcess>
#include <QString>

// Runs one command at a time as a child process and keeps the standard output of the
// last run that exited normally. Subclasses override slotProcFinished to turn that
// output into an answer; the process's finished signal is bound to this class's slot,
// so the override is reached through virtual dispatch.
class KAVREL_EXPORT CProcBase : public QObject
{
    Q_OBJECT
public:
    explicit CProcBase(QObject* parent = nullptr);
    ~CProcBase() override;

    // Starts the command: program and arguments in one text, double-quoted arguments
    // kept whole. Returns at once; the end of the run arrives as slotProcFinished.
    void start(const QString& command);
    // Copies the stored output into result; true when it is not empty.
    bool getResult(QString& result);

public slots:
    virtual void slotProcStartd();
    virtual void slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void slotProcError(QProcess::ProcessError error);
    void slotProcStateChanged(QProcess::ProcessState);

private:
    QProcess* mProcess = nullptr;
    QString mResult;
};
