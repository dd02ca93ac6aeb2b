// URLs as an administrator may type them, and what is passed on to the client library.

#include "invariant.h"
#include "process_setup.h"
#include <ldap/utils.h>
#include <tavo_utils/url.h>

#include <QByteArray>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace tavo::fuzz {

namespace {

using utils::Url;

bool isAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

bool mayStandInName(QChar c) { return c.isLetterOrNumber() && c.unicode() < 0x80; }

/// Qt takes everything before the last bracket as the zone of an IPv6 address, and drops what can't be the
/// name of an interface, or all of it.
bool hasStrangeZone(const Url& url)
{
    const QString host = url.host();
    const auto zone = host.contains(QLatin1Char(':')) ? host.indexOf(QLatin1Char('%')) : qsizetype{-1};
    return zone >= 0 && !std::all_of(host.begin() + zone + 1, host.end(), mayStandInName);
}

void checkText(const Url& url)
{
    const QString text = url.toString();
    const Url again(text);
    require(again.isValid(), "the text of a valid URL is a valid URL");
    require(again.toString() == text, "the text of a URL stays as it is");
    require(again.host() == url.host(), "the text leads to the same host");
    require(again.port() == url.port(), "the text leads to the same port");
}

void checkValid(const Url& url)
{
    constexpr int kLargestPort = 65535;
    const QString text = url.toString();
    require(!url.isEmpty() && !text.isEmpty(), "a valid URL is not empty");
    require(url.errorString().isEmpty(), "a valid URL has no error");
    require(isAscii(url.toStdString()), "the text of a URL is ASCII without blanks");
    require(url.scheme() == url.scheme().toLower(), "a scheme is in lower case");
    require(url.port() >= -1 && url.port() <= kLargestPort, "a port is one");
    require(
        url.port(389) == (url.port() == -1 ? 389 : url.port()), "a port that isn't there is the default one");

    if (!hasStrangeZone(url)) {
        checkText(url);
    }
    const Url shown(url.toString(QUrl::RemovePassword));
    require(shown.toQUrl().password().isEmpty(), "a password can be left out");
    if (!url.host().isEmpty() && url.scheme().startsWith(QLatin1String("ldap"))) {
        const bool asksForTls = url.scheme() == QLatin1String("ldaps");
        require(ldap::isLdapsUrl(url) == asksForTls, "who asks for TLS gets it, and nobody else");
    }
}

void checkInvalid(const Url& url, const QString& text)
{
    require(url.toString() == text, "an invalid URL stays as it was typed");
    require(text.isEmpty() || !url.errorString().isEmpty(), "an invalid URL has an error");
    const QString shown = url.toString(QUrl::RemovePassword);
    require(text.endsWith(shown) && !shown.contains(QLatin1Char('@')), "no user is shown of an invalid URL");
}

void check(const QString& text)
{
    const Url url(text);
    require(url == Url(text), "the same text gives the same URL");
    require(url.toStdString() == url.toString().toStdString(), "both texts are the same");
    ldap::isLdapsUrl(url);
    if (url.isValid()) {
        checkValid(url);
    } else {
        checkInvalid(url, text);
    }
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tavo::fuzz::check(QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
    return 0;
}
