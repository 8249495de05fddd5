#pragma once

#include <string>

namespace BRAWAudio {

// Whether the Blackmagic RAW library could be found and loaded on this machine.
bool isAvailable();
// One line for the user on where the library was found, or that it was not.
std::string availabilityNote();

} // namespace BRAWAudio
