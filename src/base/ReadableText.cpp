#include "base/ReadableText.h"

#include <QByteArray>
#include <QList>

namespace harbex
{

namespace
{

bool mustBeEscaped(char32_t c)
{
    switch (QChar::category(c)) {
    case QChar::Other_Control:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        break;
    }
    // Bidirectional marks, embeddings, overrides and isolates: unescaped, they can make a name appear to have
    // another extension.
    return c == 0x061c || c == 0x200e || c == 0x200f || (c >= 0x202a && c <= 0x202e) ||
           (c >= 0x2066 && c <= 0x2069);
}

QString escape(char32_t c)
{
    switch (c) {
    case U'\n':
        return QStringLiteral("\\n");
    case U'\r':
        return QStringLiteral("\\r");
    case U'\t':
        return QStringLiteral("\\t");
    default:
        return QStringLiteral("\\u{%1}").arg(static_cast<uint>(c), 0, 16);
    }
}

} // namespace

QString readableText(const QString& text)
{
    QString readable;
    readable.reserve(text.size());
    const QList<uint> characters = text.toUcs4();
    for (const char32_t c : characters) {
        if (mustBeEscaped(c))
            readable += escape(c);
        else
            readable += QChar::fromUcs4(c);
    }
    return readable;
}

QString textOfName(std::string_view bytes)
{
    // fromUtf8() removes a leading byte-order mark. The added first character prevents that.
    QByteArray prefixed("x");
    prefixed.append(bytes.data(), static_cast<qsizetype>(bytes.size()));
    return QString::fromUtf8(prefixed).sliced(1);
}

QString readableName(std::string_view bytes)
{
    return readableText(textOfName(bytes));
}

} // namespace harbex
