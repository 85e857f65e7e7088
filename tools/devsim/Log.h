#pragma once
// Diagnostic output on standard error. Errors always; protocol traffic with --verbose.

namespace devsim {

void setVerbose(bool verbose);
bool verbose();
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace devsim
