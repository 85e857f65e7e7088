#pragma once
// Subcommand registry of the kavrel host.
//
// A subcommand is a function taking its own arguments (the words after its name)
// and returning the process exit status. It registers itself from its own file:
//
//     static int runPlist(const QStringList& args);
//     KAVREL_COMMAND("plist", "FILE", "Print a property-list file as JSON text", runPlist);

#include <QCommandLineParser>
#include <QString>
#include <QStringList>
#include <QTextStream>

namespace kavrelcli {

using CommandFn = int (*)(const QStringList& args);

struct Command
{
    QString name;
    QString usage;   // argument synopsis, e.g. "[--udid U] KEY VALUE"
    QString summary; // one line for `kavrel --help`
    CommandFn run;
};

QList<Command>& commands();

struct CommandRegistrar
{
    CommandRegistrar(const char* name, const char* usage, const char* summary, CommandFn run);
};

// Prepares a parser for a subcommand: description, --help, and the words to parse.
// Returns false (after printing the reason to stderr) when the words do not parse;
// exitCode is then the status to return. When --help was given, prints help and
// returns false with exitCode 0.
bool parseCommandLine(QCommandLineParser& parser, const QString& name, const QStringList& args,
                      int& exitCode);

// The --udid option most device commands share.
QCommandLineOption udidOption();

QTextStream& out();
QTextStream& err();

} // namespace kavrelcli

#define KAVREL_CONCAT_(a, b) a##b
#define KAVREL_CONCAT(a, b) KAVREL_CONCAT_(a, b)
#define KAVREL_COMMAND(name, usage, summary, fn)                                                   \
    static const kavrelcli::CommandRegistrar KAVREL_CONCAT(kavrelCommand_, __LINE__)(name, usage,  \
                                                                                     summary, fn)
