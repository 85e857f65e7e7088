#include "Utility.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QStandardPaths>
#include <QStringList>
#include <QTime>

#include <cmath>
#include <cstdlib>

Utility::Utility(QObject* parent) : QObject(parent) {}

QString Utility::dataPath()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString path = QStringLiteral("%1/%2/").arg(documents, QStringLiteral("norva"));
    QDir dir;
    if (!dir.exists(path) && !dir.mkpath(path))
        qDebug() << "Warning, failed to create path";
    return path;
}

namespace {

// Escapes a text the way QJson 0.8 does, in its order: backslashes first, then every
// UTF-16 unit of 128 or more as \uXXXX, then quotes and the five named controls.
// Other control characters are left raw. Like QJson, the text ends at its first zero
// character, so a raw zero byte never reaches (and cuts short) the whole document.
QByteArray escapeJsonText(const QString& text)
{
    const int end = text.indexOf(QChar(0));
    QString s = end < 0 ? text : text.left(end);
    s.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    QString wide;
    wide.reserve(s.size());
    for (const QChar c : qAsConst(s)) {
        if (c.unicode() >= 128)
            wide += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            wide += c;
    }
    wide.replace(QLatin1Char('"'), QLatin1String("\\\""));
    wide.replace(QLatin1Char('\b'), QLatin1String("\\b"));
    wide.replace(QLatin1Char('\f'), QLatin1String("\\f"));
    wide.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    wide.replace(QLatin1Char('\r'), QLatin1String("\\r"));
    wide.replace(QLatin1Char('\t'), QLatin1String("\\t"));
    return '"' + wide.toLatin1() + '"';
}

bool serializeJson(const QVariant& v, QByteArray& out);

bool serializeList(const QVariantList& list, QByteArray& out)
{
    QList<QByteArray> parts;
    for (const QVariant& item : list) {
        QByteArray one;
        if (!serializeJson(item, one))
            return false;
        parts.append(one);
    }
    out = "[ " + parts.join(", ") + " ]";
    return true;
}

// Maps in key order, hashes in their own iteration order; the same object form.
template <typename Map> bool serializeObject(const Map& map, QByteArray& out)
{
    QList<QByteArray> parts;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        QByteArray one;
        if (!serializeJson(it.value(), one))
            return false;
        parts.append(escapeJsonText(it.key()) + " : " + one);
    }
    out = "{ " + parts.join(", ") + " }";
    return true;
}

bool serializeDouble(double d, QByteArray& out)
{
    if (std::isnan(d) || std::isinf(d))
        return false;
    out = QByteArray::number(d, 'g', 6);
    if (!out.contains('.') && !out.contains('e'))
        out += ".0";
    return true;
}

bool serializeJson(const QVariant& v, QByteArray& out)
{
    if (!v.isValid()) {
        out = "null";
        return true;
    }
    switch (static_cast<int>(v.type())) {
    case QMetaType::QVariantMap:
        return serializeObject(v.toMap(), out);
    case QMetaType::QVariantHash:
        return serializeObject(v.toHash(), out);
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return serializeList(v.toList(), out);
    case QMetaType::QString:
        out = escapeJsonText(v.toString());
        return true;
    case QMetaType::QByteArray:
        out = escapeJsonText(QString::fromLatin1(v.toByteArray()));
        return true;
    case QMetaType::Bool:
        out = v.toBool() ? "true" : "false";
        return true;
    case QMetaType::Double:
    case QMetaType::Float:
        return serializeDouble(v.toDouble(), out);
    case QMetaType::UInt:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::ULong:
        out = QByteArray::number(v.toULongLong());
        return true;
    default:
        // QJson's order for everything else: whatever converts to a number is written
        // as one (small integer types, a QChar as its code), then whatever converts to
        // text (dates, URLs) as a string; anything else cannot be written.
        if (v.canConvert<qlonglong>()) {
            out = QByteArray::number(v.toLongLong());
            return true;
        }
        if (v.canConvert<QString>()) {
            out = escapeJsonText(v.toString());
            return true;
        }
        return false;
    }
}

} // namespace

QString Utility::toJsonString(const QVariantMap& map)
{
    QByteArray bytes;
    if (!serializeObject(map, bytes))
        return QString();
    // Narrow-string conversion up to the first zero byte, as the host expects.
    return QString::fromLatin1(bytes.constData());
}

QString Utility::fieldText(const QString& value, bool asFlag)
{
    if (asFlag)
        return value.isEmpty() ? QStringLiteral("false") : QStringLiteral("true");
    return value.isEmpty() ? QStringLiteral("unknown") : value;
}

char* Utility::base64Encode(const unsigned char* data, unsigned int length)
{
    if (!data || length == 0)
        return nullptr;
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    char* text = static_cast<char*>(malloc(length / 3 * 4 + 5));
    if (!text)
        return nullptr;
    char* p = text;
    for (unsigned int i = 0; i < length; i += 3) {
        const unsigned int left = length - i;
        const unsigned char b0 = data[i];
        const unsigned char b1 = left > 1 ? data[i + 1] : 0;
        const unsigned char b2 = left > 2 ? data[i + 2] : 0;
        *p++ = alphabet[b0 >> 2];
        *p++ = alphabet[((b0 & 0x03) << 4) | (b1 >> 4)];
        *p++ = left > 1 ? alphabet[((b1 & 0x0f) << 2) | (b2 >> 6)] : '=';
        *p++ = left > 2 ? alphabet[b2 & 0x3f] : '=';
    }
    *p = '\0';
    return text;
}

void Utility::waitSeconds(int seconds)
{
    // A time-of-day deadline: it wraps at midnight, so a wait across midnight ends at once.
    const QTime deadline = QTime::currentTime().addSecs(seconds);
    while (deadline > QTime::currentTime())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
}

void Utility::freeStringList(char** list)
{
    for (int i = 0; list[i]; ++i) {
        free(list[i]);
        list[i] = nullptr;
    }
    free(list);
}
