#include "TessarinEngine/EngineLog.h"

#include <cstdio>

namespace EngineLog {

Sink& sink() {
    static Sink current = [](const std::string& line) {
        std::fputs(line.c_str(), stderr);
        std::fputc('\n', stderr);
    };
    return current;
}

void log(const std::string& line) {
    if (auto& s = sink()) {
        s(line);
    }
}

} // namespace EngineLog
