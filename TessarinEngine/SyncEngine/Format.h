#pragma once

#include <string>

namespace SyncEngine {

// printf-style formatting into a string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A log line of the engine: one blank after the tag for top-level lines, two for region detail.
void logTop(const std::string& text);
void logDetail(const std::string& text);

} // namespace SyncEngine
