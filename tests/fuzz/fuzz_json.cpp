// libFuzzer target: Utility::toJsonString on maps of every value type a host can pass,
// decoded from the input bytes. Whatever the values, the text is either empty (a value
// without a JSON form) or one object on one line of 7-bit characters; and when no text
// holds a raw control character (QJson leaves those as they are), a standard JSON
// parser reads it back with the same keys.

#include "FuzzQuiet.h"
#include "Utility.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QRegularExpression>
#include <QStringList>
#include <QVariant>

#include <cstring>
#include <functional>

namespace {

struct Reader
{
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
    bool rawControl = false; // a text with a control character that is written raw was made

    bool atEnd() const { return pos >= size; }
    uint8_t byte() { return atEnd() ? 0 : data[pos++]; }
    QByteArray bytes()
    {
        const size_t n = qMin<size_t>(byte(), size - qMin(pos, size));
        const QByteArray out(reinterpret_cast<const char*>(data + pos), int(n));
        pos += n;
        // Up to the first zero byte, where the written text ends; the same bytes are
        // controls in UTF-8 and Latin-1.
        for (const char c : out.left(out.indexOf('\0')))
            rawControl |= uchar(c) < 0x20 && !strchr("\b\f\n\r\t", c);
        return out;
    }
    QString text() { return QString::fromUtf8(bytes()); }
    template <typename T> T number()
    {
        T value;
        for (size_t i = 0; i < sizeof(T); ++i)
            reinterpret_cast<unsigned char*>(&value)[i] = byte();
        return value;
    }
};

QVariant value(Reader& in, int depth);

template <typename Container> Container items(Reader& in, int depth, int most)
{
    Container c;
    for (int n = in.byte() % most; n > 0 && !in.atEnd(); --n) {
        if constexpr (std::is_same_v<Container, QStringList>)
            c.append(in.text());
        else if constexpr (std::is_same_v<Container, QVariantList>)
            c.append(value(in, depth + 1));
        else
            c.insert(in.text(), value(in, depth + 1));
    }
    return c;
}

QVariant value(Reader& in, int depth)
{
    using Make = std::function<QVariant(Reader&, int)>;
    static const Make kinds[] = {
        [](Reader& in, int) { return QVariant(in.bytes()); },
        [](Reader& in, int) { return QVariant(bool(in.byte() & 1)); },
        [](Reader& in, int) { return QVariant(in.number<double>()); },
        [](Reader& in, int) { return QVariant(in.number<float>()); },
        [](Reader& in, int) { return QVariant(in.number<quint32>()); },
        [](Reader& in, int) { return QVariant(in.number<quint64>()); },
        [](Reader& in, int) { return QVariant(in.number<qint32>()); },
        [](Reader& in, int) { return QVariant(in.number<qint64>()); },
        [](Reader&, int) { return QVariant(); },
        [](Reader& in, int) { return QVariant(QChar(in.number<ushort>())); },
        [](Reader& in, int) {
            return QVariant(QDateTime::fromSecsSinceEpoch(in.number<qint32>(), Qt::UTC));
        },
        [](Reader& in, int) { return QVariant(QPoint(in.byte(), in.byte())); }, // no JSON form
        // Containers only up to a depth.
        [](Reader& in, int d) { return QVariant(items<QVariantMap>(in, d, 8)); },
        [](Reader& in, int d) { return QVariant(items<QVariantHash>(in, d, 4)); },
        [](Reader& in, int d) { return QVariant(items<QVariantList>(in, d, 8)); },
        [](Reader& in, int d) { return QVariant(items<QStringList>(in, d, 4)); },
    };
    return kinds[in.byte() % (depth > 6 ? 12 : 16)](in, depth);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader in{data, size};
    const QVariantMap input = items<QVariantMap>(in, 0, 8);
    const QString json = Utility::toJsonString(input);
    if (json.isEmpty())
        return 0;
    static const QRegularExpression oneLine(QStringLiteral("^\\{ [\\x01-\\x09\\x0b-\\x7f]* \\}\\z"));
    if (!oneLine.match(json).hasMatch())
        abort();
    if (in.rawControl)
        return 0;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(json.toLatin1(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        abort();
    // Keys are written up to their first zero character, so compare them that way.
    QStringList keys;
    for (const QString& k : input.keys())
        keys.append(k.left(k.indexOf(QChar(0))));
    keys.removeDuplicates();
    QStringList parsed = doc.object().keys();
    keys.sort();
    parsed.sort();
    if (keys != parsed)
        abort();
    return 0;
}
