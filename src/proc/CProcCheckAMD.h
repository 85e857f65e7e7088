#pragma once

#include "CProcBase.h"
#include "kavrel_export.h"

// Asks the system's service control whether the "Apple Mobile Device" service runs.
// Each checkIfRunning ends in one signalServiceRunning, provided the command can be
// started at all.
class KAVREL_EXPORT CProcCheckAMD : public CProcBase
{
    Q_OBJECT
public:
    explicit CProcCheckAMD(QObject* parent = nullptr);
    ~CProcCheckAMD() override;

    void checkIfRunning();

signals:
    void signalServiceRunning(bool running);

public slots:
    void slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus) override;
};
