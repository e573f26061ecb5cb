#include <runwarden/SystemArchitecture.h>

#include <cstring>

#include <sys/utsname.h>

namespace runwarden {

QString utsname::sMachine() {
    struct ::utsname names;
    std::memset(&names, 0, sizeof names);
    if (::uname(&names) != 0)
        return {};
    // The field is a fixed-size array: the text ends at its first NUL or at its end.
    const char *machine = names.machine;
    return QString::fromUtf8(machine, qsizetype(::strnlen(machine, sizeof names.machine)));
}

bool utsname::isAppleSilicon() {
    return sMachine() == QLatin1String("arm64");
}

QString SystemArchitecture() {
    return utsname::sMachine();
}

} // namespace runwarden
