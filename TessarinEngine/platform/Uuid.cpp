#include "TessarinEngine/platform/Uuid.h"

#include <uuid/uuid.h>

Uuid Uuid::random() {
    Uuid u;
    uuid_t raw;
    uuid_generate_random(raw);
    std::copy(std::begin(raw), std::end(raw), u.bytes.begin());
    return u;
}

std::string Uuid::text() const {
    uuid_t raw;
    std::copy(bytes.begin(), bytes.end(), std::begin(raw));
    char out[37];
    uuid_unparse_upper(raw, out);
    return out;
}
