// Marks the module's external interfaces; everything else stays hidden in the shared library.
#pragma once

#define QUILLO_API __attribute__((visibility("default")))
