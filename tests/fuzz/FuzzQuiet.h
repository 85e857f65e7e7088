#pragma once
// The library reports on Qt's debug stream; millions of fuzzing runs' worth of it
// helps nobody and slows the run, so the targets that include this drop it.

#include <QtGlobal>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    return 0;
}
