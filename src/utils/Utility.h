#pragma once

#include "kavrel_export.h"

#include <QObject>
#include <QString>
#include <QVariantMap>

// Small helpers shared by every part of the library. All operations are static;
// the class only exists to give them a home (and a meta-object named "Utility").
class KAVREL_EXPORT Utility : public QObject
{
    Q_OBJECT
public:
    explicit Utility(QObject* parent = nullptr);

    // The per-user data directory (documents folder + "/norva/"), created when missing.
    static QString dataPath();
    // The map as single-line JSON text in QJson 0.8's default form; empty on failure
    // (a NaN or infinite number, or a value of a type with no JSON form, anywhere in it).
    static QString toJsonString(const QVariantMap& map);
    // How a text value is shown in JSON output: as a yes/no flag or as itself.
    static QString fieldText(const QString& value, bool asFlag);
    // Standard base64 with padding, malloc'ed and zero-terminated; null for no input.
    static char* base64Encode(const unsigned char* data, unsigned int length);
    // Processes events until the time of day has advanced by the given seconds.
    static void waitSeconds(int seconds);
    // Frees a null-terminated list of malloc'ed strings and the list itself.
    static void freeStringList(char** list);
};
