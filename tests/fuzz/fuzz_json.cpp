// libFuzzer target: Utility::toJsonString on maps of every value type a host can pass,
// decoded from the input bytes. Whatever the values, the text is either empty (a value
// without a JSON form) or one object on one line of 7-bit characters; and when no text
// holds a raw control character (QJson leaves those as they are), a standard JSON
// parser reads it back with the same keys.

#include "FuzzQuiet.h"
#include "Utility.h"

#include <QChar>
#include <QDateTime>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QStringList>
#include <QVariant>

#include <cstdlib>
#include <cstring>

namespace {

class Reader
{
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    bool atEnd() const { return mPos >= mSize; }
    uint8_t byte() { return atEnd() ? 0 : mData[mPos++]; }
    QByteArray bytes()
    {
        const size_t n = qMin<size_t>(byte(), mSize - qMin(mPos, mSize));
        QByteArray out(reinterpret_cast<const char*>(mData + mPos), int(n));
        mPos += n;
        return out;
    }
    template <typename T> T number()
    {
        T value{};
        unsigned char raw[sizeof(T)] = {};
        for (unsigned char& b : raw)
            b = byte();
        memcpy(&value, raw, sizeof(T));
        return value;
    }
    // Set when a text with a control character that is written raw was produced.
    bool rawControl = false;

    QString text()
    {
        const QString s = QString::fromUtf8(bytes());
        noteControls(s);
        return s;
    }
    void noteControls(const QString& s)
    {
        for (const QChar c : s) {
            const ushort u = c.unicode();
            if (u == 0)
                break; // the written text ends here
            if (u < 0x20 && u != '\b' && u != '\f' && u != '\n' && u != '\r' && u != '\t')
                rawControl = true;
        }
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

QVariant value(Reader& in, int depth);

QVariantMap map(Reader& in, int depth)
{
    QVariantMap m;
    for (int n = in.byte() % 8; n > 0 && !in.atEnd(); --n)
        m.insert(in.text(), value(in, depth + 1));
    return m;
}

QVariant value(Reader& in, int depth)
{
    const int kind = in.byte() % (depth > 6 ? 12 : 16);
    switch (kind) {
    case 0: {
        const QByteArray b = in.bytes();
        in.noteControls(QString::fromLatin1(b));
        return b;
    }
    case 1:
        return bool(in.byte() & 1);
    case 2:
        return in.number<double>();
    case 3:
        return in.number<float>();
    case 4:
        return in.number<quint32>();
    case 5:
        return in.number<quint64>();
    case 6:
        return in.number<qint32>();
    case 7:
        return in.number<qint64>();
    case 8:
        return QVariant();
    case 9:
        return QChar(in.number<ushort>());
    case 10:
        return QDateTime::fromSecsSinceEpoch(in.number<qint32>(), Qt::UTC);
    case 11:
        return QPoint(in.byte(), in.byte()); // has no JSON form
    case 12:
        return map(in, depth);
    case 13: {
        QVariantHash h;
        for (int n = in.byte() % 4; n > 0 && !in.atEnd(); --n)
            h.insert(in.text(), value(in, depth + 1));
        return h;
    }
    case 14: {
        QVariantList l;
        for (int n = in.byte() % 8; n > 0 && !in.atEnd(); --n)
            l.append(value(in, depth + 1));
        return l;
    }
    default: {
        QStringList l;
        for (int n = in.byte() % 4; n > 0 && !in.atEnd(); --n)
            l.append(in.text());
        return l;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtMessages();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader in(data, size);
    const QVariantMap input = map(in, 0);
    const QString json = Utility::toJsonString(input);
    if (json.isEmpty())
        return 0;
    if (!json.startsWith(QLatin1String("{ ")) || !json.endsWith(QLatin1String(" }")))
        abort();
    for (const QChar c : json)
        if (c.unicode() == 0 || c.unicode() >= 128 || c == QLatin1Char('\n'))
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
        keys.append(k.left(k.indexOf(QChar(0)) < 0 ? k.size() : k.indexOf(QChar(0))));
    keys.removeDuplicates();
    QStringList parsed = doc.object().keys();
    keys.sort();
    parsed.sort();
    if (keys != parsed)
        abort();
    return 0;
}
