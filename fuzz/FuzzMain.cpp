// The libFuzzer entry of one target; the build names the target with TESSARIN_FUZZ_TARGET.
#include "fuzz/Targets.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzTargets::Entry* target = FuzzTargets::find(TESSARIN_FUZZ_TARGET);
    if (!target) {
        std::abort();
    }
    target->run(data, size);
    return 0;
}
