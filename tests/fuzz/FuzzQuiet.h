#pragma once
// The library reports on Qt's debug stream; millions of fuzzing runs' worth of it
// helps nobody and slows the run, so the targets drop it.

#include <QtGlobal>

inline void silenceQtMessages()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}
