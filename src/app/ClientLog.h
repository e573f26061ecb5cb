#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace tarnwick {

// The client's log. Every line still goes to standard output exactly as
// printed; it is also appended, with a UTC ISO 8601 timestamp in front, to
// $XDG_STATE_HOME/tarnwick/tarnwick.log (default ~/.local/state). The file is
// rotated when it passes a size limit: tarnwick.log.1 is the previous file,
// and so on up to a few old ones. Safe to call from any thread.
class ClientLog {
public:
    // One line to standard output and to the file.
    static void line(const QString &text);
    // One line to the file only (messages that already went elsewhere, such
    // as Qt's own warnings on standard error), with its level in front.
    static void fileOnly(const QString &level, const QString &text);

    // Routes the lines of the child-process library and Qt's messages
    // (qWarning, the launch-at-login category, ...) through the log too.
    static void install();

    static QString filePath();
    static qint64 maxBytes();
    static int keptFiles();
    // Rotation limits; the defaults suit a desktop client. For tests.
    static void setLimits(qint64 maxBytes, int keptFiles);
    // Closes the file; the next line opens it again (the path may have changed).
    static void reset();

    // The last `count` lines of the log, oldest first, over the current and
    // the previous file.
    static QStringList tail(int count);

private:
    static void append(const QByteArray &stamped);
};

} // namespace tarnwick
