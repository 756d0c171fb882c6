// Marks the module's external interfaces; everything else stays hidden in the shared library.
// Besides the entry point, the store's members and the free functions of the host-facing
// operations, the per-fragment stages are exported too, so that a host can process one
// fragment itself to inspect it (the zone histogram report needs a processed store).
#pragma once

#define QUILLO_API __attribute__((visibility("default")))
