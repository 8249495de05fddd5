#pragma once

#include <functional>
#include <string>

namespace EngineLog {

using Sink = std::function<void(const std::string&)>;

// The one road of every log line of the library. By default it prints the line to standard
// error; the program points it at its own printer at start and tests swap it for a capture.
// Set it before any work starts: it is read, not locked, by concurrent stages.
Sink& sink();

// Hands one line to the sink.
void log(const std::string& line);

} // namespace EngineLog
