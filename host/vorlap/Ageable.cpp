#include "vorlap/Ageable.hpp"

namespace Vorlap {
std::atomic<std::uint64_t> Ageable::GlobalTime{0};
}
