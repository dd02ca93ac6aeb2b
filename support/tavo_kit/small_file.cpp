#include "tavo_kit/small_file.h"

#include <tavo_utils/formatter.h>
#include <tavo_utils/scope_guard.h>
#include <tavo_utils/system_error.h>

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tavo::kit {

namespace {

SmallFile unread(const QString& failure) { return {{}, failure}; }

SmallFile unreadForTheSystemsReason() { return unread(utils::SystemError::toString(errno)); }

QString kindName(mode_t mode)
{
    if (S_ISDIR(mode)) {
        return QStringLiteral("a directory");
    }
    if (S_ISFIFO(mode)) {
        return QStringLiteral("a FIFO");
    }
    if (S_ISSOCK(mode)) {
        return QStringLiteral("a socket");
    }
    return QStringLiteral("a device");
}

SmallFile unreadForItsKind(mode_t mode)
{
    return unread(utils::format(u"it is %1, not a regular file", kindName(mode)));
}

/// The size that the system gives for a file is not asked for: it may be 0 for a file of `/proc`, and the
/// file may grow.
SmallFile readToTheEnd(int descriptor, qsizetype limit)
{
    SmallFile file;
    std::array<char, 4096> part{};
    for (;;) {
        const ssize_t size = read(descriptor, part.data(), part.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            return unreadForTheSystemsReason();
        }
        if (size == 0) {
            return file;
        }
        file.content.append(part.data(), size);
        if (file.content.size() > limit) {
            return unread(utils::format(u"it is larger than %1 bytes", limit));
        }
    }
}

} // namespace

SmallFile readSmallFile(const QString& path, qsizetype limit)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status
    {};
    const int descriptor = open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) { // ENXIO: a socket
        const bool isKnown = errno == ENXIO && stat(name.constData(), &status) == 0;
        return isKnown ? unreadForItsKind(status.st_mode) : unreadForTheSystemsReason();
    }
    const utils::ScopeGuard closeIt([descriptor] { close(descriptor); });
    const bool isKnown = fstat(descriptor, &status) == 0;
    if (isKnown && S_ISREG(status.st_mode)) {
        return readToTheEnd(descriptor, limit);
    }
    return isKnown ? unreadForItsKind(status.st_mode) : unreadForTheSystemsReason();
}

} // namespace tavo::kit
