// Shares independent pieces of work among threads (see Spread.hpp).
#include "app/Spread.hpp"

#include <algorithm>
#include <atomic>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "app/CaughtError.hpp"

namespace quillo::cli {

void spreadOver(unsigned threads, std::size_t count, const std::function<void(std::size_t)>& work) {
  std::vector<std::unique_ptr<CliError>> errors(count);
  std::atomic<std::size_t> next{0};
  auto take = [&] {
    for (std::size_t i; (i = next++) < count;) errors[i] = caughtError("", [&] { work(i); });
  };
  std::vector<std::thread> helpers;
  const std::size_t wanted = std::min<std::size_t>(std::max(1u, threads), count);
  for (std::size_t t = 1; t < wanted; ++t) {
    try {
      helpers.emplace_back(take);
    } catch (const std::system_error&) {
      break;  // the threads started, and this one, share the pieces
    }
  }
  take();
  for (auto& h : helpers) h.join();
  for (auto& e : errors)
    if (e) throw *e;
}

}  // namespace quillo::cli
