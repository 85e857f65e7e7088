#pragma once

#include "kavrel_export.h"

#include <QString>

// Every progress line the library hands to the host, formatted in one place.
//
// A progress line is six fields joined by ":" without spaces, quoting or escaping:
//     operation:status:appid:percent:ok:done
// Device texts are passed through as they come, so a device text holding ":" gives a
// line of more than six fields; the manager then treats it as not matching.
//
// Where a parameter is documented as "null for none", a null QString stands for a
// value the device did not send (as opposed to an empty text it did send).
class KAVREL_EXPORT ProgressLine
{
public:
    // Uploading an .ipa: operation is "Install" or "Upgrade".
    static QString copying(const QString& operation, const QString& stagingPath,
                           const QString& appid);
    static QString copyingDone(const QString& operation, const QString& appid);
    // Where an .ipa is staged on the device: "PublicStaging/<appid>".
    static QString stagingPath(const QString& appid);

    // Copying a device-side archive to the computer.
    static QString archiveCopying(const QString& appid);
    static QString archiveCopyingDone(const QString& appid);

    // Status messages of the installation proxy. appid null for none gives "UNKNOWN".
    // percent is the device's unsigned value, written as a signed 32-bit number.
    static QString statusPercent(const QString& operation, const QString& status,
                                 const QString& appid, quint64 percent, bool finalStage);
    // Without a percentage, after the device reported "Complete".
    static QString statusComplete(const QString& operation, const QString& status,
                                  const QString& appid, bool finalStage);
    // Without a percentage, before completion.
    static QString statusPending(const QString& operation, const QString& status,
                                 const QString& appid, bool finalStage);
    static QString statusError(const QString& operation, const QString& error,
                               const QString& appid);
    // A status message without data or operation, or after an error. operation null for
    // none gives "unknown"; appid null for none gives "UNKNOWN".
    static QString wrongState(const QString& operation, const QString& appid);

    // Dispatcher: an operation type above the known ones, or no operation at all.
    static QString wrongOperationType(const QString& appid);
    static QString noOperation(int command);

    // The stored failure line of a step that ended with an error: the command name of
    // the index, the device's error text or the error key, the app id ("unknown" when
    // null for none).
    static QString failure(int command, const QString& status, const QString& appid);

    // The manager's lines when its guard timer expires.
    static QString installCompleted(const QString& appid);
    static QString installTimedOut(const QString& appid);
    static QString operationTimedOut(const QString& operation, const QString& appid);
    // The last intermediate line with field 2 made "ErrorOnTimeout" and field 5 "0";
    // installTimedOut(appid) when there was none or it has not exactly six fields.
    static QString timedOut(const QString& lastLine, const QString& appid);

    // True for a six-field finish line that reports a completed install (field 1 holds
    // "Install", field 2 "Complete", field 4 "100", fields 5 and 6 "1").
    static bool isInstallComplete(const QString& line);

    // What a line looks like once emitted: the device's "RemoveArchive" command name
    // becomes "Archive". Stored failure lines are kept as they are.
    static QString forEmission(const QString& line);

    // The field separator and the number of fields of a well-formed line.
    static const QChar kSeparator;
    static const int kFieldCount = 6;
};
