#include "tavo_utils/formatter.h"

namespace tavo::utils {

namespace {

struct Placeholder
{
    /// 0: there is none.
    qsizetype number = 0;

    qsizetype length = 0;
};

bool isDigit(QChar c) { return c >= u'0' && c <= u'9'; }

/// The placeholder at the start of `text`, which begins with `%`.
Placeholder placeholderAt(QStringView text)
{
    Placeholder found;
    for (const QChar c : text.mid(1, 2)) {
        if (!isDigit(c) || (found.number == 0 && c == u'0')) {
            break;
        }
        found.number = found.number * 10 + (c.unicode() - u'0');
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
    qsizetype length = m_pattern.size();
    for (const QString& arg : m_args) {
        length += arg.size();
    }
    QString result;
    result.reserve(length);
    QStringView rest = m_pattern;
    for (qsizetype percent = rest.indexOf(u'%'); percent >= 0; percent = rest.indexOf(u'%')) {
        result += rest.first(percent);
        rest = rest.sliced(percent);
        const Placeholder placeholder = placeholderAt(rest);
        if (placeholder.number == 0 || placeholder.number > m_args.size()) {
            result += rest.front();
            rest = rest.sliced(1);
            continue;
        }
        result += m_args[placeholder.number - 1];
        rest = rest.sliced(placeholder.length);
    }
    result += rest;
    return result;
}

} // namespace tavo::utils
