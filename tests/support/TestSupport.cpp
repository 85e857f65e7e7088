#include "TestSupport.h"

namespace kavreltest {

namespace {
std::mutex gCurrentLock;
LogCapture* gCurrent = nullptr;
} // namespace

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> guard(gCurrentLock);
    mOuter = gCurrent;
    gCurrent = this;
    mPrevious = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> guard(gCurrentLock);
    gCurrent = mOuter;
    qInstallMessageHandler(mPrevious);
}

void LogCapture::handler(QtMsgType, const QMessageLogContext&, const QString& msg)
{
    std::lock_guard<std::mutex> guard(gCurrentLock);
    if (!gCurrent)
        return;
    std::lock_guard<std::mutex> lines(gCurrent->mLock);
    gCurrent->mLines.append(msg);
}

QStringList LogCapture::lines() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

TempHome::TempHome()
{
    qputenv("HOME", QFile::encodeName(mDir.path()));
    qunsetenv("XDG_CONFIG_HOME");
    qunsetenv("XDG_DOCUMENTS_DIR");
    QDir(mDir.path()).mkpath(QStringLiteral("Documents"));
}

QString TempHome::documentsPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return f.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

ProgramRun runProgram(const QString& program, const QStringList& args,
                      const QProcessEnvironment& env, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, args);
    ProgramRun run;
    if (!process.waitForFinished(timeoutMs))
        return run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QByteArray plistBytes(plist_t node, bool binary)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    if (binary)
        plist_to_bin(node, &bytes, &length);
    else
        plist_to_xml(node, &bytes, &length);
    QByteArray out(bytes, int(length));
    free(bytes);
    plist_free(node);
    return out;
}

} // namespace kavreltest
