#include "Json.h"

#include <cstdlib>
#include <cstring>

namespace devsim {

namespace {

class JsonReader
{
public:
    explicit JsonReader(const std::string& text) : mText(text) {}

    Plist parseDocument(std::string* error)
    {
        Plist root;
        bool isNull = false;
        if (parseValue(root, isNull, 0)) {
            skipSpace();
            if (mPos == mText.size())
                return root;
            fail("trailing characters");
        }
        if (error)
            *error = mError + " at offset " + std::to_string(mPos);
        return nullptr;
    }

private:
    static constexpr int kMaxDepth = 64;

    bool fail(const char* what)
    {
        if (mError.empty())
            mError = what;
        return false;
    }

    void skipSpace()
    {
        while (mPos < mText.size() && std::strchr(" \t\r\n", mText[mPos]) && mText[mPos] != 0)
            ++mPos;
    }

    bool consume(char c)
    {
        skipSpace();
        if (mPos < mText.size() && mText[mPos] == c) {
            ++mPos;
            return true;
        }
        return false;
    }

    bool literal(const char* word)
    {
        size_t n = std::strlen(word);
        if (mText.compare(mPos, n, word) != 0)
            return false;
        mPos += n;
        return true;
    }

    bool parseValue(Plist& out, bool& isNull, int depth)
    {
        if (depth > kMaxDepth)
            return fail("nesting too deep");
        skipSpace();
        isNull = false;
        if (mPos >= mText.size())
            return fail("unexpected end");
        char c = mText[mPos];
        if (c == '{')
            return parseObject(out, depth);
        if (c == '[')
            return parseArray(out, depth);
        if (c == '"') {
            std::string s;
            if (!parseString(s))
                return false;
            out.reset(plist_new_string(s.c_str()));
            return true;
        }
        if (literal("true")) {
            out.reset(plist_new_bool(1));
            return true;
        }
        if (literal("false")) {
            out.reset(plist_new_bool(0));
            return true;
        }
        if (literal("null")) {
            isNull = true;
            return true;
        }
        return parseNumber(out);
    }

    bool parseNumber(Plist& out)
    {
        size_t start = mPos;
        bool integral = true;
        if (mPos < mText.size() && mText[mPos] == '-') {
            integral = false;
            ++mPos;
        }
        size_t digits = mPos;
        while (mPos < mText.size()) {
            char c = mText[mPos];
            if (c >= '0' && c <= '9') {
                ++mPos;
            } else if (c == '.' || c == 'e' || c == 'E' || c == '+' || c == '-') {
                integral = false;
                ++mPos;
            } else {
                break;
            }
        }
        if (mPos == digits)
            return fail("invalid value");
        std::string number = mText.substr(start, mPos - start);
        if (integral) {
            errno = 0;
            char* end = nullptr;
            unsigned long long v = std::strtoull(number.c_str(), &end, 10);
            if (errno == 0 && end && *end == 0) {
                out.reset(plist_new_uint(v));
                return true;
            }
        }
        char* end = nullptr;
        double d = std::strtod(number.c_str(), &end);
        if (!end || *end != 0)
            return fail("invalid number");
        out.reset(plist_new_real(d));
        return true;
    }

