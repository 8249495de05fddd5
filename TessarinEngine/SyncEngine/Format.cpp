#include "TessarinEngine/SyncEngine/Format.h"

#include "TessarinEngine/EngineLog.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace SyncEngine {

std::string format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string out;
    if (n > 0) {
        std::vector<char> buffer(static_cast<std::size_t>(n) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), fmt, again);
        out.assign(buffer.data(), static_cast<std::size_t>(n));
    }
    va_end(again);
    return out;
}

void logTop(const std::string& text) {
    EngineLog::log("[SyncEngine] " + text);
}

void logDetail(const std::string& text) {
    EngineLog::log("[SyncEngine]  " + text);
}

} // namespace SyncEngine
