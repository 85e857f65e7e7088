#pragma once

#include "CProcBase.h"
#include "kavrel_export.h"

// Asks the system's service control to start the "Apple Mobile Device" service. Each
// startAMD ends in one signalStartAMD, provided the command can be started at all.
class KAVREL_EXPORT CProcStartAMD : public CProcBase
{
    Q_OBJECT
public:
    explicit CProcStartAMD(QObject* parent = nullptr);

    void startAMD();

signals:
    void signalStartAMD(bool suc);

private slots:
    void slotProcFinished(int exitCode, QProcess::ExitStatus exitStatus) override;
};
