#include "tavo_utils/formatter.h"

#include <cstddef>

namespace tavo::utils {

namespace {

struct Placeholder
{
    /// 0: there is none.
    std::size_t number = 0;

    qsizetype length = 0;
};

bool isDigit(QChar c) { return c >= u'0' && c <= u'9'; }

/// The placeholder at the start of `text`, which is not empty.
Placeholder placeholderAt(QStringView text)
{
    Placeholder found;
    if (text.front() != u'%') {
        return found;
    }
    for (const QChar c : text.mid(1, 2)) {
        if (!isDigit(c) || (found.number == 0 && c == u'0')) {
            break;
        }
        found.number = found.number * 10 + static_cast<std::size_t>(c.unicode() - u'0');
        ++found.length;
    }
    ++found.length;
    return found;
}

} // namespace

QString toText(QStringView text) { return text.toString(); }

QString toText(const QByteArray& utf8) { return QString::fromUtf8(utf8); }

QString toText(std::string_view utf8)
{
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

QString toText(const std::string& utf8) { return toText(std::string_view(utf8)); }

QString toText(const char* utf8) { return QString::fromUtf8(utf8); }

QString toText(const Url& url) { return url.withoutUserInfo().toString(); }

QString Formatter::toString() const
{
    QString result;
    for (QStringView rest = m_pattern; !rest.empty();) {
        const Placeholder placeholder = placeholderAt(rest);
        if (placeholder.number == 0 || placeholder.number > m_args.size()) {
            result += rest.front();
            rest = rest.mid(1);
            continue;
        }
        result += m_args[placeholder.number - 1];
        rest = rest.mid(placeholder.length);
    }
    return result;
}

} // namespace tavo::utils
