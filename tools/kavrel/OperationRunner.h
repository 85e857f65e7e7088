#pragma once
// Runs queued device operations through DeviceManager and shows their progress lines:
// a live bar with the status text on a terminal, the raw lines with --lines.

#include <QList>
#include <QString>
#include <QStringList>

class DeviceManager;

namespace kavrelcli {

class OperationRunner
{
public:
    OperationRunner(DeviceManager& manager, const QString& command, bool rawLines);

    // An operation already requested from the manager; its lines carry appid.
    void expect(const QString& appid, const QString& label);
    // Runs the event loop until the manager is idle; 0 when every operation's lines
    // say it succeeded, else 1 (each failure printed with the device's text).
    int wait();

private:
    void onLine(const QString& line);

    struct Operation
    {
        QString appid;
        QString label;
        bool succeeded = false;
        QString failure;
    };
    DeviceManager& mManager;
    QString mCommand;
    bool mRawLines;
    bool mTerminal;
    QList<Operation> mOperations;
};

} // namespace kavrelcli
