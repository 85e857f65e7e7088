// kavrel-desk: the desktop assistant window on the kavrel library.

#include "MainWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QPixmap>
#include <QTimer>

#include <cstdio>

namespace {

// The library writes a line for every step; the window shows what matters, so those
// lines stay off the terminal unless KAVREL_DEBUG is set.
// The offscreen platform and a shell without XDG_RUNTIME_DIR add warnings that say
// nothing about the window either.
void dropDebugLines(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    if (msg.contains(QLatin1String("propagateSizeHints")) ||
        msg.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    fprintf(stderr, "%s\n", msg.toLocal8Bit().constData());
}

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("KAVREL_DEBUG"))
        qInstallMessageHandler(dropDebugLines);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("kavrel-desk"));
    Q_INIT_RESOURCE(kavrel);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Desktop assistant for iPhone, iPad and iPod touch."));
    parser.addHelpOption();
    const QCommandLineOption screenshot(
        QStringLiteral("screenshot"),
        QStringLiteral("Save the window as a PNG image to FILE, then quit."),
        QStringLiteral("FILE"));
    const QCommandLineOption after(
        QStringLiteral("after"),
        QStringLiteral("Seconds to let the window fill before the screenshot (default 6)."),
        QStringLiteral("SECONDS"), QStringLiteral("6"));
    parser.addOption(screenshot);
    parser.addOption(after);
    parser.process(app);

    MainWindow window;
    window.show();
    if (parser.isSet(screenshot)) {
        bool ok = false;
        const double seconds = parser.value(after).toDouble(&ok);
        if (!ok || seconds < 0) {
            fprintf(stderr, "kavrel-desk: --after needs a number of seconds\n");
            return 2;
        }
        const QString file = parser.value(screenshot);
        QTimer::singleShot(int(seconds * 1000), &window, [&window, file] {
            // Quality 0 is the PNG writer's strongest compression: the smallest file.
            const bool saved = window.grab().save(file, "PNG", 0);
            if (!saved)
                fprintf(stderr, "kavrel-desk: cannot write %s\n", qPrintable(file));
            QCoreApplication::exit(saved ? 0 : 1);
        });
    }
    return app.exec();
}
