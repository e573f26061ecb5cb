#pragma once

#include <QString>

namespace tarnwick::cli {

// `tarnwick diagnose`: one text with what a bug report needs (the version,
// the platform, the running client's status, the backend's shipped file and
// private copy with their SHA-256, the settings and the end of the log),
// with every e-mail address masked. Printed on standard output; works also
// when no client is running. Returns the exit code.
int runDiagnose();

// The report itself (what runDiagnose prints).
QString diagnoseReport();

// "ana.maria@example.org" -> "a***@e***.org", for every address in `text`;
// the sign-in codes the backend logs are blanked too.
QString maskPersonalData(const QString &text);

} // namespace tarnwick::cli
