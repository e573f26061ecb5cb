#pragma once

#include <QString>

namespace runwarden {

/// The kernel's machine name (uname's machine field), e.g. "arm64", "aarch64" or "x86_64".
QString SystemArchitecture();

/// Named after the system call it reads.
struct utsname {
    /// The machine field of uname(), up to its first NUL.
    static QString sMachine();
    /// True when the machine name is exactly "arm64".
    static bool isAppleSilicon();
};

} // namespace runwarden
