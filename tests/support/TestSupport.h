#pragma once
// Helpers shared by the Qt Test programs; including this brings QtTest and all of QtCore.

#include <QGuiApplication>
#include <QtTest>

#include <plist/plist.h>

#include <mutex>

namespace kavreltest {

// Captures every line written to the Qt debug stream while it lives, on any thread.
// Lines are kept exactly as the message handler receives them (a streamed QString
// appears in double quotes, as a host sees it). Captures nest: the innermost one
// receives the lines, and the previous handler is restored on destruction.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const;
    // True when some captured line equals text exactly.
    bool hasLine(const QString& text) const { return lines().contains(text); }
    // True when some captured line contains text.
    bool contains(const QString& text) const { return count(text) > 0; }
    // How many captured lines contain text.
    int count(const QString& text) const { return lines().filter(text).size(); }
    // Everything captured, one line per entry, for failure messages.
    QString dump() const { return lines().join(QLatin1Char('\n')); }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& msg);
    mutable std::mutex mLock;
    QStringList mLines;
    QtMessageHandler mPrevious = nullptr;
    LogCapture* mOuter = nullptr;
};

// Points HOME (and so QStandardPaths' documents folder) at a fresh temporary
// directory, so no test touches the real user's files. Call before QCoreApplication
// exists; KAVREL_TEST_MAIN does that.
class TempHome
{
public:
    TempHome();
    // The documents folder that QStandardPaths reports under the temporary home.
    static QString documentsPath();

private:
    QTemporaryDir mDir;
};

// Writes bytes to a file, creating parent directories; returns false on failure.
bool writeFile(const QString& path, const QByteArray& bytes);
QByteArray readFile(const QString& path);

// A program run to its end: its exit status (-1 when it crashed, could not start or did
// not end in time) and everything it wrote.
struct ProgramRun
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};
ProgramRun runProgram(const QString& program, const QStringList& args,
                      const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
                      int timeoutMs = 60000);

// A property list serialised in binary or XML form; takes and frees the node.
QByteArray plistBytes(plist_t node, bool binary);

} // namespace kavreltest

// Like QTEST_GUILESS_MAIN/QTEST_MAIN, but with a temporary home set up first.
#define KAVREL_TEST_MAIN(TestObject)                                                               \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        kavreltest::TempHome home;                                                                 \
        QGuiApplication app(argc, argv);                                                           \
        app.setAttribute(Qt::AA_Use96Dpi, true);                                                   \
        TestObject tc;                                                                             \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&tc, argc, argv);                                                      \
    }