    static void appendUtf8(std::string& s, unsigned cp)
    {
        if (cp < 0x80) {
            s += static_cast<char>(cp);
        } else if (cp < 0x800) {
            s += static_cast<char>(0xC0 | (cp >> 6));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            s += static_cast<char>(0xE0 | (cp >> 12));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (cp >> 18));
            s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    bool parseHex4(unsigned& cp)
    {
        if (mPos + 4 > mText.size())
            return fail("bad escape");
        cp = 0;
        for (int i = 0; i < 4; ++i) {
            char c = mText[mPos++];
            cp <<= 4;
            if (c >= '0' && c <= '9')
                cp |= c - '0';
            else if (c >= 'a' && c <= 'f')
                cp |= c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                cp |= c - 'A' + 10;
            else
                return fail("bad escape");
        }
        return true;
    }

    bool parseString(std::string& out)
    {
        ++mPos; // opening quote
        while (mPos < mText.size()) {
            char c = mText[mPos++];
            if (c == '"')
                return true;
            if (static_cast<unsigned char>(c) < 0x20)
                return fail("control character in string");
            if (c != '\\') {
                out += c;
                continue;
            }
            if (mPos >= mText.size())
                break;
            char e = mText[mPos++];
            switch (e) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case '/':
                out += '/';
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u': {
                unsigned cp = 0;
                if (!parseHex4(cp))
                    return false;
                if (cp >= 0xD800 && cp < 0xDC00 && mText.compare(mPos, 2, "\\u") == 0) {
                    mPos += 2;
                    unsigned low = 0;
                    if (!parseHex4(low))
                        return false;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                }
                if (cp == 0)
                    return fail("NUL in string");
                appendUtf8(out, cp);
                break;
            }
            default:
                return fail("bad escape");
            }
        }
        return fail("unterminated string");
    }

    bool parseObject(Plist& out, int depth)
    {
        ++mPos;
        Plist dict = plistDict();
        if (consume('}')) {
            out = std::move(dict);
            return true;
        }
        while (true) {
            skipSpace();
            if (mPos >= mText.size() || mText[mPos] != '"')
                return fail("expected a key");
            std::string key;
            if (!parseString(key))
                return false;
            if (!consume(':'))
                return fail("expected ':'");
            Plist value;
            bool isNull = false;
            if (!parseValue(value, isNull, depth + 1))
                return false;
            if (!isNull)
                plist_dict_set_item(dict.get(), key.c_str(), value.release());
            if (consume(','))
                continue;
            if (consume('}'))
                break;
            return fail("expected ',' or '}'");
        }
        // {"$data": "<base64>"} stands for a data item.
        if (plist_dict_get_size(dict.get()) == 1) {
            plist_t b64 = dictItem(dict.get(), "$data", PLIST_STRING);
            if (b64) {
                bool ok = false;
                std::string bytes = base64Decode(nodeString(b64), &ok);
                if (!ok)
                    return fail("invalid base64 in $data");
                out.reset(plist_new_data(bytes.data(), bytes.size()));
                return true;
            }
        }
        out = std::move(dict);
        return true;
    }

    bool parseArray(Plist& out, int depth)
    {
        ++mPos;
        Plist array = plistArray();
        if (consume(']')) {
            out = std::move(array);
            return true;
        }
        while (true) {
            Plist value;
            bool isNull = false;
            if (!parseValue(value, isNull, depth + 1))
                return false;
            if (!isNull)
                plist_array_append_item(array.get(), value.release());
            if (consume(','))
                continue;
            if (consume(']'))
                break;
            return fail("expected ',' or ']'");
        }
        out = std::move(array);
        return true;
    }

    const std::string& mText;
    size_t mPos = 0;
    std::string mError;
};

int base64Value(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

} // namespace

Plist jsonToPlist(const std::string& text, std::string* error)
{
    JsonReader reader(text);
    return reader.parseDocument(error);
}

std::string base64Decode(const std::string& text, bool* ok)
{
    std::string out;
    unsigned buffer = 0;
    int bits = 0;
    bool valid = true;
    for (char c : text) {
        if (c == '=' || c == '\n' || c == '\r' || c == ' ' || c == '\t')
            continue;
        int v = base64Value(c);
        if (v < 0) {
            valid = false;
            break;
        }
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((buffer >> bits) & 0xFF);
        }
    }
    if (ok)
        *ok = valid;
    return out;
}

std::string base64Encode(const std::string& bytes)
{
    static const char* table = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) |
                     (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                     static_cast<unsigned char>(bytes[i + 2]);
        out += table[(v >> 18) & 63];
        out += table[(v >> 12) & 63];
        out += table[(v >> 6) & 63];
        out += table[v & 63];
    }
    if (i < bytes.size()) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size())
            v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += table[(v >> 18) & 63];
        out += table[(v >> 12) & 63];
        out += (i + 1 < bytes.size()) ? table[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

} // namespace devsim
