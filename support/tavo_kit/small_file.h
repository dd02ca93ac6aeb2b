#pragma once

#include <QByteArray>
#include <QString>

namespace tavo::kit {

/// What a file holds, or why it was not read.
struct SmallFile
{
    QByteArray content;

    /// Why there is no content, for a person to read; null when the file was read to its end.
    QString failure;
};

/// Reads a regular file of at most `limit` bytes.
///
/// Waits neither for the other end of a FIFO nor for a device: nothing but a regular file is read.
SmallFile readSmallFile(const QString& path, qsizetype limit);

} // namespace tavo::kit
