// kavrel pngfix FILE...: converts Apple's crushed PNG files (as found in app bundles)
// into standard PNG files with PngCrush, in place or into --out DIR.

#include "Command.h"

#include "PngCrush.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>

using namespace kavrelcli;

static int runPngfix(const QStringList& args)
{
    QCommandLineParser parser;
    const QCommandLineOption info(QStringLiteral("info"),
                                  QStringLiteral("Print the image details of every file."));
    const QCommandLineOption listChunks(
        QStringLiteral("list-chunks"),
        QStringLiteral("List every chunk with its CRC check (wrong CRCs are kept, not repaired)."));
    const QCommandLineOption outDir(QStringLiteral("out"),
                                    QStringLiteral("Write the converted files into DIR instead of "
                                                   "over the input files."),
                                    QStringLiteral("DIR"));
    const QCommandLineOption libraryBytes(
        QStringLiteral("library-bytes"),
        QStringLiteral("Keep the library's default row re-filtering (its bytes as a host gets "
                       "them) instead of filtering rows as standard PNG decoders expect."));
    parser.addOptions({info, listChunks, outDir, libraryBytes});
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Crushed PNG files."),
                                 QStringLiteral("FILE..."));
    int code = 0;
    if (!parseCommandLine(parser, QStringLiteral("pngfix"), args, code))
        return code;
    const QStringList files = parser.positionalArguments();
    if (files.isEmpty()) {
        err() << "kavrel pngfix: expected at least one FILE (see 'kavrel pngfix --help')\n";
        err().flush();
        return 2;
    }

    QByteArray dir;
    if (parser.isSet(outDir)) {
        const QString path = parser.value(outDir);
        if (!QDir().mkpath(path)) {
            err() << "kavrel pngfix: cannot create " << path << "\n";
            err().flush();
            return 1;
        }
        dir = QFile::encodeName(path);
    }

    PngCrush crush;
    crush.print_info = parser.isSet(info) ? 1 : 0;
    crush.list_chunks = parser.isSet(listChunks) ? 1 : 0;
    crush.output_dir = dir.isEmpty() ? nullptr : dir.data();
    // Files written for people to look at: rows filtered exactly as PNG defines it.
    crush.standard_filters = parser.isSet(libraryBytes) ? 0 : 1;

    // The converter writes to stdout with printf; so does this loop, to keep the order.
    int failed = 0;
    for (const QString& file : files) {
        QByteArray name = QFile::encodeName(file);
        char* outName = nullptr;
        if (crush.process(name.data(), &outName) == 1)
            printf("converted to %s\n", outName);
        else
            ++failed;
        free(outName);
    }
    fflush(stdout);
    return failed ? 1 : 0;
}

KAVREL_COMMAND("pngfix", "[--info] [--list-chunks] [--out DIR] [--library-bytes] FILE...",
               "Convert crushed iPhone PNG files into standard PNG files", runPngfix);
